#!/usr/bin/env bash
# A Slurm cluster of three nodes (n1, n2, n3) on this one machine, for tests and trials of
# 'klClusterRender --slurm'. Everything lives in one directory: munged with its own key and
# socket, slurmctld and one 'slurmd -N nI' per node on free loopback ports, their configuration,
# state, spool, logs and pid files. Nothing is written elsewhere, so several clusters (a
# developer's and CI's) run side by side.
#
#   slurm-cluster.sh start DIR   makes DIR (new or empty), starts the daemons and waits until
#                                the three nodes are idle; prints the 'env' line
#   slurm-cluster.sh env DIR     prints 'export SLURM_CONF=DIR/slurm.conf': eval it to use the
#                                cluster's srun, salloc, sbatch, squeue, scancel, sinfo
#   slurm-cluster.sh stop DIR    cancels every job, kills every daemon and job process of the
#                                cluster and removes DIR
#
# Needs root and the packages slurm-wlm and munge. Exit status: 0 done, 1 failure, 2 bad
# command line, 77 Slurm cannot run here (the reason is printed; 'start' leaves nothing behind).
# Keep DIR short (e.g. mktemp -d): slurmd puts Unix sockets below it.
set -euo pipefail

readonly kNodes=(n1 n2 n3)
readonly kIdleSeconds=30
readonly kStopSeconds=5

usage() {
    sed -n '2,17s/^# \{0,1\}//p' "$0"
}

die() {
    echo "slurm-cluster.sh: $*" >&2
    exit 1
}

# Gives up on this machine: the reason, the daemons' last log lines, and nothing left behind.
skip() {
    echo "slurm-cluster.sh: cannot run Slurm here: $1" >&2
    if [[ -d $dir/log ]]; then
        tail -n 5 "$dir"/log/*.out >&2 2>/dev/null || true
    fi
    (stop_cluster) >/dev/null 2>&1 || true
    exit 77
}

# Whether process $1 runs (a zombie does not: this machine's init may reap late).
alive() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    [[ ${stat%% *} != Z ]]
}

# Process ids of the cluster's processes, without this script and its callers: with 'jobs', the
# step daemons (slurmstepd in DIR) and the jobs' tasks (SLURM_JOB_ID and the cluster's SLURM_CONF
# in their environment); with 'all', those and everything else that runs in DIR.
cluster_pids() {
    local which=$1 self=" " pid=$$ environ
    while [[ $pid -gt 1 ]]; do
        self+="$pid "
        pid=$(awk '{ print $4 }' "/proc/$pid/stat" 2>/dev/null || echo 1)
    done
    for environ in /proc/[0-9]*/environ; do
        pid=${environ#/proc/}
        pid=${pid%/environ}
        [[ $self == *" $pid "* ]] && continue
        if { [[ $(readlink "/proc/$pid/cwd" 2>/dev/null) == "$dir" ]] &&
            [[ $which == all || $(cat "/proc/$pid/comm" 2>/dev/null) == slurmstepd ]]; } ||
            { grep -qzxF "SLURM_CONF=$dir/slurm.conf" "$environ" 2>/dev/null &&
                grep -qz "^SLURM_JOB_ID=" "$environ" 2>/dev/null; }; then
            echo "$pid"
        fi
    done
    return 0
}

# Waits up to $1 seconds until the processes $2... are gone.
wait_gone() {
    local deadline=$((SECONDS + $1)) pid
    shift
    for pid in "$@"; do
        while alive "$pid"; do
            ((SECONDS < deadline)) || return 1
            sleep 0.1
        done
    done
}

# A free TCP port below the ephemeral range, none of those taken already ($@).
free_port() {
    local port
    while true; do
        port=$((20000 + RANDOM % 12000))
        [[ " $* " == *" $port "* ]] && continue
        ss -Hltn "sport = :$port" | grep -q . || break
    done
    echo "$port"
}

write_config() {
    local ctld_port=$1 port
    shift
    cat >"$dir/slurm.conf" <<EOF
# A test cluster made by slurm-cluster.sh: everything below $dir.
ClusterName=kltest
SlurmctldHost=localhost(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$dir/munge/munge.socket
CredType=cred/munge
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool/%n
SlurmctldPidFile=$dir/run/slurmctld.pid
SlurmdPidFile=$dir/run/slurmd-%n.pid
SlurmctldLogFile=$dir/log/slurmctld.log
SlurmdLogFile=$dir/log/slurmd-%n.log
PlugStackConfig=$dir/plugstack.conf
# No cgroups and no systemd: a step's processes are its tasks and their descendants.
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
SwitchType=switch/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
# A job that asks for more than the partition has is refused at once, not left pending.
EnforcePartLimits=ALL
# A cancelled step gets SIGTERM, then SIGKILL after KillWait seconds.
KillWait=2
InactiveLimit=0
MinJobAge=300
SlurmctldDebug=info
SlurmdDebug=info
EOF
    for node in "${kNodes[@]}"; do
        port=$1
        shift
        echo "NodeName=$node NodeHostname=localhost NodeAddr=127.0.0.1 Port=$port CPUs=2" \
            "State=UNKNOWN" >>"$dir/slurm.conf"
    done
    echo "PartitionName=kl Nodes=$(IFS=,; echo "${kNodes[*]}") Default=YES MaxTime=INFINITE" \
        "OverSubscribe=FORCE:4 State=UP" >>"$dir/slurm.conf"
    : >"$dir/plugstack.conf"
}

# Starts a daemon in the foreground of its own session, detached from the caller's streams (a
# test runner waits for whoever holds its pipes) and in DIR, which marks it and the step daemons
# it starts as the cluster's; its pid goes to run/$1.
launch() {
    local name=$1
    shift
    (cd "$dir" && exec setsid "$@" </dev/null >>"$dir/log/$name.out" 2>&1) &
    echo $! >"$dir/run/$name"
    disown
}

start_cluster() {
    [[ $(id -u) -eq 0 ]] || skip "needs root"
    local tool
    for tool in munged mungekey slurmctld slurmd slurmstepd srun sinfo scontrol ss setsid; do
        command -v "$tool" >/dev/null ||
            skip "'$tool' is missing (apt-get install slurm-wlm munge iproute2)"
    done
    if [[ -e $dir ]]; then
        [[ -d $dir && -z $(ls -A "$dir") ]] || die "'$dir' exists and is not empty"
    fi
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    chmod 700 "$dir"
    mkdir -p "$dir"/{munge,state,run,log} "${kNodes[@]/#/$dir/spool/}"

    export SLURM_CONF=$dir/slurm.conf
    local ports=() ctld_port
    ctld_port=$(free_port)
    for _ in "${kNodes[@]}"; do
        ports+=("$(free_port "$ctld_port" "${ports[@]}")")
    done
    write_config "$ctld_port" "${ports[@]}"

    mungekey --create --keyfile="$dir/munge/munge.key" 2>>"$dir/log/munged.log" ||
        skip "mungekey failed"
    launch munged munged --foreground --force --socket="$dir/munge/munge.socket" \
        --key-file="$dir/munge/munge.key" --pid-file="$dir/run/munged.pid" \
        --log-file="$dir/log/munged.log" --seed-file="$dir/munge/munged.seed"
    local deadline=$((SECONDS + 10))
    until [[ -S $dir/munge/munge.socket ]]; do
        alive "$(cat "$dir/run/munged")" || skip "munged ended"
        ((SECONDS < deadline)) || skip "munged did not make its socket"
        sleep 0.1
    done

    launch slurmctld slurmctld -D -i
    for node in "${kNodes[@]}"; do
        launch "slurmd-$node" slurmd -D -N "$node"
    done

    deadline=$((SECONDS + kIdleSeconds))
    local states
    while true; do
        for daemon in slurmctld "${kNodes[@]/#/slurmd-}"; do
            alive "$(cat "$dir/run/$daemon")" || skip "$daemon ended"
        done
        states=$(sinfo -h -N -o '%N %t' 2>/dev/null | sort -u | tr '\n' ' ' || true)
        [[ $states == "n1 idle n2 idle n3 idle " ]] && break
        ((SECONDS < deadline)) || skip "nodes not idle after $kIdleSeconds s: ${states:-no answer}"
        sleep 0.2
    done
    echo "export SLURM_CONF=$dir/slurm.conf"
}

# Kills the processes $1 (ids separated by blanks) that still run and waits until they are gone.
kill_all() {
    local pids=() pid
    for pid in $1; do
        alive "$pid" && pids+=("$pid")
    done
    [[ ${#pids[@]} -gt 0 ]] || return 0
    kill -KILL "${pids[@]}" 2>/dev/null || true
    wait_gone "$kStopSeconds" "${pids[@]}" || die "processes left: ${pids[*]}"
}

stop_cluster() {
    [[ -f $dir/slurm.conf ]] || die "'$dir' holds no cluster"
    export SLURM_CONF=$dir/slurm.conf
    # Jobs first, while the daemons can still end them; whatever of them is left (a step daemon
    # waiting for a task's orphan, the orphan) is killed; then the daemons.
    local daemons=() name
    for name in munged slurmctld "${kNodes[@]/#/slurmd-}"; do
        [[ -f $dir/run/$name ]] && daemons+=("$(cat "$dir/run/$name")")
    done
    if [[ -f $dir/run/slurmctld ]] && alive "$(cat "$dir/run/slurmctld")"; then
        timeout "$kStopSeconds" scancel --quiet --user=root >/dev/null 2>&1 || true
        local deadline=$((SECONDS + kStopSeconds))
        while [[ -n $(timeout "$kStopSeconds" squeue -h -o %i 2>/dev/null || true) ]] &&
            ((SECONDS < deadline)); do
            sleep 0.2
        done
    fi
    kill_all "$(cluster_pids jobs)"
    if [[ ${#daemons[@]} -gt 0 ]]; then
        kill -TERM "${daemons[@]}" 2>/dev/null || true
        wait_gone "$kStopSeconds" "${daemons[@]}" || true
    fi
    kill_all "$(cluster_pids all) ${daemons[*]}"
    rm -rf "$dir"
}

[[ $# -eq 2 ]] || {
    [[ ${1:-} == -h || ${1:-} == --help ]] && { usage; exit 0; }
    echo "slurm-cluster.sh: expected COMMAND DIR (see --help)" >&2
    exit 2
}
dir=$2
case $1 in
start) start_cluster ;;
env)
    [[ -f $dir/slurm.conf ]] || die "'$dir' holds no cluster"
    echo "export SLURM_CONF=$(cd "$dir" && pwd)/slurm.conf"
    ;;
stop)
    dir=$(cd "$dir" 2>/dev/null && pwd) || die "no directory '$2'"
    stop_cluster
    ;;
*)
    echo "slurm-cluster.sh: unknown command '$1' (see --help)" >&2
    exit 2
    ;;
esac
