#!/usr/bin/env bash
# Every function that a library exports and its header declares has a manual page that shows its declaration, and no
# formatter complains about any page.
#
#   man-test.sh FOLDER_OF_THE_PAGES LIBRARY LOOP_LIBRARY
set -euo pipefail
pages=$1
source=$(cd "$(dirname "$0")/../.." && pwd)
failed=0

complain() {
    echo "$*" >&2
    failed=1
}

# The page that a name leads to, through one reference (.so) at most.
text_of() {
    local file=$pages/man3/$1.3 target
    target=$(sed -n '1s/^\.so //p' "$file")
    MANWIDTH=80 LC_ALL=C.UTF-8 man -l "$pages/${target:-man3/$1.3}" 2>&1
}

for tool in man mandoc groff nm; do
    command -v $tool >/dev/null || { echo "skipped: there is no $tool here (scripts/install-deps.sh packages)" && exit 77; }
done

drift=$(python3 -B "$source/docs/man/generate.py" --check 2>&1) || complain "$drift"

# check_library LIBRARY HEADER LEAST: its functions, of which there are so many at least.
check_library() {
    local functions name
    functions=$(nm --dynamic --defined-only "$1" | awk '$2 == "T" && $3 !~ /^_Z/ { print $3 }' |
        while read -r name; do grep -qE "\b$name\(" "$source/include/$2" && echo "$name"; done || true)
    [[ $(wc -w <<<"$functions") -ge $3 ]] || complain "$1 exports only: $functions"
    for name in $functions; do
        if [[ ! -e $pages/man3/$name.3 ]]; then
            complain "no page for $name"
        elif ! text_of "$name" | sed -n '/^SYNOPSIS/,/^DESCRIPTION/p' | grep -E "\b$name\(" >/dev/null; then
            complain "the synopsis of $name(3) does not show it"
        fi
    done
    counted=$((counted + $(wc -w <<<"$functions")))
}

counted=0
check_library "$2" tarvo.h 15
check_library "$3" tarvo_loop.h 20

checked=0
for file in "$pages"/man?/*; do
    checked=$((checked + 1))
    if [[ $(head -c 4 "$file") == ".so " ]]; then
        continue # a reference; its target is checked
    fi
    # `mandoc` knows the language, `groff` lines that cannot be filled.
    found=$(mandoc -T lint -W warning "$file" 2>&1; LC_ALL=C.UTF-8 groff -man -ww -Tutf8 -rLL=80n -z "$file" 2>&1) || true
    [[ -z $found ]] || complain "$found"
done
[[ $failed -ne 0 ]] || echo "$checked pages; one for each of $counted functions"
exit $failed
