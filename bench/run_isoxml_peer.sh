#!/usr/bin/env bash
# Runs the npm package "isoxml" as a black-box peer on one task data directory: load times (best
# and median of REPS), save times (of ISOXML_SAVE_REPS saves, default 1: one takes minutes) and
# the peak resident set size of a process that loads and saves once. Called by bench_files;
# prints key=value words, prefixed "isoxml:".
#
# Usage: run_isoxml_peer.sh DIR OUTDIR [REPS]     (saves: ISOXML_SAVE_REPS, default 1)
# The package is installed into a temporary folder and removed afterwards; set
# ISOXML_PEER_PREFIX to a folder that already holds node_modules/isoxml to reuse an install.
set -euo pipefail

dir=$(cd "$1" && pwd)
outdir=$2
reps=${3:-3}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

command -v node >/dev/null || { echo "node not found" >&2; exit 3; }
command -v npm >/dev/null || { echo "npm not found" >&2; exit 3; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=${ISOXML_PEER_PREFIX:-}
if [[ -z "$prefix" || ! -d "$prefix/node_modules/isoxml" ]]; then
    prefix=$(mktemp -d)
    trap 'rm -rf "$scratch" "$prefix"' EXIT
    npm install --prefix "$prefix" isoxml --no-audit --no-fund --loglevel=error >/dev/null 2>"$scratch/npm.log" || {
        cat "$scratch/npm.log" >&2
        echo "npm install isoxml failed" >&2
        exit 3
    }
fi
version=$(node -p "require('$prefix/node_modules/isoxml/package.json').version")

# The package reads a whole directory only as a zip: when the directory holds more than its
# main file, it gets a stored (uncompressed) zip made here, outside the timing.
zip_arg=()
files=$(find "$dir" -type f | wc -l)
if [[ "$files" -gt 1 ]]; then
    command -v zip >/dev/null || { echo "zip not found" >&2; exit 3; }
    ln -s "$dir" "$scratch/TASKDATA"
    (cd "$scratch" && zip -0 -q -r TASKDATA.zip TASKDATA/)
    zip_arg=("$scratch/TASKDATA.zip")
    input="zip-of-$files-files"
else
    input="TASKDATA.XML-as-text"
fi

# Large documents need more than node's default heap.
node_flags=(--expose-gc --max-old-space-size=16384)
js="$here/isoxml_peer.js"
timing=$(node "${node_flags[@]}" "$js" "$prefix" "$dir" "$outdir" time "$reps" "${zip_arg[@]}")
if [[ -x /usr/bin/time ]]; then
    # /usr/bin/time's figure is printed beside the process's own, as a cross-check.
    peak=$(/usr/bin/time -f "time_maxrss_kb=%M" -o "$scratch/time.txt" \
        node "${node_flags[@]}" "$js" "$prefix" "$dir" "$outdir" peak 1 "${zip_arg[@]}")
    peak="$peak $(cat "$scratch/time.txt")"
else
    peak=$(node "${node_flags[@]}" "$js" "$prefix" "$dir" "$outdir" peak 1 "${zip_arg[@]}")
fi
idle=$(node "${node_flags[@]}" "$js" "$prefix" "$dir" "$outdir" idle 1)
echo "isoxml: version=$version input=$input node=$(node --version)"
echo "isoxml: $timing"
echo "isoxml: $peak $idle"
