#!/bin/bash
# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# cost.sh: what the library costs on the device, as tables.
set -u
umask 077
count=200
daemons="monitor atfwd_daemon dial_test serial_bridge qmuxd"

# row NAME PID: a process by its smaps, in KiB, and what of it is mapped from the library.
row() {
    awk -v name="$1" -v threads="$(ls "/proc/$2/task" | wc -l)" -v files="$(ls "/proc/$2/fd" | wc -l)" '
        /^[0-9a-f]+-/ { own = /libfrwk/ }
        /^Rss:/ { rss += $2; lib_rss += own * $2 }
        /^Private_Dirty:/ { dirty += $2; lib_dirty += own * $2 }
        END { printf "| %s | %d | %d | %d | %d | %d | %d |\n", name, rss, dirty, lib_rss, lib_dirty, threads, files }
        ' "/proc/$2/smaps"
}

wait_for_all() {
    for module in $daemons; do
        monitor_tool wait "$module" 60 || exit 1
    done
}

# calls_of FILE NAME: how many system calls of that name, or in total, strace has counted.
calls_of() {
    awk -v name="$2" '$NF == name { print $4 }' "$1"
}

monitor_tool wait monitor 60 || exit 1
monitor_tool service dial_test on >/dev/null
logtool set all 1 error >/dev/null
wait_for_all
old=$(cat /tmp/odm/lock/monitor)
kill "$old"
until [ "$(cat /tmp/odm/lock/monitor)" != "$old" ] && [ -d "/proc/$(cat /tmp/odm/lock/monitor)" ]; do
    sleep 0.1
done
wait_for_all
read -r up _ </proc/uptime
started=$(awk -v up="$up" '{ printf "%.1f", up - $22 / 100 }' "/proc/$(cat /tmp/odm/lock/monitor)/stat")
sleep 5

/mnt/bare 3>&- &
bare=$!
/mnt/idle 7 >/dev/null 3>&- &
mbimd=$!
/mnt/idle 8 >/dev/null 3>&- &
qti=$!
monitor_tool wait mbimd && monitor_tool wait qti || exit 1
echo "| process | resident, KiB | private dirty, KiB | libfrwk resident, KiB | libfrwk private dirty, KiB | threads | descriptors |"
echo "|---|---:|---:|---:|---:|---:|---:|"
for module in $daemons; do
    row "$module" "$(cat "/tmp/odm/lock/$module")"
done
row "mbimd (does nothing)" $mbimd
row "qti (does nothing)" $qti
row "a program without the library (does nothing)" $bare
kill $bare $mbimd $qti 2>/dev/null

service=$(cat /tmp/odm/lock/dial_test)
/mnt/requests 10 >/dev/null
before=$(awk '$1 == "ctxt" { print $2 }' /proc/stat)
/mnt/requests 0 >/dev/null
middle=$(awk '$1 == "ctxt" { print $2 }' /proc/stat)
/mnt/requests $count >/dev/null
after=$(awk '$1 == "ctxt" { print $2 }' /proc/stat)
client_switches=$(($(/mnt/requests $count) - $(/mnt/requests 0)))
strace -f -c -o /tmp/none /mnt/requests 0 >/dev/null
strace -f -c -o /tmp/many /mnt/requests $count >/dev/null
strace -f -c -o /tmp/service -p "$service" 2>/dev/null &
sleep 3
/mnt/requests $count >/dev/null
sleep 1
kill $!
wait $!
echo
echo "| a request and its answer, 64 bytes each | client | service | device |"
echo "|---|---:|---:|---:|"
# The monitor asks the service meanwhile, too.
awk -v count=$count -v client=$(($(calls_of /tmp/many total) - $(calls_of /tmp/none total))) \
    -v all="$(calls_of /tmp/service total)" -v requests="$(calls_of /tmp/service accept4)" \
    'BEGIN { printf "| system calls | %.1f | %.1f | |\n", client / count, all / requests }'
awk -v count=$count -v client=$client_switches -v all=$((after - middle - (middle - before))) \
    'BEGIN { printf "| context switches | %.1f | %.1f | %.1f |\n", client / count, (all - client) / count, all / count }'
echo
echo "From the start of the monitor to the answer of the last of ${daemons// /, }: $started s."
