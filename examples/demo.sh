#!/bin/bash
# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# Runs a device made of device/ and the examples and prints what it does. tools/demo builds the programs and calls this
# in a private copy of the device's paths. Exits with 1 when an answer was wrong.
#
#   demo.sh [--keep | --running] [--log FILE] [--capture FILE]
#
#   --keep          opens a shell beside the running device before it is stopped
#   --log FILE      leaves the system log there
#   --capture FILE  leaves the requests between the modules there, for Wireshark and frwk-chart
#   --running       runs on a device whose init has started the system log and keeps the monitor running (tools/device)
set -u

keep=
kept_log=
running=
capture=
while [ $# -gt 0 ]; do
    case $#,$1 in
    *,--keep) keep=yes ;;
    *,--running) running=yes ;;
    [!1],--log)
        kept_log=$2
        shift
        ;;
    [!1],--capture)
        capture=$2
        shift
        ;;
    *)
        echo "usage: demo.sh [--keep | --running] [--log FILE] [--capture FILE]" >&2
        exit 2
        ;;
    esac
    shift
done

programs=${DEVICE_PROGRAMS:-$(cd "$(dirname "$0")/.." && pwd)/build/release/programs}
PATH=$programs:$PATH
peer=$(dirname "$0")/peer.py
if ! [ -x "$programs/monitor" ]; then
    echo "demo.sh: no programs in $programs: tools/demo builds them" >&2
    exit 1
fi
work=$(mktemp -d)
log=$work/messages
[ -z "$running" ] || log=/var/log/messages
checks=0
wrong=0
started=()

stop_rest() {
    [ ${#started[@]} -eq 0 ] || kill "${started[@]}" 2>/dev/null
    rm -rf "$work"
}
trap stop_rest EXIT

title() {
    printf '\n== %s\n' "$*"
}

# check WHAT COMMAND...: counts, and says when it was wrong.
check() {
    local what=$1
    shift
    checks=$((checks + 1))
    if ! "$@"; then
        wrong=$((wrong + 1))
        echo "WRONG: $what"
    fi
}

run() {
    printf '$ %s\n' "$*"
    check "$* failed" "$@"
}

# within SECONDS COMMAND...: tries until it succeeds.
within() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt "$end" ] || return 1
        sleep 0.1
    done
}

logged() {
    grep -Eq "$1" "$log"
}

# answer PATTERN COUNT: prints the lines of an answer as they come from the modem; one of them must match.
answer() {
    local line found=
    for _ in $(seq "$2"); do
        IFS= read -r -t 10 line <&5 || return 1
        line=${line%$'\r'}
        echo "  $line"
        [[ $line =~ $1 ]] && found=yes
        case $line in
        ERROR | +CME*) break ;;
        esac
    done
    [ -n "$found" ]
}

# at LINE PATTERN [COUNT]: an answer has one line if not told.
at() {
    printf '> %s\n' "$1"
    printf '%s\r' "$1" >&5
    check "the answer to $1 should match $2" answer "$2" "${3:-1}"
}

# asks ANSWER ARGUMENT...: of peer.py.
asks() {
    local answer
    answer=$("$peer" --limit 20 "${@:2}" 2>&1)
    printf '$ peer.py %s\n%s\n' "${*:2}" "$answer"
    check "the answer should be $1" test "$answer" = "$1"
}

# Two terminals, joined: what goes in at one comes out at the other.
terminals() {
    socat "pty,link=$work/$1,rawer" "pty,link=$work/$1.host,rawer" &
    started+=($!)
    within 5 test -e "$work/$1.host" || exit 1
}

# passes FROM TO: sends random bytes through the bridge and compares.
passes() {
    head -c 65536 /dev/urandom >"$work/sent"
    timeout 30 head -c 65536 <"$2" >"$work/received" &
    local receiver=$!
    cat "$work/sent" >"$1"
    wait $receiver && cmp "$work/sent" "$work/received"
}

is_down() {
    monitor_tool status | grep -q "^$1 *no"
}

followed_all() {
    [ "$(tail -n 1 "$log")" = "$(tail -n 1 "$work/followed")" ]
}

has_monitor_other_than() {
    local holder
    holder=$(cat /tmp/odm/lock/monitor)
    [ -n "$holder" ] && [ "$holder" != "$1" ]
}

all_stopped() {
    ! monitor_tool status | grep -Eq ' (yes|silent) +[0-9]'
}

title "A system log, and terminals for the modem and the two ends of the bridge"
if [ -z "$running" ]; then
    busybox syslogd -n -S -O "$log" &
    started+=($!)
fi
within 5 test -e "$log" || exit 1
terminals modem
terminals left
terminals right
exec 5<>"$work/modem.host"

title "What the monitor shall start, and what the modules shall trace"
run monitor_tool start-cmd atfwd_daemon "$work/modem"
run monitor_tool start-cmd serial_bridge "-l $work/left -r $work/right"
run logtool set all 1 info

title "The device starts"
if [ -n "$running" ]; then
    run monitor_tool wait monitor
    run monitor_tool reboot # as the settings above are read at its start
    monitor=$(cat /tmp/odm/lock/monitor)
else
    echo "$ monitor &"
    monitor &
    monitor=$!
    started+=("$monitor")
fi
logtool follow "$log" >"$work/followed" &
started+=($!)
if [ -n "$capture" ]; then
    monitor_tool wait monitor
    monitor_tool capture --names "$(dirname "$0")/messages" "$capture" 2>"$work/captured" &
    capturing=$!
    started+=("$capturing")
    check "the monitor's requests should be captured" within 10 grep -q '^monitor_tool: monitor is being watched' "$work/captured"
fi
for module in monitor atfwd_daemon serial_bridge qmuxd; do
    run monitor_tool wait $module
done
within 5 logged "opened $work/right"
run monitor_tool status
run logtool

title "Command lines to atfwd_daemon, which asks the other modules"
at AT '^OK$'
at ATI '^libfrwk example device, module 2$' 2
at 'AT+CCLK?' '^\+CCLK: "[0-9/]{8},[0-9:]{8}"$' 2
at 'AT+LOAD?' '^\+LOAD: [0-9]+\.[0-9]{2}$' 2
at 'AT+MEM?' '^\+MEM: [1-9][0-9]*,[1-9][0-9]*$' 2
at AT+STATUS=qmuxd '^\+STATUS: qmuxd,[13]$' 2
at AT+STATUS=mbimd '^\+CME ERROR: 1$' # not running
at AT+PERIOD=100 '^\+CME ERROR: 3$'   # refused by qmuxd
at AT+PERIOD=500 '^OK$'
at AT+SAMPLE '^OK$'
at AT+MARK=demo '^OK$'
at AT+REPORT '^OK$'
at AT+NONSENSE '^ERROR$'
at AT+MEASURE '^\+MEASURED: [0-9]+\.[0-9]{2}$' 2

title "Bytes through serial_bridge"
check "64 KiB should pass from left to right" passes "$work/left.host" "$work/right.host"
check "64 KiB should pass from right to left" passes "$work/right.host" "$work/left.host"
run monitor_tool send serial_bridge 7 --rsp 16

title "A trace setting changed at once: qmuxd tells of each sample"
run logtool set qmuxd 1 debug
check "debug lines should come" within 10 logged 'qmuxd\[[0-9]+\]: debug\|.*sample'

title "The setting survives: qmuxd is killed, and the monitor starts it anew"
old=$(cat /tmp/odm/lock/qmuxd)
run kill -KILL "$old"
check "the monitor should say so" within 10 logged 'monitor\[.*qmuxd died'
check "qmuxd should answer again" monitor_tool wait qmuxd
new=$(cat /tmp/odm/lock/qmuxd)
echo "process $old is now $new"
check "the new process should trace at the stored level" within 10 logged "qmuxd\\[$new\\]: debug"

title "qmuxd hangs, and the monitor finds out"
sleep 2.5 # the monitor is more patient before the first answer
run kill -STOP "$new"
check "the monitor should say so" within 30 logged 'monitor\[.*qmuxd does not answer'
check "qmuxd should answer again" monitor_tool wait qmuxd

title "Supervision switched off and on"
run monitor_tool service qmuxd off
check "qmuxd should stop" within 10 is_down qmuxd
at AT+STATUS=qmuxd '^\+CME ERROR: 1$'
run monitor_tool service qmuxd on
run monitor_tool wait qmuxd
run logtool set qmuxd 1 info

title "One module more, asked by a peer that does not use the library"
run monitor_tool service dial_test on
run monitor_tool wait dial_test
asks 'rc=0 data=68656c6c6f' dial_test 7 68656c6c6f --rsp 5
asks 'rc=3 data=0000' dial_test 7 68656c --rsp 2
asks 'rc=0 data=' dial_test 7 6865 --async

if [ -n "$keep" ]; then
    title "The device runs. Try logtool and monitor_tool; 'exit' stops it."
    echo "system log: $log    command lines: echo AT >$work/modem.host"
    PS1='device$ ' bash --norc -i
fi

title "What arrived in the system log (logtool follow)"
check "logtool follow should have shown the last line" within 10 followed_all
tail -n 25 "$work/followed"
check "the mark should be there" grep -q 'qmuxd.*mark of module 2: demo' "$work/followed"
check "the report should be there" grep -q 'serial_bridge.*report: ' "$work/followed"

if [ -n "$capture" ]; then
    run kill -INT "$capturing"
    check "the capture should be whole" wait "$capturing"
    tail -n 1 "$work/captured"
fi
if [ -n "$running" ]; then
    title "The monitor ends, and init starts it anew"
    run kill -TERM "$monitor"
    check "another one should run" within 20 has_monitor_other_than "$monitor"
    for module in monitor qmuxd dial_test; do
        run monitor_tool wait $module
    done
else
    title "The device stops"
    run kill -TERM "$monitor"
    check "the monitor should end in order" wait "$monitor"
    check "nothing should be left running" all_stopped
fi
monitor_tool status
[ -z "$kept_log" ] || run cp "$log" "$kept_log"

title "$checks checks, $wrong wrong"
[ $wrong -eq 0 ]
