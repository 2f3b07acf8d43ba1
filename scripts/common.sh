# shellcheck shell=bash
# Sourced by the other scripts: changes to the top of the source tree and defines what they share.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit

# On Debian the PATH of an ordinary user has no sbin, where mke2fs, sfdisk and similar tools are.
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

# source_files [DIRECTORY]...: the C++ files of these directories, or of the whole project, separated by NUL.
source_files() {
    if (($# == 0)); then
        set -- src check tests bench
    fi
    find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.inc' \) -print0 | sort -z
}
