# Shared by /bin/ptp4ladm.sh, /bin/start_ntpd.sh and /bin/stop_ntpd.sh, which
# source it (installed as /usr/share/tsd/time-services.sh). POSIX sh; tsd runs
# the scripts as root through system(), so everything read here is treated as
# hostile until checked.
#
# Unquoted expansions split words on purpose (globbing is off); the TS_
# settings are read by the scripts that source this file.
# shellcheck shell=sh disable=SC2086,SC2034
#
# One ptp4l per module. At boot (tsd.service's ExecStartPre runs
# "ptp4ladm.sh stop") a follower ptp4l runs: slave only, with the options of
# PTP4L_FOLLOWER_OPTIONS. "ptp4ladm.sh start" replaces it by the serving
# ptp4l with the options tsd wrote to ptp4l.cfg; "stop" puts the follower back.
# The NTP daemon (chronyd when present, ntpd otherwise) runs only while this
# module serves NTP to the chain.
#
# How a service runs: on a systemd host (/run/systemd/system exists) in a
# transient unit of its own (systemd-run), so that signalling, restarting or
# sandboxing tsd never reaches it; elsewhere (the simulator, the tests) as a
# tracked background process in a session of its own, known by its pid and
# its start time so that a reused pid is never signalled.
#
# State under /var/run/timesync, read by the operator's status command:
#   ptp4l.pid            PID of the running ptp4l (mtime: when it started)
#   ptp4l.role           "server" or "follower"
#   chronyd.pid/ntpd.pid PID of the NTP daemon serving time
#   ptp4l.lock ntp.lock  serialise start, stop and restart of each service
#   ptp4l.id ntp.id      "PID STARTTIME" of a tracked process (no systemd)
#   ntp.stopped          "STARTTIME PID" of the last NTP stop (see below)
#   chronyd.conf ntpd.conf  the generated NTP daemon configuration
#
# Bounds: tsd's loop waits for every call but the detached NTP start, so
# every invocation ends within 5 s: each wait (the lock, a stopping service,
# systemctl) takes the smaller of its own bound and what is left of
# TS_BUDGET, counted from the script's start. A lock is waited for at most
# TS_LOCK_WAIT; a service gets TS_TERM_WAIT after SIGTERM, then SIGKILL and
# TS_KILL_WAIT; a new service must still run TS_SETTLE after its start. The
# holder of a lock normally needs well under 2 s (stop, start, fall-back
# start), so a waiter that gets the lock late still ends in time.

TS_RUN=/var/run/timesync
# In centiseconds.
TS_BUDGET=470
TS_LOCK_WAIT=250
TS_TERM_WAIT=100
TS_KILL_WAIT=30
TS_SYSTEMCTL_WAIT=200
# In seconds, for sleep(1).
TS_SETTLE=0.2
# Longest ptp4l.cfg / ntpserver.ip the scripts read; anything longer is refused
# before it is looked at byte by byte.
TS_MAX_PTP_BYTES=4096
TS_MAX_NTP_BYTES=1024
TS_INTERFACES="firewire0 firewire1"

# Never expand a pathname pattern: a value such as "-i v?" must stay what it
# is, whatever files the working directory holds. Byte semantics for every
# pattern and length.
set -f
LC_ALL=C
export LC_ALL
umask 022
# The services must not hold tsd's (or an operator's) working directory.
cd / || exit 1
PATH=${PATH:-/usr/sbin:/usr/bin:/sbin:/bin}

# ---------------------------------------------------------------- logging

# ts_log PRIORITY MESSAGE: to syslog (facility daemon) and to standard error.
ts_log() {
    logger -t "$TS_NAME" -p "daemon.$1" -- "$2" 2>/dev/null
    printf '%s: %s\n' "$TS_NAME" "$2" >&2
}

ts_fail() {
    ts_log err "$1"
    exit 1
}

# ts_escape TEXT: sets ts_escaped to TEXT (printable ASCII) with every
# backslash doubled, the way refusals name a token.
ts_escape() {
    ts_s=$1
    ts_escaped=
    while :; do
        case $ts_s in
            *\\*)
                ts_escaped=$ts_escaped${ts_s%%\\*}\\\\
                ts_s=${ts_s#*\\}
                ;;
            *)
                ts_escaped=$ts_escaped$ts_s
                return 0
                ;;
        esac
    done
}

# ---------------------------------------------------------------- files

# ts_put FILE LINE: replaces FILE by one line at once (rename), so that a
# reader never sees a half-written file.
ts_put() {
    printf '%s\n' "$2" >"$1.tmp" && mv -f -- "$1.tmp" "$1"
}

# ts_root_file PATH: true when PATH is a regular file owned by root that
# neither its group nor others may change. The scripts act as root on what
# such files say (which binary to run, which options to allow).
ts_root_file() {
    [ -f "$1" ] || return 1
    ts_owner=$(stat -L -c '%u %a' -- "$1" 2>/dev/null) || return 1
    set -- $ts_owner
    [ "$1" = 0 ] || return 1
    [ $((0$2 & 022)) -eq 0 ]
}

# ts_read_value FILE MAXBYTES: sets ts_value to the one line of FILE, as tsd
# wrote it (the value and one line feed). Refuses (status 1, ts_refused set
# to the bytes as a message shows them) a byte outside printable ASCII other
# than a tab, and anything after the first line. Status 2: no such file.
# Status 3: the file is empty. tsd always writes at least the line feed, so
# an empty file is a write that did not land: on a full /var/run the file is
# created or truncated and the text is lost. It holds no value to act on,
# and acting on it would replace a running service by one without options.
ts_read_value() {
    ts_value=
    ts_refused=
    ts_file=$1
    ts_max=$2
    [ -f "$ts_file" ] && [ -r "$ts_file" ] || return 2
    # The shell cannot hold a NUL byte and would drop it silently, joining
    # what stood around it; look at the bytes themselves, no more of them than
    # the bound allows.
    ts_bytes=$(od -An -v -tx1 -N "$((ts_max + 1))" <"$ts_file") || return 2
    set -- $ts_bytes
    [ $# -gt 0 ] || return 3
    if [ $# -gt "$ts_max" ]; then
        ts_refused="(longer than $ts_max bytes)"
        return 1
    fi
    ts_i=0
    for ts_h; do
        ts_i=$((ts_i + 1))
        if [ "$ts_i" -eq $# ] && [ "$ts_h" = 0a ]; then
            break
        fi
        case $ts_h in
            09 | 2[0-9a-f] | [3-6][0-9a-f] | 7[0-9a-e])
                [ -z "$ts_refused" ] || break
                ;;
            0a) ts_refused=$ts_refused'\n' ;;
            *) ts_refused=$ts_refused'\x'$ts_h ;;
        esac
    done
    [ -z "$ts_refused" ] || return 1
    # One line at most is left, printable.
    IFS= read -r ts_value <"$ts_file" || [ -n "$ts_value" ] || [ $# -eq 0 ]
}

# ---------------------------------------------------------------- settings

# ts_load_settings: the optional settings of /etc/default/tsd (TSD_DEFAULTS
# names another file, for the simulator and the tests). The file is also
# tsd.service's EnvironmentFile, but it is never sourced here: a root shell
# would run whatever else it held. It is parsed instead, and only if root owns
# it and nobody else may change it, since it names binaries that run as root.
# Lines are NAME=value, NAME="value" or NAME='value'; a setting of ours that
# uses anything else (expansions, escapes, blanks outside quotes) is refused.
ts_load_settings() {
    PTP4L=/usr/sbin/ptp4l
    PTP4L_FOLLOWER_OPTIONS=
    PTP4L_ALLOW_LIST=$TSD_DATA_DIR/ptp4l-options
    CHRONYD=/usr/sbin/chronyd
    CHRONYD_OPTIONS=
    NTPD=/usr/sbin/ntpd
    NTPD_OPTIONS=
    ts_defaults=${TSD_DEFAULTS:-/etc/default/tsd}
    [ -e "$ts_defaults" ] || return 0
    ts_root_file "$ts_defaults" ||
        { ts_log err "$ts_defaults must be a regular file that only root may change; not read"; return 1; }
    ts_bad=0
    while IFS= read -r ts_line || [ -n "$ts_line" ]; do
        ts_line=${ts_line#"${ts_line%%[! 	]*}"}
        case $ts_line in
            '' | '#'*) continue ;;
            PTP4L=* | PTP4L_FOLLOWER_OPTIONS=* | PTP4L_ALLOW_LIST=* | CHRONYD=* | CHRONYD_OPTIONS=* | \
                NTPD=* | NTPD_OPTIONS=*) ;;
            *) continue ;;
        esac
        ts_key=${ts_line%%=*}
        ts_v=${ts_line#*=}
        ts_plain=1
        case $ts_v in
            \"*\")
                ts_v=${ts_v#\"}
                ts_v=${ts_v%\"}
                case $ts_v in *[\"\\\$\`]*) ts_plain=0 ;; esac
                ;;
            \'*\')
                ts_v=${ts_v#\'}
                ts_v=${ts_v%\'}
                case $ts_v in *\'*) ts_plain=0 ;; esac
                ;;
            *\"* | *\'* | *\\* | *\$* | *\`* | *[\ \	\;\&\|\<\>\(\)\{\}\*\?\~\#\!\[\]]*) ts_plain=0 ;;
        esac
        if [ "$ts_plain" = 0 ]; then
            ts_log err "$ts_defaults: $ts_key is not a plain value; not used"
            ts_bad=1
            continue
        fi
        case $ts_key in
            PTP4L) PTP4L=$ts_v ;;
            PTP4L_FOLLOWER_OPTIONS) PTP4L_FOLLOWER_OPTIONS=$ts_v ;;
            PTP4L_ALLOW_LIST) PTP4L_ALLOW_LIST=$ts_v ;;
            CHRONYD) CHRONYD=$ts_v ;;
            CHRONYD_OPTIONS) CHRONYD_OPTIONS=$ts_v ;;
            NTPD) NTPD=$ts_v ;;
            NTPD_OPTIONS) NTPD_OPTIONS=$ts_v ;;
        esac
    done <"$ts_defaults"
    return $ts_bad
}

# ts_program SETTING PATH: true when PATH may be run as root for SETTING: an
# absolute path of a regular, executable file that only root may change.
ts_program() {
    case $2 in
        /*) ;;
        *) ts_log err "$1=$2: not an absolute path"; return 1 ;;
    esac
    if ! [ -x "$2" ] || ! ts_root_file "$2"; then
        ts_log err "$1=$2: not an executable file that only root may change"
        return 1
    fi
}

# ---------------------------------------------------------------- option allow-lists

# ts_arg_ok KIND ARGUMENT: the argument kinds of the allow-list files.
ts_arg_ok() {
    case $1 in
        interface)
            [ ${#2} -ge 1 ] && [ ${#2} -le 15 ] || return 1
            case $2 in -* | *[!A-Za-z0-9_.-]*) return 1 ;; esac
            ;;
        unsigned)
            [ ${#2} -ge 1 ] && [ ${#2} -le 9 ] || return 1
            case $2 in *[!0-9]*) return 1 ;; esac
            ;;
        integer)
            ts_arg_ok unsigned "${2#-}"
            ;;
        number)
            ts_n=${2#-}
            case $ts_n in
                *.*) ts_arg_ok unsigned "${ts_n%%.*}" && ts_arg_ok unsigned "${ts_n#*.}" ;;
                *) ts_arg_ok unsigned "$ts_n" ;;
            esac
            ;;
        word)
            [ ${#2} -ge 1 ] && [ ${#2} -le 32 ] || return 1
            case $2 in [!A-Za-z]* | *[!A-Za-z0-9_]*) return 1 ;; esac
            ;;
        user)
            [ ${#2} -ge 1 ] && [ ${#2} -le 32 ] || return 1
            case $2 in -* | *[!A-Za-z0-9_-]*) return 1 ;; esac
            ;;
        *) return 1 ;;
    esac
}

# ts_load_allow_list FILE: sets ts_allow to " option:kind option:kind ... ".
ts_load_allow_list() {
    ts_allow=' '
    if ! ts_root_file "$1"; then
        ts_log err "allow-list $1 missing or changeable by others than root"
        return 1
    fi
    while IFS= read -r ts_line || [ -n "$ts_line" ]; do
        case $ts_line in '' | '#'*) continue ;; esac
        set -- $ts_line
        case $1 in
            -*) ;;
            *) ts_log err "allow-list $1: bad line"; return 1 ;;
        esac
        case $1 in *[!A-Za-z0-9_-]*) ts_log err "allow-list $1: bad option"; return 1 ;; esac
        case ${2-} in
            '' | interface | unsigned | integer | number | word | user) ;;
            *) ts_log err "allow-list: unknown argument kind for $1"; return 1 ;;
        esac
        ts_allow="$ts_allow$1:${2-} "
    done <"$1"
}

# ts_kind_of OPTION: sets ts_kind (empty: a flag); status 1 when the loaded
# allow-list does not hold OPTION. The quoted part of a pattern is literal.
ts_kind_of() {
    case $ts_allow in
        *" $1:"*)
            ts_kind=${ts_allow#*" $1:"}
            ts_kind=${ts_kind%% *}
            return 0
            ;;
    esac
    return 1
}

# ts_check_options ALLOW_LIST VALUE: status 0 when every token of VALUE (split
# at blanks) is allowed with an argument of its kind; otherwise status 1 and
# ts_refused names the first token that is not, backslashes doubled. A short
# option takes its argument as the next token, a long one as the next token
# or after '='. Status 2: the allow-list cannot be used.
ts_check_options() {
    ts_load_allow_list "$1" || return 2
    ts_refused=
    set -- $2
    while [ $# -gt 0 ]; do
        ts_tok=$1
        shift
        case $ts_tok in
            --*=*)
                if ! ts_kind_of "${ts_tok%%=*}" || [ -z "$ts_kind" ] || ! ts_arg_ok "$ts_kind" "${ts_tok#*=}"; then
                    ts_escape "$ts_tok"
                    ts_refused=$ts_escaped
                    return 1
                fi
                continue
                ;;
            -?*) ;;
            *) ts_escape "$ts_tok"; ts_refused=$ts_escaped; return 1 ;;
        esac
        if ! ts_kind_of "$ts_tok"; then
            ts_escape "$ts_tok"
            ts_refused=$ts_escaped
            return 1
        fi
        [ -n "$ts_kind" ] || continue
        if [ $# -eq 0 ]; then
            ts_escape "$ts_tok"
            ts_refused=$ts_escaped
            return 1
        fi
        if ! ts_arg_ok "$ts_kind" "$1"; then
            ts_escape "$1"
            ts_refused=$ts_escaped
            return 1
        fi
        shift
    done
}

# ---------------------------------------------------------------- processes

# ts_now: sets ts_cs to centiseconds since boot (a clock that never steps).
ts_now() {
    read -r ts_up _ </proc/uptime
    ts_cs=$((${ts_up%.*} * 100 + 1${ts_up#*.} - 100))
}

ts_now
TS_DEADLINE=$((ts_cs + TS_BUDGET))

# ts_budget CENTISECONDS: sets ts_left to CENTISECONDS or what is left of this
# invocation's budget, the smaller, and ts_secs to the same in seconds (for
# flock -w and timeout); status 1 when nothing is left.
ts_budget() {
    ts_now
    ts_left=$((TS_DEADLINE - ts_cs))
    [ "$ts_left" -le "$1" ] || ts_left=$1
    [ "$ts_left" -gt 0 ] || return 1
    ts_secs=$((ts_left / 100)).$((ts_left / 10 % 10))$((ts_left % 10))
}

# ts_systemctl CENTISECONDS ARGS...: systemctl within the budget.
ts_systemctl() {
    ts_budget "$1" || return 1
    shift
    timeout "$ts_secs" systemctl "$@" 9>&-
}

# ts_proc PID: sets ts_pstate, ts_psid and ts_pstart (clock ticks since boot
# at which the process was forked) from /proc/PID/stat; status 1 when there is
# no such process.
ts_proc() {
    case $1 in '' | *[!0-9]*) return 1 ;; esac
    { IFS= read -r ts_stat <"/proc/$1/stat"; } 2>/dev/null || return 1
    # The command name may hold blanks and parentheses; the fields follow the
    # last ") ".
    set -- ${ts_stat##*) }
    [ $# -ge 20 ] || return 1
    ts_pstate=$1 ts_psid=$4 ts_pstart=${20}
}

# ts_alive PID START: the process PID that was forked at START still runs (a
# zombie has ended; only its parent has not collected it).
ts_alive() {
    ts_proc "$1" || return 1
    [ "$ts_pstart" = "$2" ] || return 1
    case $ts_pstate in Z | X | x) return 1 ;; esac
}

# ts_launch PROGRAM ARGS...: starts PROGRAM in the background in a session of
# its own, without the lock's descriptor and without our standard streams.
# Sets ts_pid and ts_pstart; status 1 when it does not run TS_SETTLE later.
ts_launch() {
    setsid -- "$@" </dev/null >/dev/null 2>&1 9>&- &
    ts_pid=$!
    ts_proc "$ts_pid" || return 1
    ts_start=$ts_pstart
    sleep "$TS_SETTLE"
    ts_alive "$ts_pid" "$ts_start" || return 1
    # Our background child is no process-group leader, so setsid(1) made it
    # the leader of a new session in place; the whole group can be signalled.
    if [ "$ts_psid" != "$ts_pid" ]; then
        kill -s KILL "$ts_pid" 2>/dev/null
        return 1
    fi
    ts_pstart=$ts_start
}

# ts_wait_gone PID START CENTISECONDS: within the budget.
ts_wait_gone() {
    ts_budget "$3" || ts_left=0
    ts_end=$((ts_cs + ts_left))
    while ts_alive "$1" "$2"; do
        ts_now
        [ "$ts_cs" -lt "$ts_end" ] || return 1
        sleep 0.05
    done
}

# ts_terminate PID START: ends a tracked process and whatever it started in
# its process group: SIGTERM, SIGKILL after TS_TERM_WAIT. Status 1 when it
# still runs TS_KILL_WAIT after SIGKILL.
ts_terminate() {
    ts_alive "$1" "$2" || return 0
    kill -s TERM -- "-$1" 2>/dev/null || kill -s TERM "$1" 2>/dev/null
    ts_wait_gone "$1" "$2" "$TS_TERM_WAIT" || kill -s KILL "$1" 2>/dev/null
    # Children that outlived the leader would be orphans.
    kill -s KILL -- "-$1" 2>/dev/null
    ts_wait_gone "$1" "$2" "$TS_KILL_WAIT"
}

# ts_self: sets ts_self_start and ts_self_pid, the fork time and pid of this
# script's process, which order two invocations (see start_ntpd.sh).
ts_self() {
    ts_proc "$$" || return 1
    ts_self_start=$ts_pstart ts_self_pid=$$
}

# ---------------------------------------------------------------- services

ts_systemd() {
    [ -d /run/systemd/system ]
}

# ts_lock NAME: serialises the invocations that act on service NAME; the
# lock ends with the script.
ts_lock() {
    [ -d "$TS_RUN" ] || mkdir -p "$TS_RUN" || ts_fail "cannot create $TS_RUN"
    exec 9>>"$TS_RUN/$1.lock" || ts_fail "cannot open $TS_RUN/$1.lock"
    if ! ts_budget "$TS_LOCK_WAIT" || ! flock -w "$ts_secs" 9; then
        ts_fail "$TS_RUN/$1.lock still held after ${ts_secs}s; nothing done"
    fi
}

# ts_start SERVICE DESCRIPTION PROGRAM ARGS...: starts the program as
# SERVICE (ptp4l or ntp) and sets ts_pid. The arguments passed every allow-list
# check, whose character classes also keep out the '$' and '%' that systemd
# would expand in a command line.
ts_start() {
    ts_service=$1 ts_desc=$2
    shift 2
    if ts_systemd; then
        ts_budget "$TS_SYSTEMCTL_WAIT" || return 1
        timeout "$ts_secs" systemd-run --quiet --collect --unit="tsd-$ts_service" --description="$ts_desc" \
            --property=TimeoutStopSec=1 -- "$@" </dev/null >/dev/null 9>&- || return 1
        sleep "$TS_SETTLE"
        ts_systemctl "$TS_SYSTEMCTL_WAIT" is-active --quiet "tsd-$ts_service.service" || return 1
        ts_pid=$(ts_systemctl "$TS_SYSTEMCTL_WAIT" show --property=MainPID --value "tsd-$ts_service.service")
        case $ts_pid in '' | 0 | *[!0-9]*) return 1 ;; esac
        return 0
    fi
    ts_launch "$@" || return 1
    ts_put "$TS_RUN/$ts_service.id" "$ts_pid $ts_pstart"
}

# ts_running SERVICE: SERVICE runs, in its unit or as the tracked process.
ts_running() {
    if ts_systemd && ts_systemctl "$TS_SYSTEMCTL_WAIT" is-active --quiet "tsd-$1.service"; then
        return 0
    fi
    [ -f "$TS_RUN/$1.id" ] || return 1
    read -r ts_id_pid ts_id_start _ <"$TS_RUN/$1.id"
    ts_alive "$ts_id_pid" "$ts_id_start"
}

# ts_stop SERVICE: stops SERVICE, whichever way it was started, and removes
# its state files. Stopping what does not run succeeds.
ts_stop() {
    if ts_systemd && ts_systemctl "$TS_SYSTEMCTL_WAIT" is-active --quiet "tsd-$1.service"; then
        ts_systemctl "$TS_SYSTEMCTL_WAIT" stop "tsd-$1.service" || return 1
    fi
    if [ -f "$TS_RUN/$1.id" ]; then
        read -r ts_id_pid ts_id_start _ <"$TS_RUN/$1.id"
        ts_terminate "$ts_id_pid" "$ts_id_start" || return 1
        rm -f -- "$TS_RUN/$1.id"
    fi
}
