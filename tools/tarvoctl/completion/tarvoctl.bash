# bash completion for tarvoctl(1): subcommands, options, their values, and the names of servers.

# The servers in the FIFO directory; the file of a pipe is named A__to__B. Nothing is opened.
_tarvoctl_servers() {
    local file
    for file in /dev/shm/velm/tarvo/*; do
        file=${file##*/}
        [[ $file == '*' || $file == *__to__* ]] || printf '%s\n' "$file"
    done
}

_tarvoctl_options() {
    local common='--help --json --log --color'
    local client='--as --priority --open-timeout'
    case ${1:-} in
    serve) echo "$common --echo --exec --count --exec-timeout --print --limit --group --engine --priority --replace" ;;
    call) echo "$common $client --file --hex --timeout --no-timeout --repeat --interval" ;;
    send) echo "$common $client --file --hex --timeout --repeat --interval" ;;
    ping) echo "$common $client --count --interval --outstanding --size --timeout" ;;
    wait) echo "$common --timeout" ;;
    list) echo "$common --directory" ;;
    watch) echo "$common --directory --interval --count" ;;
    stat) echo "$common --interval --full --prometheus --stats-directory" ;;
    top) echo "$common --interval --count --sort --stats-directory" ;;
    bench)
        echo "$common --size --clients --threads --duration --rate --priority --engine --server-engine --outstanding"
        ;;
    decode) echo "$common --data --hex --kind" ;;
    doctor) echo "$common --directory --stats-directory --strict" ;;
    init) echo "$common --directory --stats-directory --no-stats --group --mode --dry-run" ;;
    clean) echo "$common --directory --stats --stats-directory --yes --min-age --this-namespace" ;;
    help | sandbox) echo "--help" ;;
    *) echo "--help --version" ;;
    esac
}

# Values of the option before the cursor; false where it takes none.
_tarvoctl_values() {
    local option=$1 current=$2
    case $option in
    --color) mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$current") ;;
    --priority) mapfile -t COMPREPLY < <(compgen -W 'normal urgent' -- "$current") ;;
    --engine)
        local engines='threads loop'
        [[ $subcommand != bench ]] || engines+=' both'
        mapfile -t COMPREPLY < <(compgen -W "$engines" -- "$current")
        ;;
    --server-engine) mapfile -t COMPREPLY < <(compgen -W 'threads loop' -- "$current") ;;
    --sort | -s)
        [[ $subcommand == top ]] || return 0
        local orders='trouble busy refused dropped timeouts queued call callback name'
        mapfile -t COMPREPLY < <(compgen -W "$orders" -- "$current")
        ;;
    --kind) mapfile -t COMPREPLY < <(compgen -W 'any frame packet' -- "$current") ;;
    --group) mapfile -t COMPREPLY < <(compgen -g -- "$current") ;;
    --file) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    --directory | --stats-directory) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    --exec) mapfile -t COMPREPLY < <(compgen -c -- "$current") ;;
    # Numbers, times and names that only the user knows.
    --as | --open-timeout | --timeout | --exec-timeout | --limit | --repeat | --interval | --size | --clients | \
        --threads | --outstanding | --duration | --rate | --data | --mode | --min-age | -c | -i | -W)
        COMPREPLY=()
        ;;
    --count) [[ $subcommand == serve ]] && return 1 ;; # a flag there
    *) return 1 ;;
    esac
}

# The command of a sandbox: its name, and then what it takes itself, where the shell knows that.
_tarvoctl_command() {
    local first=2
    [[ ${COMP_WORDS[2]} != -- ]] || first=3
    if ((COMP_CWORD > first)) && declare -F _command_offset >/dev/null; then
        _command_offset $first
    elif ((COMP_CWORD > first)); then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -c -- "$current")
    fi
}

_tarvoctl() {
    local subcommands='serve call send ping wait list watch stat top bench decode doctor sandbox init clean help'
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} subcommand=${COMP_WORDS[1]}
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$subcommands $(_tarvoctl_options)" -- "$current")
        return
    fi
    if [[ $subcommand == sandbox && ($COMP_CWORD -gt 2 || $current != -*) ]]; then
        _tarvoctl_command
        return
    fi
    _tarvoctl_values "$previous" "$current" && return
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_tarvoctl_options "$subcommand")" -- "$current")
        return
    fi
    case $subcommand in
    call | send | ping | wait | stat | top)
        ((COMP_CWORD == 2)) && mapfile -t COMPREPLY < <(compgen -W "$(_tarvoctl_servers)" -- "$current")
        ;;
    help) mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$current") ;;
    decode) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    esac
}

complete -F _tarvoctl tarvoctl
