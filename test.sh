#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs the whole test suite.
# Run as root: the tests build network namespaces, TAP devices and private
# mounts of their own. The exit status is the test suite's.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

scripts/install-deps

build_dir=${BUILD_DIR:-build}
# chronyd, ntpd and mosquitto run from private copies beside the build; their
# packages would start services on this machine.
scripts/private-daemons "$build_dir/private"
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DTSD_WERROR=ON
cmake --build "$build_dir" -j"$(nproc)"

cd "$build_dir"
# Timing-sensitive suites (3 s supervision, elections) carry the RUN_SERIAL
# property, so a parallel run does not starve them.
ctest --output-on-failure --timeout 600 -j"$(nproc)" "$@"
