#!/usr/bin/env bash
# refused.sh CASE FILE COMPILER...: whether the compiler refuses the case of the file with the words that stand there.
set -euo pipefail
case_name=$1 file=$2
shift 2

line=$(grep -E "defined\(CASE_$case_name\)" "$file")
status=0
said=$(LC_ALL=C "$@" "-DCASE_$case_name" "$file" 2>&1) || status=$?
if [[ $line == *"// compiles" ]]; then
    [[ $status -eq 0 ]] || { echo "$said" && exit 1; }
    exit 0
fi
words=${line##*// says: }
[[ $status -ne 0 ]] || { echo "the case $case_name compiles" && exit 1; }
[[ $said == *"$words"* ]] || { printf 'the case %s is refused without the words "%s":\n%s\n' "$case_name" "$words" "$said" && exit 1; }
