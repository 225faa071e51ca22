#!/bin/sh
# A peer in another language: examples/peer.py talks to a module, frame by frame. Run in the sandbox.
#
#   test_peer.sh PEER MODULE-PROGRAM [EMULATOR...]
set -eu
peer=$1
program=$2
shift 2

"$@" "$program" &
module=$!
trap 'kill $module' EXIT
for _ in $(seq 200); do
    [ ! -S /tmp/odm/ipc/dial_test ] || break
    sleep 0.1
done

failed=0
# expect ANSWER ARGUMENT...
expect() {
    wanted=$1
    shift
    answer=$("$peer" --limit 20 "$@" 2>&1) || true
    [ "$answer" = "$wanted" ] || {
        echo "peer.py $*: '$answer', not '$wanted'"
        failed=1
    }
}

large=$(head -c 36520 /dev/zero | od -An -v -tx1 | tr -d ' \n')
expect 'rc=0 data=68656c6c6f' dial_test 7 68656c6c6f --rsp 5
expect 'rc=3 data=0000' dial_test 7 68656c --rsp 2
expect 'rc=0 data=' dial_test 7 6865 --async
expect "rc=0 data=$large" dial_test 7 "$large" --rsp 36520
expect 'peer.py: dial_test: closed after 0 of 8 bytes' dial_test 7 --rsp -1
expect 'peer.py: qmuxd: [Errno 2] No such file or directory' qmuxd 5
exit $failed
