# shellcheck shell=bash
# Sourced by the other scripts: goes to the top of the source tree and holds what they share.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit

# mke2fs, sfdisk and their like live in sbin, which an ordinary user's PATH does not have on Debian.
export PATH="$PATH:/usr/local/sbin:/usr/sbin:/sbin"

if command -v ccache >/dev/null && [[ -z ${CMAKE_CXX_COMPILER_LAUNCHER:-} ]]; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

heading() {
    printf '\n== %s\n' "$*"
}

die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# build_preset PRESET [TARGET...]
build_preset() {
    local preset=$1
    shift
    cmake --preset "$preset" || return
    local targets=()
    if (($# > 0)); then
        targets=(--target "$@")
    fi
    cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
}

# source_files: every C++ file of the project, separated by NUL.
source_files() {
    local directories=() directory
    for directory in src tests bench; do
        if [[ -d $directory ]]; then
            directories+=("$directory")
        fi
    done
    find "${directories[@]}" -type f \( -name '*.cpp' -o -name '*.h' \) -print0 | sort -z
}
