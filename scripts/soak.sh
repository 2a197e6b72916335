#!/usr/bin/env bash
# Mixed traffic between processes for a while, as peers come and go: what the processes that stay hold must not grow.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/soak.sh [--minutes N] [--out DIRECTORY] [--stats]

Builds the release preset and runs the soak. Prints memory, descriptors, threads, messages and latencies each minute;
leaves the table, all samples and two plots in DIRECTORY. The exit status is the verdict: it fails on growth, judged from 5
minutes on by the medians of the earlier and the later half after a warm-up of a fifth, and on anything that goes wrong.

  --minutes N      how long (default 20)
  --out DIRECTORY  where soak.txt, soak.csv, soak.csv.load, soak.svg and load.svg go (default build/soak)
  --stats          the processes count, and their numbers must agree in the end; for root
TEXT
}

main() {
    local minutes=20 out=build/soak status=0 counted=()
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --minutes | --out)
            [[ $# -gt 1 ]] || { usage >&2 && return 2; }
            [[ $1 == --minutes ]] && minutes=$2 || out=$2
            shift
            ;;
        --stats) counted=(--stats) ;;
        *) usage >&2 && return 2 ;;
        esac
        shift
    done
    scripts/install-deps.sh plots
    scripts/build-target.sh release storm_soak
    scripts/fifo-directory.sh
    mkdir -p "$out"
    build/release/tests/storm/storm_soak --minutes "$minutes" --csv "$out/soak.csv" "${counted[@]}" |
        tee "$out/soak.txt" || status=1
    scripts/plot.py --by process --x second --title "Soak of $minutes minutes" "$out/soak.csv" "$out/soak.svg"
    scripts/plot.py --x second --title "Soak of $minutes minutes: the whole" "$out/soak.csv.load" "$out/load.svg"
    echo "plots: $out/soak.svg $out/load.svg"
    return $status
}

main "$@"
