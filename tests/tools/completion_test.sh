#!/usr/bin/env bash
# The shell completion and the manual page know every subcommand and option of the tool, and no others.
#
#   completion_test.sh SOURCE_FOLDER TOOL_COMMAND...
set -euo pipefail
source_folder=$1
shift
tool=("$@")
page=$source_folder/tarvoctl.1
failures=0

fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

# shellcheck source=/dev/null
source "$source_folder/completion/tarvoctl.bash"

# What is offered for the last of the words.
offered() {
    COMP_WORDS=(tarvoctl "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _tarvoctl
    printf '%s\n' "${COMPREPLY[@]}"
}

# The options in the help of a subcommand, long and short ones, each on a line.
options_of() {
    "${tool[@]}" "$@" --help | grep -oE '^ +-[^ ]+' | tr ',' '\n' | tr -d ' ' | sort -u
}

mapfile -t subcommands < <("${tool[@]}" --help | sed -n '/^Subcommands:/,/^$/p' | awk '/^  [a-z]/ {print $1}')
[[ ${#subcommands[@]} -eq 16 ]] || fail "the help names ${#subcommands[@]} subcommands"

offered_subcommands=$(offered '')
for subcommand in "${subcommands[@]}"; do
    grep -qx -- "$subcommand" <<<"$offered_subcommands" || fail "$subcommand is not offered"
    grep -q "^\.SS tarvoctl $subcommand" "$page" || fail "$subcommand is not in the manual page"
    known_here=$(options_of "$subcommand")
    mapfile -t options <<<"$known_here"
    [[ ${#options[@]} -ge 2 ]] || fail "the help of $subcommand has only ${#options[@]} options"
    offers=$(offered "$subcommand" --)
    for option in "${options[@]}"; do
        grep -qF -- "${option//-/\\-}" "$page" || fail "$subcommand $option is not in the manual page"
        [[ $option != --* ]] || grep -qx -- "$option" <<<"$offers" || fail "$subcommand $option is not offered"
    done
    for option in $offers; do
        grep -qx -- "$option" <<<"$known_here" || fail "$subcommand $option is offered and unknown"
    done
done

# Values are completed, too.
[[ $(offered list --color al) == always ]] || fail "--color al"
[[ $(offered decode --kind pa) == packet ]] || fail "--kind pa"
[[ $(offered serve --engine '') == $'threads\nloop' ]] || fail "serve --engine"
[[ $(offered bench --engine b) == both ]] || fail "bench --engine b"
[[ -z $(offered ping --outstanding '') ]] || fail "something is offered for --outstanding"
[[ $(offered sandbox -- printen | sort -u) == printenv ]] || fail "sandbox -- printen"
[[ $(offered help cal) == call ]] || fail "help cal"
[[ $(offered top --sort qu) == queued ]] || fail "top --sort qu"
[[ -z $(offered call --timeout '') ]] || fail "something is offered for --timeout"

# Every option that the page describes is one of the tool.
known=$(for subcommand in "${subcommands[@]}"; do options_of "$subcommand"; done; echo --version)
while read -r option; do
    grep -qx -- "$option" <<<"$known" || fail "the manual page has $option, and the tool has not"
done < <(grep -oE '\\-\\-[a-z-]+(\\-[a-z]+)*' "$page" | sed 's/\\//g' | sort -u)

# Every variable that the tool looks at is in the page.
while read -r variable; do
    grep -q "$variable" "$page" || fail "the manual page does not name $variable"
done < <(grep -rhoE 'getenv\("[A-Z_]+' "$source_folder" --include='*.cpp' --include='*.h' | sed 's/.*"//' | sort -u)

if command -v groff >/dev/null; then
    warnings=$(groff -man -ww -z "$page" 2>&1)
    [[ -z $warnings ]] || fail "the manual page: $warnings"
else
    echo "groff is not installed: the manual page is not checked for its form"
fi

[[ $failures -eq 0 ]] || exit 1
echo "${#subcommands[@]} subcommands: completion and manual page are complete"
