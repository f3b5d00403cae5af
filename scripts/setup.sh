#!/usr/bin/env bash
# Sets up a Debian 12 machine for libkorvaneltaskdata, builds it and runs what was asked for.
#
#   scripts/setup.sh            install what is missing, configure and build in ./build
#   scripts/setup.sh example    ... then run the taskdata tool on the bundled example
#   scripts/setup.sh test       ... then run the whole test suite
#   scripts/setup.sh sanitize thread|address,undefined [ctest arguments]
#                               build with a sanitizer (clang) in ./build-tsan or ./build-asan
#                               and run the test suite there
#   scripts/setup.sh bench      install the benchmark's extras (Node.js, npm) and run bench/run_all.sh
#
# Packages come from Debian only and are installed only when missing (needs root then; run
# again without root once they are there). The real task data sets are read from
# $KTD_CORPUS_DIR, by default ../shared/corpus beside this clone; tests that need them are
# skipped with a message when absent.
# Environment: KTD_JOBS (parallel jobs, default: the number of cores), KTD_BUILD_TYPE
# (default RelWithDebInfo), KTD_CORPUS_DIR, KTD_SHARED_DIR.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${KTD_JOBS:-$(nproc 2>/dev/null || echo 2)}
build_type=${KTD_BUILD_TYPE:-RelWithDebInfo}

say() { printf 'setup: %s\n' "$*"; }
die() {
    printf 'setup: %s\n' "$*" >&2
    exit 1
}

# What building and testing need. libxml2-utils: xmllint, which tests use to validate written
# files against the schemas; clang and its runtimes: the sanitizer and fuzzing builds.
base_packages=(cmake ninja-build g++ pkg-config qtbase5-dev qtbase5-dev-tools libqt5xml5 libqt5test5
    libxml2-utils clang libclang-rt-14-dev libgeographiclib-dev libshp-dev)

missing_packages() {
    local p
    for p in "$@"; do
        if ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
            printf '%s\n' "$p"
        fi
    done
}

apt_install() {
    (($# > 0)) || return 0
    if ((EUID != 0)); then
        die "missing Debian packages: $* (run this script as root once, or: sudo apt-get install $*)"
    fi
    say "installing $*"
    local log
    log=$(mktemp)
    export DEBIAN_FRONTEND=noninteractive
    if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends "$@"; } </dev/null >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        die "apt-get could not install: $*"
    fi
    rm -f "$log"
}

install_base() {
    command -v dpkg-query >/dev/null || die "dpkg-query not found: this script is for Debian 12"
    local missing
    mapfile -t missing < <(missing_packages "${base_packages[@]}")
    apt_install "${missing[@]}"
}

# The reference data beside the clone, unless the environment names another place.
reference_args() {
    local corpus=${KTD_CORPUS_DIR:-$root/../shared/corpus}
    local shared=${KTD_SHARED_DIR:-$root/../shared}
    if [[ -d "$corpus" ]]; then
        corpus=$(cd "$corpus" && pwd)
    else
        say "no task data corpus at $corpus: tests that read real files will be skipped" >&2
    fi
    [[ -d "$shared" ]] && shared=$(cd "$shared" && pwd)
    printf '%s\n' "-DKTD_CORPUS_DIR=$corpus" "-DKTD_SHARED_DIR=$shared"
}

# configure_and_build DIR [cmake arguments...]
configure_and_build() {
    local dir=$1
    shift
    mkdir -p "$dir"
    local log=$dir/setup-configure.log
    local ref
    mapfile -t ref < <(reference_args)
    say "configuring $dir"
    if ! cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$build_type" -DKTD_BUILD_BENCH=OFF \
        "${ref[@]}" "$@" >"$log" 2>&1; then
        cat "$log" >&2
        die "cmake could not configure $dir (a build directory made with another generator: remove it)"
    fi
    say "building $dir with $jobs jobs"
    # --quiet: no progress lines, only what the compiler says (warnings, errors).
    ninja -C "$dir" -j "$jobs" --quiet || die "build failed in $dir"
}

# run_tests DIR [ctest arguments...]; KTD_TEST_WRAPPER (a command prefix) runs ctest under it.
run_tests() {
    local dir=$1
    shift
    say "running the tests in $dir"
    ${KTD_TEST_WRAPPER:-} ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@"
}

run_example() {
    local tool=$root/build/tools/taskdata/taskdata
    local example=examples/taskdata
    [[ -x "$tool" ]] || die "the taskdata tool was not built ($tool)"
    [[ -d "$root/$example" ]] || die "the example task data is missing ($root/$example)"
    cd "$root"
    say "taskdata info $example"
    "$tool" info "$example"
    say "taskdata check $example"
    "$tool" check "$example"
}

main() {
    local cmd=${1:-build}
    (($# > 0)) && shift
    case "$cmd" in
    build)
        install_base
        configure_and_build "$root/build"
        ;;
    example)
        install_base
        configure_and_build "$root/build"
        run_example
        ;;
    test)
        install_base
        configure_and_build "$root/build"
        run_tests "$root/build" "$@"
        ;;
    sanitize)
        local kind=${1:-}
        (($# > 0)) && shift
        local dir
        case "$kind" in
        thread) dir=$root/build-tsan ;;
        address | undefined | address,undefined | undefined,address) dir=$root/build-asan ;;
        *) die "usage: setup.sh sanitize thread|address,undefined [ctest arguments]" ;;
        esac
        install_base
        # clang: its runtimes come with libclang-rt-14-dev; the tools are built so that the
        # tests that run them run them instrumented too.
        configure_and_build "$dir" -DCMAKE_CXX_COMPILER=clang++ -DKTD_SANITIZE="$kind" -DKTD_BUILD_TOOLS=ON
        # ThreadSanitizer of clang 14 cannot map its shadow memory on kernels that randomise
        # more address bits than it knows; without address randomisation it always can.
        if [[ "$kind" == thread && -z "${KTD_TEST_WRAPPER:-}" ]] && setarch "$(uname -m)" -R true 2>/dev/null; then
            KTD_TEST_WRAPPER="setarch $(uname -m) -R"
        fi
        run_tests "$dir" "$@"
        ;;
    bench)
        install_base
        # The comparison peer runs on Node.js; only the benchmark needs it. A Node.js that is
        # already there (from Debian or not) is used as it is.
        if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
            local missing
            mapfile -t missing < <(missing_packages nodejs npm)
            apt_install "${missing[@]}"
        fi
        [[ -x "$root/bench/run_all.sh" ]] || die "bench/run_all.sh not found"
        "$root/bench/run_all.sh" "$@"
        ;;
    -h | --help | help)
        sed -n '2,/^set -euo/p' "${BASH_SOURCE[0]}" | sed '$d' | sed 's/^# \{0,1\}//'
        ;;
    *)
        die "unknown command '$cmd' (try: setup.sh --help)"
        ;;
    esac
}

main "$@"
