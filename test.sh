#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs the whole test suite.
# Run as root: the tests build network namespaces, TAP devices and private
# mounts of their own. The exit status is the test suite's.
#
# usage: ./test.sh [--sanitize] [CTEST_ARGUMENTS...]
#   --sanitize  build with AddressSanitizer and UndefinedBehaviorSanitizer into
#               a folder of its own (BUILD_DIR-sanitize) and run the suite
#               there; any sanitizer report of any process the tests started
#               (tsd, velad, vela, the test programs) fails the run.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

sanitize=0
if [ "${1:-}" = "--sanitize" ]; then
    sanitize=1
    shift
fi

scripts/install-deps

build_dir=${BUILD_DIR:-build}
# chronyd, ntpd and mosquitto run from private copies beside the build; their
# packages would start services on this machine. Both builds share one copy.
scripts/private-daemons "$build_dir/private"
private_root=$(readlink -f "$build_dir/private/root")

cmake_args=(-DCMAKE_BUILD_TYPE=Release -DTSD_WERROR=ON)
if command -v ccache >/dev/null; then
    cmake_args+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
    # Paths below the tree count as relative, so that another checkout of the
    # same sources finds the objects of this one.
    export CCACHE_BASEDIR=$PWD
fi
if [ $sanitize -eq 1 ]; then
    build_dir=$build_dir-sanitize
    # The fuzz targets always run with both sanitizers, so the plain leg runs
    # them; benchmarks are not run by the suite.
    cmake_args+=(-DTSD_SANITIZE=ON -DTSD_BUILD_FUZZ=OFF -DTSD_BUILD_BENCH=OFF -DTSD_PRIVATE_ROOT="$private_root")
fi
cmake -S . -B "$build_dir" "${cmake_args[@]}"
cmake --build "$build_dir" -j"$(nproc)"

cd "$build_dir"
if [ $sanitize -eq 0 ]; then
    # Timing-sensitive suites (3 s supervision, elections) carry the RUN_SERIAL
    # property, so a parallel run does not starve them.
    exec ctest --output-on-failure --timeout 600 -j"$(nproc)" "$@"
fi

# Every process the tests start inherits these. A report goes to a file of
# its own in the reports folder (name.PID), not to a stderr that a passing
# test may never read; the folder is checked after the run. Leak checks stay
# on for every process, the short-lived ones included.
reports=$PWD/sanitizer-reports
rm -rf "$reports"
mkdir -p "$reports"
export ASAN_OPTIONS="log_path=$reports/report:detect_leaks=1:strict_string_checks=1:check_initialization_order=1:exitcode=86"
export UBSAN_OPTIONS="log_path=$reports/report:print_stacktrace=1:halt_on_error=1:exitcode=86"
export LSAN_OPTIONS="log_path=$reports/report:exitcode=86"

set +e
ctest --output-on-failure --timeout 900 -j"$(nproc)" "$@"
status=$?
set -e

found=$(find "$reports" -type f | sort)
if [ -n "$found" ]; then
    echo
    echo "test.sh: sanitizer reports ($(wc -l <<<"$found") files in $reports):"
    while read -r file; do
        echo "==== $file"
        head -n 60 "$file"
    done <<<"$found"
    [ $status -ne 0 ] || status=1
fi
exit $status
