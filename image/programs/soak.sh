#!/bin/bash
# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# soak.sh SECONDS: load on all daemons while their memory runs out again and again. Whoever leaks is among them; at times
# it is the first to be killed, at times the last, so that the kernel takes the others. Ends with 1 unless all of them
# answer in the end.
set -u
group=/sys/fs/cgroup/modules
modules="monitor atfwd_daemon dial_test serial_bridge qmuxd"
umask 077
RANDOM=1

events() {
    sed -n "s/^$1 //p" $group/memory.events
}

# leak MIB ADJUST: takes that much, where ADJUST is how the kernel weighs it.
leak() {
    (
        echo $BASHPID >$group/cgroup.procs
        echo "$2" >/proc/self/oom_score_adj
        exec /mnt/leak "$1"
    )
}

echo "limit: $(cat $group/memory.max) bytes for all modules"
logtool set all 1 error >/dev/null
monitor_tool service dial_test on
for module in $modules; do
    monitor_tool wait "$module" 60 || exit 1
done
echo "in use by $(wc -l <$group/cgroup.procs) processes: $(cat $group/memory.current) bytes"
first_monitor=$(cat /tmp/odm/lock/monitor)
/mnt/load "$1" >/tmp/load &
load=$!
leaks=0
report=60
while kill -0 $load 2>/dev/null; do
    leaks=$((leaks + 1))
    {
        if [ $((leaks % 3)) -ne 0 ]; then
            leak 40 0 # more than there is
        else
            # A MiB more than is left, and the last to be killed: others are.
            leak $((($(cat $group/memory.max) - $(cat $group/memory.current)) / 1048576 + 1)) -999
        fi
    } 2>/dev/null # the shell's own remark that it was killed
    sleep $((RANDOM % 4))
    if [ $SECONDS -ge $report ]; then
        echo "after $SECONDS s: $leaks leaks, $(events oom_kill) processes killed"
        report=$((report + 60))
    fi
done
status=0
wait $load || status=1
cat /tmp/load
echo "$leaks leaks; $(events oom) times out of memory, $(events oom_kill) processes killed"
echo "the monitor is process $(cat /tmp/odm/lock/monitor) now, and was $first_monitor"
for module in $modules; do
    monitor_tool wait "$module" 60 || status=1
done
monitor_tool status
[ "$(events oom_kill)" -gt 0 ] || {
    echo "memory never ran out"
    status=1
}
exit $status
