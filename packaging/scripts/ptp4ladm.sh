#!/bin/sh
# Starts, stops or restarts the PTP daemon for tsd (installed as /bin/ptp4ladm.sh).
# tsd writes the ptp4l command-line options to /var/run/timesync/ptp4l.cfg
# (for example "-4 -E -H -i eth0") before every start and restart.
# Exit status 0 on success; tsd logs any other status.

CFG=/var/run/timesync/ptp4l.cfg
PIDFILE=/var/run/timesync/ptp4l.pid
PTP4L=${PTP4L:-ptp4l}

# True while the process runs. A zombie has ended already; only its parent
# has not collected it yet.
running() {
    kill -0 "$1" 2>/dev/null || return 1
    case "$(ps -o stat= -p "$1" 2>/dev/null)" in
        Z*) return 1 ;;
    esac
    return 0
}

stop() {
    if [ -f "$PIDFILE" ]; then
        pid=$(cat "$PIDFILE")
        if [ -n "$pid" ] && running "$pid"; then
            kill "$pid"
            # ptp4l releases the hardware clock on exit; give it a moment.
            i=0
            while running "$pid" && [ $i -lt 30 ]; do
                sleep 0.1
                i=$((i + 1))
            done
        fi
        rm -f "$PIDFILE"
    fi
    return 0
}

start() {
    if [ ! -r "$CFG" ]; then
        echo "ptp4ladm.sh: $CFG missing" >&2
        return 1
    fi
    if ! command -v "$PTP4L" >/dev/null 2>&1; then
        echo "ptp4ladm.sh: $PTP4L not installed" >&2
        return 1
    fi
    # The options are one line, split into words on purpose.
    # shellcheck disable=SC2046
    "$PTP4L" $(head -n 1 "$CFG") >/dev/null 2>&1 &
    echo $! > "$PIDFILE"
    sleep 0.2
    running "$(cat "$PIDFILE")"
}

case "$1" in
    start)   stop; start ;;
    stop)    stop ;;
    restart) stop; start ;;
    *)       echo "usage: $0 start|stop|restart" >&2; exit 2 ;;
esac
