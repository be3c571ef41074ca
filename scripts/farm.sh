#!/usr/bin/env bash
# A render farm in one box: a client network namespace and N node namespaces joined by veth pairs,
# each link shaped with tc, and a KALDClusterService in every node namespace.
#
# Addresses come from 10.231.0.0/16 and exist only inside the farm's namespaces: link k of node i
# is the /30 10.231.<i>.<4k>, the client side .<4k+1>, the node side .<4k+2>. The client namespace
# routes between the nodes, so one node can reach another (through the client, as on a switch).
#
# Several farms may run at once: KLFARM_NAME gives each its own namespaces
# (klfarm-<name>-client, klfarm-<name>-node<i>) and its own state directory; the addresses repeat,
# but every farm's namespaces are separate networks.
set -euo pipefail

readonly kPort=8889
readonly kListenSeconds=20
readonly kStopSeconds=10

usage() {
    cat <<'EOF'
Usage: farm.sh COMMAND [ARGS]
A render farm in network namespaces on this machine (needs root).

  up N [--links K] [--rate RATE] [--delay D] [--allow-client] [--key] [--service-arg ARG]...
        N node namespaces (1..64) joined to one client namespace by K veth links each (1..16,
        default 1), every link shaped to RATE (tc tbf, e.g. 1gbit, 500mbit; default unshaped)
        with D one-way delay in each direction (tc netem, e.g. 0.1ms, 2ms; default none).
        Starts KALDClusterService on port 8889 in every node namespace and waits until each
        listens. --allow-client passes --allow with the client's link addresses to every
        service; --key gives every service a new farm key (klnetctl keygen), so that they serve
        sealed clients only; --service-arg passes ARG on (repeatable).
  down  stops every process in the farm's namespaces and removes the namespaces
  exec client|nodeI -- CMD [ARG]...
        runs CMD inside the client namespace or node I's namespace
  nodes [--links]
        the services' addresses as host:port separated by commas (for klClusterRender
        --nodes); with --links, every link address of every node, one node per line
  pid nodeI
        the process id of node I's KALDClusterService
  log nodeI
        the path of node I's service log
  key
        the path of the farm key of a farm brought up with --key, for the client's --key-file
  status
        the farm's namespaces, links, shaping and services

Node I (1..N), link K (0..): client 10.231.I.(4K+1)/30, node 10.231.I.(4K+2)/30.

Environment:
  KLFARM_NAME   farm name (letters, digits, '_'; default: none), for several farms at once
  KLFARM_BIN    directory of KALDClusterService (default: build/release/bin of this tree)

Exit status: 0 done, 1 failure, 2 bad command line.
EOF
}

die() {
    echo "farm.sh: $*" >&2
    exit 1
}

usage_error() {
    echo "farm.sh: $* (see --help)" >&2
    exit 2
}

say() {
    echo "farm: $*"
}

# ---- names ----------------------------------------------------------------------------------

name=${KLFARM_NAME:-}
if [[ -n $name && ! $name =~ ^[A-Za-z0-9_]{1,32}$ ]]; then
    usage_error "KLFARM_NAME '$name' must be 1 to 32 letters, digits or '_'"
fi
prefix="klfarm-${name:+$name-}"
client_ns="${prefix}client"
state_dir="/run/${prefix%-}"
repo_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin_dir=${KLFARM_BIN:-$repo_dir/build/release/bin}

node_ns() { echo "${prefix}node$1"; }
client_addr() { echo "10.231.$1.$(($2 * 4 + 1))"; }
node_addr() { echo "10.231.$1.$(($2 * 4 + 2))"; }

# The farm's namespaces that exist now, whatever state survived.
farm_namespaces() {
    ip netns list 2>/dev/null | awk '{print $1}' |
        grep -E "^${prefix}(client|node[0-9]+)\$" || true
}

require_root() {
    [[ $(id -u) -eq 0 ]] || die "needs root (network namespaces, veth links and tc)"
    command -v ip >/dev/null && ip netns list >/dev/null 2>&1 ||
        die "'ip netns' is not available (install iproute2)"
}

# Node I from "nodeI" within the farm's node count.
parse_node() {
    [[ $1 =~ ^node([0-9]+)$ ]] || usage_error "expected nodeI, not '$1'"
    local i=${BASH_REMATCH[1]} count
    count=$(cat "$state_dir/nodes" 2>/dev/null) || die "farm '${prefix%-}' is not up"
    ((i >= 1 && i <= count)) || usage_error "the farm has nodes 1 to $count, not '$1'"
    echo "$i"
}

# ---- down -----------------------------------------------------------------------------------

# Stops every process in the namespace (the service, the render servers it started, anything run
# there with exec): SIGTERM, then SIGKILL after a bounded wait.
stop_namespace_processes() {
    local ns=$1 pids waited=0
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    [[ -z $pids ]] && return 0
    kill -TERM $pids 2>/dev/null || true
    while [[ -n $(ip netns pids "$ns" 2>/dev/null || true) ]] && ((waited < kStopSeconds * 10)); do
        sleep 0.1
        waited=$((waited + 1))
    done
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    if [[ -n $pids ]]; then
        echo "farm.sh: $ns: processes $pids did not end on SIGTERM, killing them" >&2
        kill -KILL $pids 2>/dev/null || true
    fi
}

# Removes every trace of the farm; quiet when there is none. Deleting a namespace deletes the veth
# ends inside it, and so their peers and qdiscs.
teardown() {
    local ns
    for ns in $(farm_namespaces); do
        stop_namespace_processes "$ns"
    done
    for ns in $(farm_namespaces); do
        ip netns del "$ns" 2>/dev/null || echo "farm.sh: cannot delete namespace $ns" >&2
    done
    rm -rf "$state_dir"
}

cmd_down() {
    (($# == 0)) || usage_error "down takes no arguments"
    require_root
    local namespaces
    namespaces=$(farm_namespaces)
    if [[ -z $namespaces && ! -d $state_dir ]]; then
        say "nothing to remove (farm '${prefix%-}' is not up)"
        return 0
    fi
    say "stopping processes and removing namespaces:" $namespaces
    teardown
    [[ -z $(farm_namespaces) ]] || die "namespaces left behind: $(farm_namespaces | tr '\n' ' ')"
    say "down"
}

# ---- up -------------------------------------------------------------------------------------

# tc shaping of one veth end: tbf for the rate, netem under it for the delay.
shape() {
    local ns=$1 dev=$2 rate=$3 delay=$4 parent=root
    if [[ -n $rate ]]; then
        # A burst of 2 ms at the rate, at least 128 KiB so that a whole GSO packet fits.
        local bytes
        bytes=$(rate_bytes "$rate")
        local burst=$((bytes / 500 > 131072 ? bytes / 500 : 131072))
        tc -n "$ns" qdisc add dev "$dev" root handle 1: tbf rate "$rate" burst "$burst" \
            latency 20ms
        parent="parent 1:1"
    fi
    if [[ -n $delay && $netem_missing -eq 0 ]]; then
        # shellcheck disable=SC2086
        if ! tc -n "$ns" qdisc add dev "$dev" $parent handle 10: netem delay "$delay" \
            limit 100000 2>"$state_dir/tc.err"; then
            if grep -q "qdisc kind is unknown" "$state_dir/tc.err"; then
                netem_missing=1
                echo "farm.sh: warning: this kernel has no netem qdisc; links get no added delay" >&2
            else
                die "tc netem on $dev in $ns: $(cat "$state_dir/tc.err")"
            fi
        fi
    fi
}

# Bytes per second of a tc rate text.
rate_bytes() {
    local number=${1%%[a-z]*} unit=${1##*[0-9.]}
    awk -v n="$number" -v u="$unit" 'BEGIN {
        m = u == "bit" ? 1 : u == "kbit" ? 1e3 : u == "mbit" ? 1e6 : 1e9
        printf "%d\n", n * m / 8 }'
}

start_service() {
    local i=$1 ns addr log out waited=0
    ns=$(node_ns "$i")
    addr=$(node_addr "$i" 0)
    log="$state_dir/node$i.log"
    out="$state_dir/node$i.out"
    mkdir -m 0700 "$state_dir/node$i.run"
    # setsid: the service outlives this script and is not hit by a terminal's Ctrl-C. Render
    # servers' hand-off sockets go to the node's own runtime directory.
    XDG_RUNTIME_DIR="$state_dir/node$i.run" ip netns exec "$ns" setsid \
        "$bin_dir/KALDClusterService" --port "$kPort" --no-console --log-file "$log" \
        --config "" --drain-timeout 0 \
        "${service_args[@]}" </dev/null >"$out" 2>&1 &
    echo $! >"$state_dir/node$i.pid"
    until grep -q "^listening on port " "$out" 2>/dev/null; do
        if ! kill -0 "$(cat "$state_dir/node$i.pid")" 2>/dev/null; then
            die "node $i: KALDClusterService ended before listening: $(tail -n 3 "$out" "$log" 2>/dev/null | tr '\n' ' ')"
        fi
        ((waited < kListenSeconds * 10)) ||
            die "node $i: KALDClusterService did not listen within $kListenSeconds s"
        sleep 0.1
        waited=$((waited + 1))
    done
    say "node $i: KALDClusterService listening on $addr:$kPort (pid $(cat "$state_dir/node$i.pid"))"
}

cmd_up() {
    local nodes="" links=1 rate="" delay="" allow_client=0 with_key=0
    service_args=()
    service_args_for_node=()
    while (($# > 0)); do
        case $1 in
            --links) (($# >= 2)) || usage_error "--links needs a value"; links=$2; shift 2 ;;
            --links=*) links=${1#*=}; shift ;;
            --rate) (($# >= 2)) || usage_error "--rate needs a value"; rate=$2; shift 2 ;;
            --rate=*) rate=${1#*=}; shift ;;
            --delay) (($# >= 2)) || usage_error "--delay needs a value"; delay=$2; shift 2 ;;
            --delay=*) delay=${1#*=}; shift ;;
            --allow-client) allow_client=1; shift ;;
            --key) with_key=1; shift ;;
            --service-arg)
                (($# >= 2)) || usage_error "--service-arg needs a value"
                service_args+=("$2"); shift 2 ;;
            --service-arg=*) service_args+=("${1#*=}"); shift ;;
            -*) usage_error "unknown option '$1'" ;;
            *)
                [[ -z $nodes ]] || usage_error "unexpected argument '$1'"
                nodes=$1; shift ;;
        esac
    done
    [[ -n $nodes ]] || usage_error "up needs the number of nodes"
    [[ $nodes =~ ^[0-9]+$ ]] && ((nodes >= 1 && nodes <= 64)) ||
        usage_error "the number of nodes must be 1 to 64, not '$nodes'"
    [[ $links =~ ^[0-9]+$ ]] && ((links >= 1 && links <= 16)) ||
        usage_error "--links must be 1 to 16, not '$links'"
    [[ -z $rate || $rate =~ ^[0-9]+(\.[0-9]+)?(bit|kbit|mbit|gbit)$ ]] ||
        usage_error "--rate takes a rate such as 1gbit or 500mbit, not '$rate'"
    [[ -z $delay || $delay =~ ^[0-9]+(\.[0-9]+)?(us|ms|s)$ ]] ||
        usage_error "--delay takes a time such as 0.1ms or 200us, not '$delay'"
    require_root
    [[ -x $bin_dir/KALDClusterService ]] ||
        die "no KALDClusterService in $bin_dir (build it, or set KLFARM_BIN)"
    [[ -z $(farm_namespaces) && ! -d $state_dir ]] ||
        die "farm '${prefix%-}' is already up (farm.sh down first)"

    # From here on a failure removes whatever was made.
    trap 'status=$?; if ((status != 0)); then echo "farm.sh: up failed, removing the farm" >&2; teardown; fi' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    mkdir -m 0700 "$state_dir"
    netem_missing=0
    if ((with_key)); then
        "$bin_dir/klnetctl" keygen "$state_dir/farm.key" >/dev/null ||
            die "cannot make the farm key"
        service_args+=(--key-file "$state_dir/farm.key")
        say "farm key $state_dir/farm.key given to every service"
    fi

    local i k shaping="unshaped"
    [[ -n $rate || -n $delay ]] && shaping="${rate:-no rate limit}${delay:+, $delay each way}"
    say "creating ${client_ns} and $nodes node namespaces, $links link(s) per node ($shaping)"
    ip netns add "$client_ns"
    ip -n "$client_ns" link set lo up
    ip netns exec "$client_ns" sysctl -qw net.ipv4.ip_forward=1
    for ((i = 1; i <= nodes; ++i)); do
        local ns
        ns=$(node_ns "$i")
        ip netns add "$ns"
        ip -n "$ns" link set lo up
        for ((k = 0; k < links; ++k)); do
            local near="klf-n${i}l${k}" far="klf-l${k}"
            ip link add "$near" netns "$client_ns" type veth peer name "$far" netns "$ns"
            ip -n "$client_ns" addr add "$(client_addr "$i" "$k")/30" dev "$near"
            ip -n "$ns" addr add "$(node_addr "$i" "$k")/30" dev "$far"
            ip -n "$client_ns" link set "$near" up
            ip -n "$ns" link set "$far" up
            shape "$client_ns" "$near" "$rate" "$delay"
            shape "$ns" "$far" "$rate" "$delay"
            if ((allow_client)); then
                service_args_for_node[$i]+=" --allow $(client_addr "$i" "$k")/32"
            fi
        done
        # Other nodes are reached through the client namespace.
        ip -n "$ns" route add 10.231.0.0/16 via "$(client_addr "$i" 0)"
        say "node $i: $ns, links $(for ((k = 0; k < links; ++k)); do
            printf '%s ' "$(client_addr "$i" "$k")-$(node_addr "$i" "$k")"; done)"
    done
    echo "$nodes" >"$state_dir/nodes"
    echo "$links" >"$state_dir/links"
    echo "$shaping$( ((netem_missing)) && echo ' (delay not applied: no netem)')" \
        >"$state_dir/shaping"

    local common=("${service_args[@]}")
    for ((i = 1; i <= nodes; ++i)); do
        service_args=("${common[@]}")
        # shellcheck disable=SC2206
        ((allow_client)) && service_args+=(${service_args_for_node[$i]})
        start_service "$i"
    done
    trap - EXIT INT TERM
    say "up: klClusterRender --nodes $(node_list)"
}

# ---- queries --------------------------------------------------------------------------------

node_list() {
    local count i list=""
    count=$(cat "$state_dir/nodes" 2>/dev/null) || die "farm '${prefix%-}' is not up"
    for ((i = 1; i <= count; ++i)); do
        list+="${list:+,}$(node_addr "$i" 0):$kPort"
    done
    echo "$list"
}

cmd_nodes() {
    if (($# == 0)); then
        node_list
    elif [[ $# -eq 1 && $1 == --links ]]; then
        local count links i k
        count=$(cat "$state_dir/nodes" 2>/dev/null) || die "farm '${prefix%-}' is not up"
        links=$(cat "$state_dir/links")
        for ((i = 1; i <= count; ++i)); do
            for ((k = 0; k < links; ++k)); do
                printf '%s%s' "$( ((k > 0)) && echo ,)" "$(node_addr "$i" "$k")"
            done
            echo
        done
    else
        usage_error "nodes takes only --links"
    fi
}

cmd_status() {
    (($# == 0)) || usage_error "status takes no arguments"
    require_root
    [[ -f $state_dir/nodes ]] || { say "farm '${prefix%-}' is not up"; return 1; }
    local count i
    count=$(cat "$state_dir/nodes")
    say "${prefix%-}: $count nodes, $(cat "$state_dir/links") link(s) each, $(cat "$state_dir/shaping")"
    for ((i = 1; i <= count; ++i)); do
        local pid state=stopped
        pid=$(cat "$state_dir/node$i.pid")
        [[ " $(ip netns pids "$(node_ns "$i")" 2>/dev/null | tr '\n' ' ') " == *" $pid "* ]] &&
            state="running, pid $pid"
        say "node $i: $(node_ns "$i") $(node_addr "$i" 0):$kPort service $state"
    done
}

cmd_exec() {
    (($# >= 1)) || usage_error "exec needs client or nodeI"
    local ns i
    if [[ $1 == client ]]; then
        ns=$client_ns
    else
        i=$(parse_node "$1")
        ns=$(node_ns "$i")
    fi
    shift
    [[ ${1:-} == -- ]] && shift
    (($# >= 1)) || usage_error "exec needs a command"
    require_root
    exec ip netns exec "$ns" "$@"
}

case ${1:-} in
    -h | --help | help) usage ;;
    up) shift; cmd_up "$@" ;;
    down) shift; cmd_down "$@" ;;
    exec) shift; cmd_exec "$@" ;;
    nodes) shift; cmd_nodes "$@" ;;
    status) shift; cmd_status "$@" ;;
    pid | log)
        (($# == 2)) || usage_error "$1 needs nodeI"
        i=$(parse_node "$2")
        if [[ $1 == pid ]]; then cat "$state_dir/node$i.pid"; else echo "$state_dir/node$i.log"; fi ;;
    key)
        (($# == 1)) || usage_error "key takes no arguments"
        [[ -f $state_dir/farm.key ]] || die "the farm has no key (farm.sh up N --key)"
        echo "$state_dir/farm.key" ;;
    "") usage_error "no command given" ;;
    *) usage_error "unknown command '$1'" ;;
esac
