#!/bin/bash
# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# uptime.sh SECONDS EDGE...: for each edge, lets all modules start when the device has been up for a little less than so
# many seconds, and sends requests and runs timers until it has been up for more. Ends with 1 when something went wrong.
set -u
umask 077
seconds=$1
shift
modules="monitor atfwd_daemon dial_test serial_bridge qmuxd"
status=0

monitor_tool wait monitor 60
monitor_tool service dial_test on
logtool set all 1 error >/dev/null
cat >/tmp/monitor <<'EOF'
#!/bin/sh
. /tmp/uptime
exec /usr/libexec/frwk/monitor
EOF
chmod +x /tmp/monitor
mount -o bind /tmp/monitor /etc/init.d/monitor # init starts it so from now on

for edge; do
    now=$(cut -d. -f1 /proc/uptime)
    # The modules are there after a few seconds; then the load begins, and the edge is in its middle.
    cat >/tmp/uptime <<EOF
umask 077
export LD_PRELOAD=/mnt/uptime UPTIME_OFFSET=$((edge - now - 15 - seconds / 2))
EOF
    kill "$(cat /tmp/odm/lock/monitor)"
    sleep 8
    for module in $modules; do
        monitor_tool wait "$module" 60 || status=1
    done
    (
        . /tmp/uptime
        while [ $(($(cut -d. -f1 /proc/uptime) + UPTIME_OFFSET)) -lt $((edge - seconds / 2)) ]; do
            sleep 1
        done
        /mnt/timers "$seconds" &
        /mnt/load "$seconds" || exit 1
        wait $!
    ) || status=1
    monitor_tool status
done
exit $status
