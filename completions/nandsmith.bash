# shellcheck shell=bash
# Completion of nandsmith and nandsmith-check for bash. Needs bash-completion, and is installed under both names.

_nandsmith_conversion='-i --in= -o --out= -t --flash_type= -b --block_size= -p --page_size= -s --oob_size=
    -2 --2k_data --page_list -v --version -h --help'

_nandsmith_own='--only= --ignore= --strict --no-second-opinion --at= --layout= --bad-blocks= --max-bad-blocks=
    --max-flips= --warn-flips= --dump-spare= --skip= --ecc --extract= --force --holes --holes= --manifest=
    --max-differences= --json --json= --verbose -q --quiet --color --color= --progress --progress= --list'

# Offers those of the given words that go on with what was typed.
_nandsmith_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "${cur-}")
    if [[ ${COMPREPLY[0]-} == *= ]]; then
        compopt -o nospace
    fi
}

# The same for the last word of a list with commas.
_nandsmith_list() {
    local head=
    if [[ ${cur-} == *,* ]]; then
        head=${cur%,*},
    fi
    mapfile -t COMPREPLY < <(compgen -P "$head" -W "$1" -- "${cur##*,}")
    compopt -o nospace
}

# The value of an option of the conversion. Fails for any other option.
_nandsmith_value() {
    case $1 in
    -i | --in) _filedir ;;
    -o | --out) _filedir -d ;;
    -t | --flash_type) _nandsmith_words 'emmc spinor spinand slc' ;;
    -b | --block_size | -p | --page_size | -s | --oob_size) ;; # a number
    *) return 1 ;;
    esac
    return 0
}

_nandsmith() {
    # shellcheck disable=SC2034 # _init_completion sets them all
    local cur prev words cword split
    _init_completion -s || return
    if _nandsmith_value "$prev" || "$split"; then
        return
    fi
    _nandsmith_words "$_nandsmith_conversion"
}

# The value of an option of nandsmith-check alone. An optional value follows the sign, never a blank.
_nandsmith_check_value() {
    case $1 in
    --only | --ignore) _nandsmith_list 'idblock gpt parameter gaps rest' ;;
    --layout) _filedir ;;
    --extract) _filedir -d ;;
    --manifest) _nandsmith_words 'csv json sums' ;;
    --at | --bad-blocks | --max-bad-blocks | --max-flips | --warn-flips | --dump-spare | --skip) ;;
    --max-differences) ;;
    --json)
        "$split" || return
        _filedir
        ;;
    --color | --progress | --holes)
        "$split" || return
        _nandsmith_words 'auto always never'
        ;;
    *) return 1 ;;
    esac
    return 0
}

_nandsmith_check() {
    # shellcheck disable=SC2034 # _init_completion sets them all
    local cur prev words cword split
    _init_completion -s || return
    if _nandsmith_value "$prev" || _nandsmith_check_value "$prev" || "$split"; then
        return
    fi
    if [[ $cur == -* ]]; then
        _nandsmith_words "$_nandsmith_conversion $_nandsmith_own"
    else
        _filedir
    fi
}

complete -F _nandsmith nandsmith
complete -F _nandsmith_check nandsmith-check
