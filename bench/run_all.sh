#!/usr/bin/env bash
# Builds the benchmarks in Release and runs every one of them, printing the figures as Markdown
# ready to paste into the README's performance section.
#
# Usage: bench/run_all.sh [BUILD_DIR]            (default: ../build-bench beside the source tree)
# Environment:
#   KTD_BENCH_REPS      repetitions per measure (default 3; each figure is the best of them)
#   KTD_BENCH_NO_PEER   set to 1 to leave out the isoxml comparison (needs node, npm, network)
#   KTD_BENCH_FILES_ARGS extra arguments for bench_files (e.g. "--fields 300 --points 4000")
#   KTD_CORPUS_DIR      real task data sets, for the benchmarks that read them
# Progress and build output go to stderr; the report goes to stdout.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-$src/../build-bench}
reps=${KTD_BENCH_REPS:-3}
export KTD_CORPUS_DIR=${KTD_CORPUS_DIR:-$src/../shared/corpus}
export KTD_SHARED_DIR=${KTD_SHARED_DIR:-$src/../shared}
export KTD_SOURCE_DIR=$src
export KTD_BINARY_DIR=$build

echo "configuring and building $build (Release)" >&2
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKTD_BUILD_BENCH=ON -DKTD_BUILD_TESTS=OFF \
    -DKTD_BUILD_TOOLS=ON >&2
ninja -C "$build" -j2 >&2

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')
qt=$(grep -m1 'Qt5Core_VERSION_STRING' "$build/CMakeCache.txt" 2>/dev/null | cut -d= -f2 || true)
[[ -n "$qt" ]] || qt=$(pkg-config --modversion Qt5Core 2>/dev/null || echo "5.15")
cxx=$(grep -m1 '^CMAKE_CXX_COMPILER:' "$build/CMakeCache.txt" | cut -d= -f2)
rev=$(git -C "$src" rev-parse --short HEAD 2>/dev/null || echo "unknown")
dirty=$(git -C "$src" status --porcelain 2>/dev/null | grep -q . && echo " with local changes" || true)

echo "## Performance"
echo
echo "Measured $(date -u +%Y-%m-%d) on revision $rev$dirty, Release build: $(nproc) cores, $cpu,"
echo "$(uname -sr), Qt $qt, $("$cxx" --version | head -1). Every figure is the best of $reps runs and"
echo "is given as a ratio to a baseline measured in the same run; absolute times vary with the machine."
echo

status=0
# The library's own progress lines ("XML_LOAD_NEW 812ms ok=1 ...") go to stderr, not the report.
progress_to_stderr() {
    awk '/^XML_(LOAD|SAVE)_/ { print > "/dev/stderr"; next } { print; fflush() }'
}
run() {
    local name=$1
    shift
    echo "running $name $*" >&2
    echo "### $name"
    echo
    if ! "$@" | progress_to_stderr; then
        echo
        echo "($name exited with an error)"
        status=1
    fi
    echo
}

run bench_elements "$build/bench/bench_elements" --reps "$reps"

files_args=(--reps "$reps")
[[ "${KTD_BENCH_NO_PEER:-0}" == 1 ]] && files_args+=(--no-peer)
# shellcheck disable=SC2206
files_args+=(${KTD_BENCH_FILES_ARGS:-})
run bench_files "$build/bench/bench_files" "${files_args[@]}"

# Benchmarks added later (bench/timelog/ and others) run without arguments.
while IFS= read -r exe; do
    case "$(basename "$exe")" in
    bench_elements | bench_files) continue ;;
    esac
    run "$(basename "$exe")" "$exe"
done < <(find "$build/bench" -type f -name 'bench_*' -perm -u+x ! -name '*.so' ! -path '*CMakeFiles*' | sort)

exit $status
