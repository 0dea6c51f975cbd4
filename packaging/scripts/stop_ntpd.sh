#!/bin/sh
# Stops the NTP daemon started by /bin/start_ntpd.sh (installed as
# /bin/stop_ntpd.sh). Exit status 0 when no NTP daemon of ours runs afterwards.

PIDFILE=/var/run/timesync/ntpd.pid

# True while the process runs. A zombie has ended already; only its parent
# has not collected it yet.
running() {
    kill -0 "$1" 2>/dev/null || return 1
    case "$(ps -o stat= -p "$1" 2>/dev/null)" in
        Z*) return 1 ;;
    esac
    return 0
}

[ -f "$PIDFILE" ] || exit 0
pid=$(cat "$PIDFILE")
if [ -n "$pid" ] && running "$pid"; then
    kill "$pid" || exit 1
    i=0
    while running "$pid" && [ $i -lt 30 ]; do
        sleep 0.1
        i=$((i + 1))
    done
    running "$pid" && exit 1
fi
rm -f "$PIDFILE"
exit 0
