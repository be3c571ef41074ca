#!/usr/bin/env bash
# The render farm in network namespaces, end to end: farm.sh makes a farm of its own for each case
# and removes it again, and the programs of the build run inside it.
#   farm_test.sh render BIN_DIR     three nodes render a frame byte-identical to one server's
#   farm_test.sh node-dies BIN_DIR  a node's service killed mid-frame ends the render at once
#   farm_test.sh allow BIN_DIR      --allow lets the client in and keeps another node out
#   farm_test.sh link-cut BIN_DIR   a node cut off without a word mid-frame is named within 15 s
# Exit status 77 (skipped) without root or 'ip netns'.
set -euo pipefail

case=$1
bin=$2
farm="$(cd "$(dirname "$0")/../../scripts" && pwd)/farm.sh"
[[ $(id -u) -eq 0 ]] || { echo "skipped: needs root"; exit 77; }
ip netns list >/dev/null 2>&1 || { echo "skipped: 'ip netns' is not available"; exit 77; }

export KLFARM_NAME="t$$${case//-/}" KLFARM_BIN=$bin
work=$(mktemp -d)
trap '"$farm" down >/dev/null || true; rm -rf "$work"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Waits up to $2 seconds until file $1 holds a line matching $3.
wait_for_line() {
    local waited=0
    until grep -q -- "$3" "$1" 2>/dev/null; do
        ((waited < $2 * 10)) || return 1
        sleep 0.1
        waited=$((waited + 1))
    done
}

# Nothing of the farm is left: no namespace, no state.
expect_gone() {
    [[ -z $(ip netns list | grep "^klfarm-$KLFARM_NAME-" || true) ]] ||
        fail "namespaces left behind: $(ip netns list | grep "^klfarm-$KLFARM_NAME-")"
    [[ ! -e /run/klfarm-$KLFARM_NAME ]] || fail "state left behind"
}

case $case in
render)
    # One server per node, the rows split evenly, the frame equal to one server's render.
    "$farm" up 3 --rate 1gbit
    "$farm" nodes | tr ',' '\n' | sed '1i # the farm' >"$work/nodes"
    "$farm" exec client -- "$bin/klClusterRender" --nodes-file "$work/nodes" --width 640 \
        --height 480 --output "$work/farm.png" >"$work/farm.out" || fail "farm render failed"
    for line in "server 1 started on 10.231.1.2:8889 for rows 0-159" \
        "server 1 started on 10.231.2.2:8889 for rows 160-319" \
        "server 1 started on 10.231.3.2:8889 for rows 320-479"; do
        grep -qxF -- "  $line" "$work/farm.out" || fail "no line '$line' in: $(cat "$work/farm.out")"
    done
    "$farm" exec client -- "$bin/klClusterRender" --servers 1 --width 640 --height 480 \
        --output "$work/one.png" >/dev/null || fail "single render failed"
    cmp "$work/farm.png" "$work/one.png" || fail "the farm's frame differs from one server's"
    # Every node answers klnetctl, and no server outlived the render.
    for i in 1 2 3; do
        "$farm" exec client -- "$bin/klnetctl" --host "10.231.$i.2" status >"$work/status"
        grep -qx "servers running: 0" "$work/status" || fail "node $i: $(cat "$work/status")"
    done
    status=0
    "$farm" exec client -- "$bin/klClusterRender" --nodes "$("$farm" nodes)" --servers 2 \
        2>"$work/err" || status=$?
    [[ $status -eq 2 && $(cat "$work/err") == \
        "klClusterRender: --servers 2 leaves nodes without work (3 nodes) (see --help)" ]] ||
        fail "too few servers: status $status, $(cat "$work/err")"
    "$farm" down >/dev/null
    expect_gone
    ;;
node-dies)
    "$farm" up 3
    "$farm" exec client -- "$bin/klClusterRender" --nodes "$("$farm" nodes)" --width 6000 \
        --height 4000 --iterations 100000 --output "$work/frame.png" >"$work/out" 2>"$work/err" &
    client=$!
    wait_for_line "$work/out" 30 "rendering" || fail "the render did not start: $(cat "$work/out")"
    kill -KILL "$("$farm" pid node2)"
    killed=$SECONDS
    for ((waited = 0; waited < 300; ++waited)); do
        kill -0 "$client" 2>/dev/null || break
        sleep 0.1
    done
    kill -0 "$client" 2>/dev/null && fail "the client still runs 30 s after the node died"
    status=0
    wait "$client" || status=$?
    ((SECONDS - killed <= 15)) || fail "the client took $((SECONDS - killed)) s to give up"
    [[ $status -eq 1 ]] || fail "exit status $status"
    expected="klClusterRender: node 10.231.2.2:8889 failed mid-frame: Connection closed"
    [[ $(cat "$work/err") == "$expected" ]] || fail "standard error: $(cat "$work/err")"
    [[ ! -e $work/frame.png ]] || fail "a frame was written"
    for i in 1 3; do
        "$farm" exec client -- "$bin/klnetctl" --host "10.231.$i.2" status >"$work/status"
        grep -qx "servers running: 0" "$work/status" ||
            fail "node $i still runs servers: $(cat "$work/status")"
    done
    ;;
link-cut)
    # Node 2's end of its link goes down: packets to and from it are dropped and nothing is reset,
    # so only keep-alive can tell (the stall time-out is off, so that it is keep-alive that is
    # tested). Node 2 cannot be told to stop its server: the server sees its client gone by
    # keep-alive as well, and ends after the idle time.
    "$farm" up 2 --service-arg --idle-exit --service-arg 2
    "$farm" exec client -- "$bin/klClusterRender" --nodes "$("$farm" nodes)" --width 6000 \
        --height 4000 --iterations 100000 --stall-timeout 0 --output "$work/frame.png" \
        >"$work/out" 2>"$work/err" &
    client=$!
    wait_for_line "$work/out" 30 "rendering" || fail "the render did not start: $(cat "$work/out")"
    ip -n "klfarm-$KLFARM_NAME-node2" link set klf-l0 down
    cut=$(date +%s%N)
    wait_for_line "$work/err" 30 "10.231.2.2" || fail "no word of node 2 30 s after the cut"
    waited=$((($(date +%s%N) - cut) / 1000000))
    echo "cut to message: $waited ms"
    ((waited <= 16000)) || fail "the client took $waited ms to name the node"
    expected="klClusterRender: node 10.231.2.2:8889 failed mid-frame: recv error. 110:Connection timed out"
    [[ $(head -1 "$work/err") == "$expected" ]] || fail "standard error: $(cat "$work/err")"
    status=0
    wait "$client" || status=$?
    [[ $status -eq 1 ]] || fail "exit status $status"
    "$farm" exec client -- "$bin/klnetctl" --host 10.231.1.2 status >"$work/status"
    grep -qx "servers running: 0" "$work/status" || fail "node 1 still runs servers: $(cat "$work/status")"
    service=$("$farm" pid node2)
    for ((tenths = 0; tenths < 300; tenths++)); do
        [[ -n $(pgrep -P "$service" -x KALDClusterServer) ]] || break
        sleep 0.1
    done
    waited=$((($(date +%s%N) - cut) / 1000000))
    echo "cut to node 2's server gone: $waited ms"
    [[ -z $(pgrep -P "$service" -x KALDClusterServer) ]] ||
        fail "node 2's server still runs $waited ms after the cut"
    ;;
allow)
    # A farm whose services cannot start is removed again by the failed up.
    status=0
    "$farm" up 1 --service-arg --bogus >/dev/null 2>"$work/err" || status=$?
    [[ $status -eq 1 ]] || fail "failed up: exit status $status"
    grep -q "KALDClusterService ended before listening" "$work/err" || fail "$(cat "$work/err")"
    expect_gone
    "$farm" up 2 --allow-client
    "$farm" exec client -- "$bin/klnetctl" --host 10.231.1.2 status >/dev/null ||
        fail "the client was refused"
    status=0
    "$farm" exec node2 -- "$bin/klnetctl" --host 10.231.1.2 status 2>"$work/err" || status=$?
    [[ $status -eq 1 && $(cat "$work/err") == \
        "klnetctl: cannot connect to 10.231.1.2:8889: Connection closed" ]] ||
        fail "node 2 at node 1: status $status, $(cat "$work/err")"
    wait_for_line "$("$farm" log node1)" 10 \
        "Refused connection from 10.231.2.2: not an allowed peer" ||
        fail "node 1 logged no refusal: $(cat "$("$farm" log node1)")"
    ;;
*)
    fail "unknown case '$case'"
    ;;
esac
echo "passed: $case"
