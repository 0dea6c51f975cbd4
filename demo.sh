#!/usr/bin/env bash
# Builds the system and runs a simulated chain of four modules for about 20
# seconds: real, unmodified tsd and velad processes, one set per module, each
# module in network and mount namespaces of its own, joined by a simulated
# FireWire bus. Midway the master is unplugged and the chain elects a new one.
# With linuxptp installed (install-deps does) and chronyd unpacked beside the
# build, every module runs the real time services: ptp4l follows the elected
# master, and time visibly follows the new one after the unplug. No simulated
# module ever sets this machine's clock.
# Run as root on Debian 12; missing packages are installed first.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: please run as root (sudo ./demo.sh): the simulator builds network" >&2
  echo "namespaces, virtual interfaces and private mounts for every simulated module." >&2
  exit 1
fi

scripts/install-deps

build_dir=${BUILD_DIR:-build}
# chronyd, ntpd and mosquitto run from private copies beside the build; their
# packages would start services on this machine.
scripts/private-daemons "$build_dir/private"
echo "demo.sh: building into $build_dir/ (the first time takes a few minutes)"
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DTSD_WERROR=ON >/dev/null
cmake --build "$build_dir" -j"$(nproc)" --target tsd velad vela fwdevd tsdparamd tsdsim >/dev/null

services=recording
if [ -x /usr/sbin/ptp4l ] && [ -x /usr/sbin/pmc ] && [ -x "$build_dir/private/root/usr/sbin/chronyd" ]; then
  services=real
fi

cat <<'TEXT'

What you are about to see
-------------------------
Four simulated modules, m1 to m4, sit on one simulated FireWire bus. Each
runs its own tsd (the time-synchronisation daemon) and its own message bus.
The daemons talk to each other, agree on one sync master (here the module
with the largest UUID, m4) and the master starts its time service (PTP).

The table refreshes while the chain runs:
  REAR     what the module is on its rear bus: master, slave (with the
           UUID of the master it follows) or alone
  SERVICE  the time service the module runs (ptp, ntp or -)
  ERRORS   error codes the daemon reports on its bus (-1: a module did not
           answer in time)

After 9 seconds m4 is unplugged. About three seconds later the others
notice it is gone and elect m3 instead, which then starts PTP. At the end
you get a summary in plain words and a picture of the whole run: a web page
with one lane per module showing who was master when. Ctrl-C stops early and
still cleans up.

TEXT
if [ "$services" = real ]; then
  cat <<'TEXT'
This run uses the real time services: every module runs ptp4l, as a
follower until its daemon makes it the server.
  FOLLOWS  the module whose clock this module's ptp4l follows (read with
           pmc from the module's own ptp4l): first m4 everywhere, then m3
The summary tells when every module followed each new master.

TEXT
  sleep 3
  exec "$build_dir/bin/tsdsim" --services real --for 24 sim/chains/demo.chain
fi
echo "(linuxptp or the private chronyd is missing: the time services are recorded, not run)"
sleep 3

report="$(readlink -f "$build_dir")/demo-report.html"
rm -f "$report"
status=0
"$build_dir/bin/tsdsim" --report "$report" sim/chains/demo.chain || status=$?
if [ -s "$report" ]; then
  echo
  echo "demo.sh: the picture of this run is $report"
  echo "         (one self-contained page: open it in any web browser)"
fi
exit "$status"
