#!/bin/sh
# Stops the NTP daemon started by /bin/start_ntpd.sh (installed as
# /bin/stop_ntpd.sh). Exit status 0 when no NTP daemon of ours runs afterwards.

PIDFILE=/var/run/timesync/ntpd.pid

[ -f "$PIDFILE" ] || exit 0
pid=$(cat "$PIDFILE")
if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill "$pid" || exit 1
    i=0
    while kill -0 "$pid" 2>/dev/null && [ $i -lt 30 ]; do
        sleep 0.1
        i=$((i + 1))
    done
    kill -0 "$pid" 2>/dev/null && exit 1
fi
rm -f "$PIDFILE"
exit 0
