#!/usr/bin/env bash
# klClusterRender --slurm end to end, on a Slurm cluster of three nodes on this machine that
# scripts/slurm-cluster.sh brings up for each case and removes again.
#   slurm_test.sh render BIN_DIR     salloc -N 3: the frame is byte-identical to one machine's
#   slurm_test.sh key BIN_DIR        the job's services serve no one without the job's key, and
#                                    the key is nowhere to be read
#   slurm_test.sh scancel BIN_DIR    a cancelled job leaves no process behind
#   slurm_test.sh node-dies BIN_DIR  a node's service killed mid-frame ends the render at once
#   slurm_test.sh client-killed BIN_DIR, client-interrupted BIN_DIR
#                                    the client killed (SIGKILL) or interrupted (SIGINT)
#                                    mid-frame leaves no process of the job behind
#   slurm_test.sh outside BIN_DIR    --slurm outside a job, and with --nodes, is a usage error
#   slurm_test.sh sbatch BIN_DIR     examples/slurm/render.sbatch renders and completes
# Exit status 77 (skipped) where Slurm cannot run (no root, packages missing).
set -euo pipefail

case=$1
bin=$2
root="$(cd "$(dirname "$0")/../.." && pwd)"
cluster=$root/scripts/slurm-cluster.sh
# A frame that takes minutes on any machine, for the cases that act mid-render.
readonly kLong=(--width 7680 --height 4320 --iterations 20000)

# Whatever Slurm job this test itself may run in is not the one under test.
while read -r name; do unset "$name"; done < <(compgen -e | grep '^SLURM' || true)

work=$(mktemp -d)
render_pid=
cleanup() {
    if [[ -n $render_pid ]]; then
        kill "$render_pid" 2>/dev/null || true
    fi
    if [[ -f $work/c/slurm.conf ]]; then
        "$cluster" stop "$work/c" >/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

"$bin/klClusterRender" --help | grep -q -- '--slurm' || fail "klClusterRender --help lists no --slurm"

now() { echo "${EPOCHREALTIME/./}"; }  # microseconds

# Runs "$@" every tenth of a second until it succeeds, for up to $1 seconds.
wait_until() {
    local deadline=$(($(now) + $1 * 1000000))
    shift
    until "$@"; do
        (($(now) < deadline)) || return 1
        sleep 0.1
    done
}

# Whether process $1 runs (a zombie does not).
running() {
    [[ $(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null) =~ ^[^Z]$ ]]
}

# Process ids of job $1, zombies left out: the processes with SLURM_JOB_ID=$1 in their
# environment and their descendants (render servers get a clean environment of their own); with
# $2, only the processes of that program; with $3, only those on node $3. Every process found is
# remembered in $work/seen, so that one that leaves the tree (an orphan) is still looked for.
job_pids() {
    local stat pid ppid environ exe
    declare -A parent node
    for stat in /proc/[0-9]*/stat; do
        pid=${stat#/proc/}
        pid=${pid%/stat}
        ppid=$(awk '{ print $4 }' "$stat" 2>/dev/null) || continue
        parent[$pid]=$ppid
        environ=/proc/$pid/environ
        if grep -qzxF "SLURM_JOB_ID=$1" "$environ" 2>/dev/null; then
            node[$pid]=$(tr '\0' '\n' <"$environ" 2>/dev/null | sed -n 's/^SLURMD_NODENAME=//p')
            node[$pid]=${node[$pid]:--}
        fi
    done
    # Descendants take their ancestor's node; a tree is at most a few levels deep.
    local changed=1
    while ((changed)); do
        changed=0
        for pid in "${!parent[@]}"; do
            if [[ -z ${node[$pid]:-} && -n ${node[${parent[$pid]}]:-} ]]; then
                node[$pid]=${node[${parent[$pid]}]}
                changed=1
            fi
        done
    done
    for pid in "${!node[@]}"; do
        running "$pid" || continue
        exe=$(readlink "/proc/$pid/exe" 2>/dev/null) || continue
        echo "$pid ${exe##*/}" >>"$work/seen"
        [[ -z ${2:-} || ${exe##*/} == "$2" ]] || continue
        [[ -z ${3:-} || ${node[$pid]} == "$3" ]] || continue
        echo "$pid"
    done
}

# Whether a process of ours that job_pids once found still runs as the same program.
seen_running() {
    local pid program exe
    [[ -f $work/seen ]] || return 1
    while read -r pid program; do
        exe=$(readlink "/proc/$pid/exe" 2>/dev/null) || continue
        [[ ${exe##*/} == "$program" ]] && running "$pid" && return 0
    done < <(sort -u "$work/seen")
    return 1
}

# Whether job $1 has at least $2 render servers running.
has_servers() {
    [[ $(job_pids "$1" KALDClusterServer | wc -l) -ge $2 ]]
}

# Whether nothing of job $1 is left: no process, no job in the queue, salloc ended.
job_gone() {
    [[ -z $(job_pids "$1") && -z $(squeue -h -j "$1" -o %i 2>/dev/null) ]] && ! seen_running &&
        ! { [[ -n $render_pid ]] && running "$render_pid"; }
}

expect_job_gone() {
    wait_until "$2" job_gone "$1" || fail "job $1 left behind after $2 s: $(job_pids "$1" |
        xargs -r ps -o pid=,args= -p | tr '\n' ';') $(squeue -h -j "$1" -o '%i %T' 2>/dev/null)"
}

# Starts 'salloc -N 3 klClusterRender --slurm ARGS' in the background, its output in
# $work/out and $work/err; sets render_pid and job.
start_render() {
    (cd "$work" && exec salloc --quiet -N 3 --job-name="kl$$" "$bin/klClusterRender" --slurm "$@" \
        >"$work/out" 2>"$work/err") &
    render_pid=$!
    wait_until 10 job_queued || fail "no job: $(cat "$work/err")"
    job=$(squeue -h -n "kl$$" -o %i)
}

job_queued() {
    [[ -n $(squeue -h -n "kl$$" -o %i) ]]
}

render_ended() {
    ! running "$render_pid"
}

# The exit status of the background render, after it ended, into 'status'.
render_status() {
    status=0
    wait "$render_pid" || status=$?
    render_pid=
}

if [[ $case == outside ]]; then
    status=0
    (cd "$work" && exec "$bin/klClusterRender" --slurm) 2>"$work/err" >/dev/null || status=$?
    [[ $status -eq 2 && $(wc -l <"$work/err") -eq 1 ]] &&
        grep -qE '^klClusterRender: .*(salloc|sbatch)' "$work/err" ||
        fail "outside a job: status $status, $(cat "$work/err")"
    [[ ! -e $work/frame.png ]] || fail "a frame was written outside a job"
    status=0
    SLURM_JOB_ID=1 "$bin/klClusterRender" --slurm --nodes x 2>"$work/err" >/dev/null || status=$?
    [[ $status -eq 2 && $(wc -l <"$work/err") -eq 1 ]] &&
        grep -qE '^klClusterRender: .*--nodes.*\(see --help\)$' "$work/err" ||
        fail "--slurm --nodes: status $status, $(cat "$work/err")"
    echo "passed: $case"
    exit 0
fi

status=0
"$cluster" start "$work/c" >"$work/cluster.out" 2>&1 || status=$?
[[ $status -eq 77 ]] && { cat "$work/cluster.out"; exit 77; }
[[ $status -eq 0 ]] || fail "the cluster did not start: $(cat "$work/cluster.out")"
eval "$("$cluster" env "$work/c")"

case $case in
render)
    (cd "$work" && timeout -k 5 60 salloc --quiet -N 3 --job-name="kl$$" "$bin/klClusterRender" \
        --slurm --width 640 --height 480 --servers 6 --output A.png) >"$work/out" 2>"$work/err" ||
        fail "the render failed: $(cat "$work/err")"
    job=$(squeue -h -t all -n "kl$$" -o %i)
    grep -qE '^ +servers +6 on 3 node\(s\)' "$work/out" || fail "report: $(cat "$work/out")"
    [[ $(grep -oE 'server [0-9]+ started on [^ ]+' "$work/out" | awk '{ print $5 }' | sort -u |
        wc -l) -eq 3 ]] || fail "not one service per node: $(cat "$work/out")"
    (cd "$work" && "$bin/klClusterRender" --width 640 --height 480 --servers 2 --output B.png \
        >/dev/null) || fail "the one-machine render failed"
    cmp "$work/A.png" "$work/B.png" || fail "the job's frame differs from one machine's"
    expect_job_gone "$job" 20
    ;;
key)
    touch "$work/before"
    mkdir "$work/tmp"
    TMPDIR=$work/tmp start_render "${kLong[@]}" --servers 3 --output "$work/frame.png"
    wait_until 60 has_servers "$job" 3 || fail "no servers started: $(cat "$work/out" "$work/err")"
    services=$(job_pids "$job" KALDClusterService)
    [[ $(wc -w <<<"$services") -eq 3 ]] || fail "services: $services"
    for pid in $services; do
        ports=$(ss -Hltnp | grep "pid=$pid," | awk '{ print $4 }' | sed 's/.*://' | sort -u)
        [[ -n $ports ]] || fail "service $pid listens on no port"
        for port in $ports; do
            status=0
            timeout 10 "$bin/klnetctl" --port "$port" status >"$work/status" 2>/dev/null ||
                status=$?
            [[ $status -ne 0 && ! -s $work/status ]] ||
                fail "port $port served a client without the key: $(cat "$work/status")"
        done
    done
    # The key is in no command line, no environment (beyond this test's own) and no file the job
    # made.
    env | sort >"$work/env"
    for pid in $(job_pids "$job") "$render_pid"; do
        tr '\0' '\n' <"/proc/$pid/cmdline" >"$work/cmdline" 2>/dev/null || continue
        tr '\0' '\n' <"/proc/$pid/environ" | sort | comm -23 - "$work/env" >"$work/environ" ||
            continue
        while read -r path; do
            [[ ! -f $path ]] || fail "process $pid names the key file $path, which exists"
        done < <(grep -A1 -x -- '--key-file' "$work/cmdline" | grep -vx -- '--key-file' || true)
        ! grep -qE '^[0-9a-fA-F]{64}$|^[A-Za-z0-9+/]{43}=$' "$work/cmdline" ||
            fail "process $pid has a key on its command line"
        ! grep -iqE '^[^=]*KEY[^=]*=|=[0-9a-fA-F]{64}$|=[A-Za-z0-9+/]{43}=$' "$work/environ" ||
            fail "process $pid has a key in its environment: $(grep -iE '^[^=]*KEY' "$work/environ")"
    done
    leaked=$(find "$work" /dev/shm -newer "$work/before" -type f -size 32c 2>/dev/null || true)
    [[ -z $leaked ]] || fail "key-sized files made by the job: $leaked"
    running "$render_pid" || fail "the render ended early: $(cat "$work/err")"
    scancel "$job"
    expect_job_gone "$job" 20
    ;;
scancel)
    start_render "${kLong[@]}" --servers 6 --output "$work/frame.png"
    wait_until 60 has_servers "$job" 6 || fail "no servers started: $(cat "$work/out" "$work/err")"
    cancelled=$(now)
    scancel "$job"
    expect_job_gone "$job" 20
    took=$((($(now) - cancelled) / 1000))
    printf 'scancel: nothing of the job left after %d.%03d s\n' $((took / 1000)) $((took % 1000))
    render_status
    [[ $status -ne 0 ]] || fail "a cancelled render succeeded"
    [[ ! -e $work/frame.png ]] || fail "a cancelled render wrote a frame"
    ;;
node-dies)
    start_render "${kLong[@]}" --servers 6 --output "$work/frame.png"
    wait_until 60 has_servers "$job" 6 || fail "no servers started: $(cat "$work/out" "$work/err")"
    service=$(job_pids "$job" KALDClusterService n2)
    mapfile -t servers < <(job_pids "$job" KALDClusterServer n2)
    [[ $(wc -w <<<"$service") -eq 1 && ${#servers[@]} -gt 0 ]] ||
        fail "n2's service and servers: '$service' '${servers[*]}'"
    kill -KILL "$service" "${servers[@]}" || true # a server may have gone with its service
    wait_until 15 render_ended || fail "the render still runs 15 s after n2 died"
    render_status
    [[ $status -eq 1 ]] || fail "exit status $status, $(cat "$work/err")"
    [[ $(wc -l <"$work/err") -eq 1 ]] && grep -q '^klClusterRender: .*n2' "$work/err" ||
        fail "standard error: $(cat "$work/err")"
    [[ ! -e $work/frame.png ]] || fail "a frame was written"
    expect_job_gone "$job" 20
    ;;
client-killed | client-interrupted)
    # The client dies mid-frame (SIGKILL: nothing of it runs any more) or is interrupted (Ctrl-C):
    # its step, the services and their servers go with it on every node.
    start_render "${kLong[@]}" --servers 3 --output "$work/frame.png"
    wait_until 60 has_servers "$job" 3 || fail "no servers started: $(cat "$work/out" "$work/err")"
    client=$(job_pids "$job" klClusterRender)
    [[ $(wc -w <<<"$client") -eq 1 ]] || fail "client: '$client'"
    signal=KILL
    [[ $case == client-killed ]] || signal=INT
    kill -"$signal" "$client"
    expect_job_gone "$job" 20
    render_status
    if [[ $case == client-interrupted ]]; then
        [[ $status -eq 130 ]] || fail "exit status $status"
        grep -q '^klClusterRender: interrupted by SIGINT' "$work/err" ||
            fail "standard error: $(cat "$work/err")"
    fi
    ;;
sbatch)
    job=$(cd "$work" && KLNETBASE_BIN=$bin sbatch --parsable -N 3 \
        "$root/examples/slurm/render.sbatch" --width 320 --height 240 --output A.png)
    wait_until 60 eval '[[ -z $(squeue -h -j "$job" -o %i) ]]' ||
        fail "job $job still runs after 60 s"
    scontrol show job "$job" >"$work/job"
    grep -q 'JobState=COMPLETED ' "$work/job" && grep -q ' ExitCode=0:0' "$work/job" ||
        fail "job $job: $(grep -E 'JobState|ExitCode' "$work/job") $(cat "$work/klrender-$job.out")"
    grep -qE '^ +servers +3 on 3 node\(s\)' "$work/klrender-$job.out" ||
        fail "report: $(cat "$work/klrender-$job.out")"
    (cd "$work" && "$bin/klClusterRender" --width 320 --height 240 --servers 1 --output B.png \
        >/dev/null) || fail "the one-machine render failed"
    cmp "$work/A.png" "$work/B.png" || fail "the job's frame differs from one machine's"
    expect_job_gone "$job" 20
    ;;
*)
    fail "unknown case '$case'"
    ;;
esac
echo "passed: $case"
