# bash completion for taskman
# shellcheck shell=bash

# Takes the words of $1 that begin with what has been typed.
_taskman_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "${COMP_WORDS[COMP_CWORD]}"); }

# Completes the value of option $1; false when it takes none.
_taskman_value() {
    case $1 in
    -i | --input | -o | --output | --failed | --worker | --cacert | --cert | --key) compopt -o default ;;
    -d | --dir) compopt -o dirnames ;;
    -j | --jobs | --per-host) _taskman_words '1 2 3 4 5 6 7 8' ;;
    -n | --connections) _taskman_words '1 2 3 4 5 6 7 8 9 10' ;;
    --limit-rate) _taskman_words '100k 1m 10m' ;;
    --tries) _taskman_words '1 5 20 100' ;;
    --retry-after) _taskman_words '0 30 120 3600' ;;
    --wait) _taskman_words '0 10 60 300' ;;
    -x | --proxy) _taskman_words 'none http:// socks4:// socks4a:// socks5:// socks5h://' ;;
    --progress) _taskman_words 'auto bar plain none' ;;
    --color) _taskman_words 'auto always never' ;;
    --sha256 | --size | --format | --timeout | -H | --header | -u | --user | -A | --user-agent) ;;
    *) return 1 ;;
    esac
}

_taskman() {
    COMPREPLY=()
    if ((COMP_CWORD < 2)); then
        _taskman_words 'get info top stop clean --help -h --version'
        return
    fi
    # No option of clean takes a value, and its -n is another one.
    [[ ${COMP_WORDS[1]} == clean ]] || ! _taskman_value "${COMP_WORDS[COMP_CWORD - 1]}" || return 0
    local options='-h --help'
    case ${COMP_WORDS[1]} in
    get)
        options+=' -i --input -o --output -d --dir -f --force -s --skip-existing --number'
        options+=' -N --newer --per-host --retry-after'
        options+=' -J --server-name --sha256 --no-continue --fresh-workers -R --remote-time --failed'
        options+=' --size --format -j --jobs -n --connections --limit-rate --tries'
        options+=' --wait --timeout'
        options+=' -H --header -u --user --netrc -A --user-agent'
        options+=' --cacert --cert --key --insecure -x --proxy'
        options+=' --worker --json -q --quiet -v --verbose'
        options+=' --progress --color'
        ;;
    info)
        options+=' --size --json --url -H --header -u --user --netrc'
        options+=' --cacert --cert --key --insecure -x --proxy --worker'
        ;;
    top) options+=' --once --json' ;;
    stop)
        options+=' --all'
        [[ ${COMP_WORDS[COMP_CWORD]} == -* ]] ||
            options=$(taskman top --json 2>/dev/null | sed -n 's/.*"id":"\([^"]*\)".*/\1/p')
        ;;
    clean) options+=' -n --dry-run --parts' ;;
    *) return ;;
    esac
    case ${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD]} in
    stop:* | *:-*) _taskman_words "$options" ;;
    esac
}

complete -F _taskman taskman
