#!/usr/bin/env bash
# Goes through every interleaving of the models in models/, and through those of their mutants until one fails.
set -uo pipefail
cd "$(dirname "$0")/.." || exit

usage() {
    cat <<'TEXT'
Usage: scripts/models.sh [--large] [--update] [--keep] [MODEL...]

Checks the models (default: all) within the bounds that their first lines name, and that each of their mutants is seen to
fail. The exit status is 1 when a model fails, a mutant does not, or a search was not completed.

  --large    the large bounds too, which takes hours of processor time and up to 4 GB (--memory)
  --memory N at most so many MB for a search (default 1500; with --large 4000)
  --minutes N
             at most so many minutes for a search (default 5; with --large 60)
  --update   writes what was measured into the pages beside the models
  --keep     leaves what was generated in build/models, with the trails: spin -t -p -g shows what led to a failure
TEXT
}

out=build/models
failed=0
memory='' minutes='' large=false update=false keep=false

# Most of the small searches take less time than gcc needs to compile them, even where it optimises nothing.
QUICKLY='tcc'
THOROUGHLY='gcc -O2 -DCOLLAPSE'

# search DIRECTORY MODEL COMPILER DEFINITION...: leaves what the search said in DIRECTORY/pan.log. 0 when it ran.
search() {
    local directory=$1 model=$2 compiler=$3
    shift 3
    mkdir -p "$directory"
    cp "models/$model.pml" models/threads.inc "$directory"
    (
        cd "$directory" || exit
        spin -a "$@" "$model.pml" >spin.log 2>&1 || exit
        # shellcheck disable=SC2086 # the compiler comes with options
        $compiler -w -DSAFETY -DMEMLIM="$memory" -o pan pan.c >compiler.log 2>&1 || exit
        timeout "$((minutes * 60))" ./pan -m500000 -w22 >pan.log 2>&1
    )
    grep -q 'errors: [0-9]' "$directory/pan.log" 2>/dev/null
}

# figure FILE EXPRESSION: what the expression of sed has marked, where it matches first.
figure() { sed -n "s/$2/\\1/p" "$1" | head -n 1; }

# Where a search has come to nothing: what it said instead.
complain() {
    failed=1
    printf 'FAILED: %s\n' "$2" >&2
    cat "$1"/{spin,compiler,pan}.log 2>/dev/null | grep -v '^$' | head -n 20 >&2
}

# verify MODEL KIND COMPILER DEFINITION...
verify() {
    local model=$1 kind=$2 compiler=$3 directory start seconds states verdict=ok
    shift 3
    directory=$out/$model-$kind-$(tr -cd 'A-Z0-9' <<<"$*")
    start=$(date +%s.%N)
    if ! search "$directory" "$model" "$compiler" "$@" || ! grep -q 'errors: 0' "$directory/pan.log" ||
        grep -q 'Search not completed' "$directory/pan.log"; then
        verdict=FAILED
        complain "$directory" "$model $*"
        if [[ -e $directory/$model.pml.trail ]]; then
            (cd "$directory" && spin -t -p -g "$@" "$model.pml" 2>/dev/null | tail -n 60) >&2
        fi
    fi
    seconds=$(awk -v from="$start" -v to="$(date +%s.%N)" 'BEGIN { printf "%.1f", to - from }')
    states=$(figure "$directory/pan.log" '^ *\([0-9.e+]*\) states, stored.*')
    printf '%-15s %-6s %11s states %7s s  %s\n' "$model" "$verdict" "$states" "$seconds" "${*//-D/}"
    # shellcheck disable=SC2016 # Markdown's
    printf '| `%s` | %s | %s | %s |\n' "${*//-D/}" "$states" \
        "$(figure "$directory/pan.log" '.*depth reached \([0-9]*\),.*')" "$seconds" >>"$out/$model.$kind"
    $keep || rm -rf "$directory"
}

# mutate MODEL NAME WHAT DEFINITION...: the search must come across the defect.
mutate() {
    local model=$1 name=$2 what=$3 directory said
    shift 3
    directory=$out/$model-$name
    if search "$directory" "$model" "$QUICKLY" "$@" "-D$name" && grep -q 'errors: [1-9]' "$directory/pan.log"; then
        said=$(figure "$directory/pan.log" '^pan:1: \(.*\) (at depth [0-9]*)$')
        printf '%-15s seen   %s: %s\n' "$model" "$name" "$said"
        # shellcheck disable=SC2016 # Markdown's
        printf '| `%s` | %s | %s |\n' "$name" "$what" "${said%% *}" |
            sed 's/| invalid |$/| nothing can go on |/; s/| assertion |$/| a promise is broken |/' >>"$out/$model.mutants"
    else
        complain "$directory" "$model: the mutant $name was not seen to fail"
    fi
    $keep || rm -rf "$directory"
}

# The small bounds of a model, a line each, or its large ones.
bounds() { sed -n "s|^// $2: ||p" "models/$1.pml"; }

check() {
    local model=$1 first line name what definitions
    rm -f "$out/$model".{small,large,mutants}
    first=$(bounds "$model" small | head -n 1)
    while read -r -a definitions; do
        verify "$model" small "$QUICKLY" "${definitions[@]}"
    done < <(bounds "$model" small)
    while IFS= read -r line; do
        what=${line#*: }
        read -r name line <<<"${line%%:*}"
        read -r -a definitions <<<"${line:-$first}"
        mutate "$model" "$name" "$what" "${definitions[@]}"
    done < <(sed -n 's|^// mutant ||p' "models/$model.pml")
    $large || return 0
    while read -r -a definitions; do
        verify "$model" large "$THOROUGHLY" "${definitions[@]}"
    done < <(bounds "$model" large)
}

# between PAGE MARK FILE: puts the file between the two marks of a page.
between() {
    [[ -s $3 ]] || return 0
    awk -v mark="$2" -v file="$3" '
        $0 == "<!-- " mark " -->" { print; while ((getline line < file) > 0) print line; skipping = 1; next }
        $0 == "<!-- end -->" { skipping = 0 }
        !skipping' "$1" >"$out/page" && cp "$out/page" "$1"
}

write_page() {
    local page=models/$1.md kind
    for kind in small large; do
        [[ -s $out/$1.$kind ]] || continue
        sed -i '1i | bounds | states | deepest | seconds |\n|---|---|---|---|' "$out/$1.$kind"
        between "$page" "$kind" "$out/$1.$kind"
    done
    sed -i '1i | mutant | what is wrong in it | how it shows |\n|---|---|---|' "$out/$1.mutants"
    between "$page" mutants "$out/$1.mutants"
}

main() {
    local models=() model
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --large) large=true ;;
        --update) update=true ;;
        --keep) keep=true ;;
        --memory | --minutes)
            [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || { usage >&2 && return 2; }
            [[ $1 == --memory ]] && memory=$2 || minutes=$2
            shift
            ;;
        *)
            [[ -f models/$1.pml ]] || { usage >&2 && return 2; }
            models+=("$1")
            ;;
        esac
        shift
    done
    $large && : "${memory:=4000}" "${minutes:=60}"
    : "${memory:=1500}" "${minutes:=5}"
    scripts/install-deps.sh base models || return
    mkdir -p $out
    if [[ ${#models[@]} -eq 0 ]]; then
        mapfile -t models < <(basename -s .pml -a models/*.pml)
    fi
    for model in "${models[@]}"; do
        check "$model"
        if $update; then
            write_page "$model"
        fi
    done
    return $failed
}

main "$@"
