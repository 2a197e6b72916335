#!/usr/bin/env bash
# members_check_test.sh CHECK LIBRARY
# Shows that the check of the exported members fails, and what it says, when one has no symbol or nothing is checked.
set -euo pipefail

check=$1 library=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# fails_with TEXT ARGUMENT...: the check with these arguments fails and says TEXT.
fails_with() {
    local text=$1
    shift
    if "$check" "$@" >"$scratch/said" 2>&1; then
        echo "passed, although it should say: $text" >&2
        return 1
    fi
    grep -qF -- "$text" "$scratch/said" || { cat "$scratch/said" >&2 && return 1; }
}

echo 'Message::Checksum()' >"$scratch/there"
"$check" "$library" "$scratch/there"

printf '%s\n' '# a comment' 'Message::Checksum()' 'Message::Absent() const # why' >"$scratch/absent"
fails_with "no symbol in $library: Message::Absent() const" "$library" "$scratch/absent"
[[ $(wc -l <"$scratch/said") -eq 1 ]] || { cat "$scratch/said" >&2 && exit 1; }

# Other parameters, or another kind of member, are another symbol.
echo 'Message::Checksum() const' >"$scratch/kind"
fails_with 'Message::Checksum() const' "$library" "$scratch/kind"
# A constructor for the base of an object is marked; nothing else is.
echo 'Message::SizeValid() const [base]' >"$scratch/base"
fails_with '[base]' "$library" "$scratch/base"

echo '# nothing' >"$scratch/empty"
fails_with 'names no member' "$library" "$scratch/empty"
fails_with '' "$scratch/no-such-library" "$scratch/there"
