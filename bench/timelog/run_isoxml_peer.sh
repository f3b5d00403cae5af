#!/usr/bin/env bash
# Runs the npm package "isoxml" as a black-box peer on a task data directory holding time logs:
# it loads the directory (as a stored zip, the only whole-directory input it takes) and decodes
# every time log with its public API, best of REPS runs. Called by bench_timelog; prints
# key=value words prefixed "isoxml-timelog:".
#
# Usage: run_isoxml_peer.sh DIR [REPS]
# The package is installed into a temporary folder and removed afterwards; set
# ISOXML_PEER_PREFIX to a folder that already holds node_modules/isoxml to reuse an install.
set -euo pipefail

dir=$(cd "$1" && pwd)
reps=${2:-3}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

command -v node >/dev/null || { echo "node not found" >&2; exit 3; }
command -v npm >/dev/null || { echo "npm not found" >&2; exit 3; }
command -v zip >/dev/null || { echo "zip not found" >&2; exit 3; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=${ISOXML_PEER_PREFIX:-}
if [[ -z "$prefix" || ! -d "$prefix/node_modules/isoxml" ]]; then
    echo "isoxml versions: $(npm view isoxml versions --json 2>/dev/null | tr -d ' \n')" >&2
    prefix=$(mktemp -d)
    trap 'rm -rf "$scratch" "$prefix"' EXIT
    npm install --prefix "$prefix" isoxml --no-audit --no-fund --loglevel=error >/dev/null 2>"$scratch/npm.log" || {
        cat "$scratch/npm.log" >&2
        echo "npm install isoxml failed" >&2
        exit 3
    }
fi
version=$(node -p "require('$prefix/node_modules/isoxml/package.json').version")

# Made outside the timing; stored, so that unzipping costs a copy only.
ln -s "$dir" "$scratch/TASKDATA"
(cd "$scratch" && zip -0 -q -r TASKDATA.zip TASKDATA/)

result=$(node --max-old-space-size=16384 "$here/isoxml_peer.js" "$prefix" "$scratch/TASKDATA.zip" "$reps")
echo "isoxml-timelog: version=$version node=$(node --version) reps=$reps $result"
