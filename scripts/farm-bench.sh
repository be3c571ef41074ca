#!/usr/bin/env bash
# Benchmarks the transport across the shaped links of a farm in network namespaces
# (scripts/farm.sh), which it makes for itself and removes again:
#   striping     bulk throughput over K = 1, 2, 4 parallel links of 1 Gbit/s each, through a
#                balanced sender of buffered senders, against iperf3 -P K (K streams over one
#                link) and K iperf3 streams, one per link
#   round trip   a 64-byte message and its result across one 1 Gbit/s link with 0.1 ms delay each
#                way, against plain TCP over the same link
#   sealed bulk  bulk throughput over one 1 Gbit/s link with the link sealed with a farm key,
#                against the same unsealed
# Needs root; without it, it says so and measures nothing (exit status 0).
#   scripts/farm-bench.sh [MIB per round (default 512)] [ROUNDS (default 3)]
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
    -h | --help)
        sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'
        exit 0 ;;
esac
mib=${1:-512}
rounds=${2:-3}
[[ $mib =~ ^[0-9]+$ && $rounds =~ ^[0-9]+$ ]] ||
    { echo "farm-bench.sh: MIB and ROUNDS are numbers (see --help)" >&2; exit 2; }

if [[ $(id -u) -ne 0 ]] || ! ip netns list >/dev/null 2>&1; then
    echo "farm-bench.sh: skipped: needs root and 'ip netns' (network namespaces); nothing measured"
    exit 0
fi
bin=${KLFARM_BIN:-$PWD/build/release/bin}
[[ -x $bin/klFarmBench && -x $bin/KALDClusterService ]] || {
    echo "farm-bench.sh: build first: scripts/build.sh release klFarmBench KALDClusterService" >&2
    exit 1
}
have_iperf=1
command -v iperf3 >/dev/null || {
    have_iperf=0
    echo "farm-bench.sh: iperf3 not found (scripts/setup.sh installs it): no iperf3 columns"
}

export KLFARM_NAME="bench$$" KLFARM_BIN=$bin
client="klfarm-$KLFARM_NAME-client"
node="klfarm-$KLFARM_NAME-node1"
trap 'scripts/farm.sh down >/dev/null 2>&1 || true' EXIT

# Gbit/s received, from iperf3's last receiver line (the sum with several streams).
iperf_gbits() {
    awk '/receiver/ { for (i = 2; i <= NF; ++i) if ($i == "Gbits/sec") rate = $(i - 1) }
         END { print rate == "" ? "-" : rate }'
}

# One iperf3 server per port in the node namespace; returns once each listens.
iperf_servers() {
    local port waited
    for port in "$@"; do
        ip netns exec "$node" iperf3 -s -1 -p "$port" >/dev/null 2>&1 &
    done
    for port in "$@"; do
        waited=0
        until ip netns exec "$node" ss -ltn | grep -q ":$port "; do
            ((waited++ < 100)) || { echo "farm-bench.sh: iperf3 did not listen" >&2; exit 1; }
            sleep 0.1
        done
    done
}

echo "== striping: 4 links of 1 Gbit/s between two namespaces, $mib MiB x $rounds rounds"
scripts/farm.sh up 1 --links 4 --rate 1gbit >/dev/null
addresses=(10.231.1.2 10.231.1.6 10.231.1.10 10.231.1.14)
declare -A kl iperf_one iperf_each
for k in 1 2 4; do
    list=$(IFS=,; echo "${addresses[*]:0:k}")
    kl[$k]=$("$bin/klFarmBench" stripe "$client" "$node" "$list" "$mib" "$rounds")
    if ((have_iperf)); then
        iperf_servers 5201
        iperf_one[$k]=$(ip netns exec "$client" iperf3 -c "${addresses[0]}" -p 5201 -P "$k" -t 5 \
            -f g | iperf_gbits)
        ports=()
        for ((i = 0; i < k; ++i)); do ports+=($((5301 + i))); done
        iperf_servers "${ports[@]}"
        total=0
        clients=()
        for ((i = 0; i < k; ++i)); do
            ip netns exec "$client" iperf3 -c "${addresses[i]}" -p $((5301 + i)) -t 5 -f g \
                >"/tmp/farm-bench-$$-$i" &
            clients+=($!)
        done
        wait "${clients[@]}"
        for ((i = 0; i < k; ++i)); do
            total=$(awk -v a="$total" -v b="$(iperf_gbits <"/tmp/farm-bench-$$-$i")" \
                'BEGIN { print a + b }')
            rm -f "/tmp/farm-bench-$$-$i"
        done
        iperf_each[$k]=$total
    fi
    echo "  K=$k done"
done
scripts/farm.sh down >/dev/null

echo
echo "| links K | klNetBase Gbit/s | vs K=1 | iperf3 -P K, one link | iperf3, one stream per link |"
echo "|---------|------------------|--------|----------------------|-----------------------------|"
for k in 1 2 4; do
    printf "| %-7s | %-16s | %-6s | %-20s | %-27s |\n" "$k" "${kl[$k]}" \
        "$(awk -v a="${kl[$k]}" -v b="${kl[1]}" 'BEGIN { printf "%.2fx", a / b }')" \
        "${iperf_one[$k]:--}" "${iperf_each[$k]:--}"
done
speedup=$(awk -v a="${kl[2]}" -v b="${kl[1]}" 'BEGIN { printf "%.2f", a / b }')
met=$(awk -v s="$speedup" 'BEGIN { print (s >= 1.8 ? "met" : "missed") }')
echo "target: two links >= 1.8 x one link: ${speedup}x, $met"

echo
echo "== round trip: one link of 1 Gbit/s with 0.1 ms delay each way"
scripts/farm.sh up 1 --rate 1gbit --delay 0.1ms 2>"/tmp/farm-bench-$$-up" >/dev/null
delay_note=""
grep -q "no netem" "/tmp/farm-bench-$$-up" && delay_note=": this kernel has no netem, no delay was added"
rm -f "/tmp/farm-bench-$$-up"
read -r kl_median kl_tail plain_median plain_tail < <("$bin/klFarmBench" rtt "$client" "$node" \
    10.231.1.2 5000)
scripts/farm.sh down >/dev/null
echo
[[ -z $delay_note ]] || echo "note$delay_note"
echo "| round trip 64 B  | klNetBase us | plain TCP us | kl/plain |"
echo "|------------------|--------------|--------------|----------|"
printf "| median           | %-12s | %-12s | %-8s |\n" "$kl_median" "$plain_median" \
    "$(awk -v a="$kl_median" -v b="$plain_median" 'BEGIN { printf "%.3f", a / b }')"
printf "| 99th percentile  | %-12s | %-12s | %-8s |\n" "$kl_tail" "$plain_tail" \
    "$(awk -v a="$kl_tail" -v b="$plain_tail" 'BEGIN { printf "%.3f", a / b }')"

echo
echo "== sealed bulk: one 1 Gbit/s link, sealed with a farm key against unsealed, $mib MiB x $rounds rounds"
scripts/farm.sh up 1 --rate 1gbit >/dev/null
unsealed=$("$bin/klFarmBench" stripe "$client" "$node" 10.231.1.2 "$mib" "$rounds")
sealed=$("$bin/klFarmBench" stripe --sealed "$client" "$node" 10.231.1.2 "$mib" "$rounds")
scripts/farm.sh down >/dev/null
ratio=$(awk -v a="$sealed" -v b="$unsealed" 'BEGIN { printf "%.3f", a / b }')
echo
echo "| bulk, one 1 Gbit/s link | unsealed Gbit/s | sealed Gbit/s | sealed/unsealed |"
echo "|-------------------------|-----------------|---------------|-----------------|"
printf "| %-23s | %-15s | %-13s | %-15s |\n" "median of $rounds rounds" "$unsealed" "$sealed" "$ratio"
met=$(awk -v r="$ratio" 'BEGIN { print (r >= 0.97 ? "met" : "missed") }')
echo "target: sealed >= 0.97 x unsealed: ${ratio}x, $met"
