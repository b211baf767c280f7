# Completion of ternctl's command line for bash.

# _ternctl_offer WORD: what of standard input begins with the word. Not by compgen -W, which expands what it reads.
_ternctl_offer() {
    local word=$1 line
    COMPREPLY=()
    while IFS= read -r line; do
        [[ $line != "$word"* ]] || COMPREPLY+=("$line")
    done
}

_ternctl() {
    local options="--json --system --user --address --host --timeout --help --version"
    local words word former command="" bus=() is_remote="" has_pid="" position=0 i
    # Bash breaks words at the colons and equal signs of an address; here only blanks do.
    read -ra words <<<"${COMP_LINE:0:COMP_POINT}"
    [[ ${COMP_LINE:0:COMP_POINT} != *[[:blank:]] ]] || words+=("")
    word=${words[-1]}
    former=${words[-2]}
    COMPREPLY=()

    # What is there before the word: the bus, the command, and how many arguments it has.
    for ((i = 1; i < ${#words[@]} - 1; ++i)); do
        case ${words[i]} in
        --user | --system) bus+=("${words[i]}") ;;
        --address) bus+=(--address "${words[++i]}") ;;
        --address=*) bus+=("${words[i]}") ;;
        --host | -H) is_remote=yes && ((++i)) ;;
        --host=* | -H*) is_remote=yes ;;
        --timeout | --period | --count | --last | -n) ((++i)) ;;
        --pid) has_pid=yes && ((++i)) ;;
        --pid=*) has_pid=yes ;;
        -*) ;;
        *) if [ -z "$command" ]; then command=${words[i]}; else ((++position)); fi ;;
        esac
    done

    case $former in
    --pid)
        _ternctl_offer "$word" < <(cd /proc && printf '%s\n' [0-9]*)
        return
        ;;
    --address | --timeout | --period | --count | --last | -n | --host | -H) return ;;
    esac
    if [[ $word == -* ]]; then
        case $command in
        list) options+=" --names" ;;
        status) options+=" --full" ;;
        top) options+=" --period --count" ;;
        events) options+=" --follow --last --full --pid" ;;
        log) options+=" --last --pid" ;;
        esac
        _ternctl_offer "$word" <<<"${options// /$'\n'}"
        return
    fi
    case $command:$position in
    :*) _ternctl_offer "$word" < <(printf '%s\n' list status top events log why log-level chart) ;;
    status:0 | events:0 | log:0 | why:0 | log-level:0 | chart:0)
        # Not the names of another machine: ssh may ask for a password.
        [ -n "$is_remote$has_pid" ] ||
            _ternctl_offer "$word" < <(ternctl "${bus[@]}" --timeout 1 list --names 2>/dev/null)
        ;;
    log-level:1) _ternctl_offer "$word" < <(printf '%s\n' critical error warning notice info debug) ;;
    chart:2) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    esac
} && complete -F _ternctl ternctl
