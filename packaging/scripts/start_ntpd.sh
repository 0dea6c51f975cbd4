#!/bin/sh
# Starts the NTP daemon for tsd (installed as /bin/start_ntpd.sh; tsd runs it
# as "/bin/start_ntpd.sh &"). tsd writes the NTP setting, normally the address
# of the upstream server, to /var/run/timesync/ntpserver.ip before every start.
# The module then serves the time it takes from there to the chain.

IPFILE=/var/run/timesync/ntpserver.ip
CONF=/var/run/timesync/ntpd.conf
PIDFILE=/var/run/timesync/ntpd.pid
NTPD=${NTPD:-ntpd}

[ -r "$IPFILE" ] || { echo "start_ntpd.sh: $IPFILE missing" >&2; exit 1; }
command -v "$NTPD" >/dev/null 2>&1 || { echo "start_ntpd.sh: $NTPD not installed" >&2; exit 1; }

server=$(head -n 1 "$IPFILE")
{
    echo "server $server iburst"
    # Serve the local clock to the chain when the upstream is unreachable.
    echo "server 127.127.1.0"
    echo "fudge 127.127.1.0 stratum 10"
    echo "restrict default kod nomodify notrap nopeer"
    echo "restrict 127.0.0.1"
} > "$CONF"

exec "$NTPD" -g -c "$CONF" -p "$PIDFILE"
