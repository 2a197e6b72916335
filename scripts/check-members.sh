#!/usr/bin/env bash
# Compares the symbols of the library with the list of the members that programs call directly.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/check-members.sh LIBRARY [LIST]

Fails unless every member in LIST (default: abi/members.list) has a symbol in LIBRARY. A member that is defined in its
class has none when every call of it is inlined: mark it HAS_SYMBOL (src/base/HasSymbol.h), or define it in its source.
$NM names the program that prints symbols (default: nm).
TEXT
}

case ${1:-} in
-h | --help) usage && exit 0 ;;
esac
[[ $# -eq 1 || $# -eq 2 ]] || { usage >&2 && exit 2; }
library=$1 list=${2:-abi/members.list}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# As c++filt writes them, with the usual names of the C++ library's types. Constructors and destructors for the base of
# an object, which have the same name there as those for a whole object, are marked.
"${NM:-nm}" -D --defined-only "$library" | awk '{ print $NF ($NF ~ /[CD]2E/ ? " [base]" : "") }' | c++filt |
    sed -e 's/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/std::string/g' \
        -e 's/std::__cxx11::basic_stringstream<char, std::char_traits<char>, std::allocator<char> >/std::stringstream/g' \
        -e 's/, std::default_delete<[a-z_]* \[\]> >/>/g' -e 's/\[abi:cxx11\]//' | LC_ALL=C sort -u >"$scratch/symbols"
sed -e 's/ *#.*//' -e '/^$/d' "$list" | LC_ALL=C sort -u >"$scratch/members"
if [[ ! -s $scratch/members ]]; then
    echo "check-members.sh: $list names no member" >&2
    exit 1
fi
LC_ALL=C comm -23 "$scratch/members" "$scratch/symbols" >"$scratch/missing"
if [[ -s $scratch/missing ]]; then
    sed "s|.*|check-members.sh: no symbol in $library: &|" "$scratch/missing" >&2
    exit 1
fi
echo "all $(wc -l <"$scratch/members") members of $list have a symbol in $library"
