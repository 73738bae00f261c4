# shellcheck shell=bash
# A Slurm cluster of a controller and two nodes on this machine, each in network namespaces of its own. Sourced by tests
# that enter_namespaces() has started again, so that nothing of it outlives the test.
set -euo pipefail
export LC_ALL=C.UTF-8

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# `./test scale` ends with the reasons.
skip() {
    echo "SKIPPED: $*"
    exit 77
}

# enter_namespaces ARGUMENTS…: runs the script again in new network, process and mount namespaces, unless it is there.
enter_namespaces() {
    [[ -z ${QM_IN_NAMESPACES:-} ]] || return 0
    ((EUID == 0)) || skip "network namespaces need root"
    local tool
    for tool in slurmctld slurmd munged ip; do
        [[ -x $(PATH=$PATH:/usr/sbin:/sbin type -P "$tool") ]] || skip "there is no $tool; see scripts/packages-scale"
    done
    unshare --net --pid --mount --fork --mount-proc true 2>/dev/null || skip "this machine has no network namespaces"
    QM_IN_NAMESPACES=1 exec unshare --net --pid --mount --fork --kill-child --mount-proc "$0" "$@"
}

# start_cluster FOLDER [MAX_ARRAY_SIZE]
start_cluster() {
    cluster=$1
    mkdir -p "$cluster"/{state,spool-n1,spool-n2}
    export PATH=$PATH:/usr/sbin:/sbin SLURM_CONF=$cluster/slurm.conf
    ip link set lo up
    ip link add name bridge type bridge
    ip addr add 10.213.0.1/24 dev bridge
    ip link set bridge up
    head -c 1024 /dev/urandom >"$cluster/key"
    chmod 400 "$cluster/key"
    # Others must be able to reach the socket.
    chmod 755 "$cluster"
    munged --force --foreground --key-file="$cluster/key" --socket="$cluster/munge" --num-threads=2 \
        --log-file="$cluster/munge.log" --pid-file="$cluster/munge.pid" --seed-file="$cluster/munge.seed" 2>"$cluster/munged" &
    echo CgroupPlugin=cgroup/v1 >"$cluster/cgroup.conf"
    cat >"$SLURM_CONF" <<CONF
ClusterName=test
SlurmctldHost=controller(10.213.0.1)
SlurmUser=root
AuthType=auth/munge
AuthInfo=socket=$cluster/munge,cred_expire=10
StateSaveLocation=$cluster/state
SlurmdSpoolDir=$cluster/spool-%n
SlurmctldPidFile=$cluster/slurmctld.pid
SlurmdPidFile=$cluster/slurmd-%n.pid
SlurmctldLogFile=$cluster/slurmctld.log
SlurmdLogFile=$cluster/slurmd-%n.log
SlurmdTimeout=10
SlurmdParameters=config_overrides
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
SchedulerParameters=batch_sched_delay=0,sched_interval=1
MaxArraySize=${2:-1001}
KillWait=5
ReturnToService=2
MpiDefault=none
NodeName=n1 NodeAddr=10.213.0.11 CPUs=2
NodeName=n2 NodeAddr=10.213.0.12 CPUs=2
PartitionName=all Nodes=n1,n2 Default=YES MaxTime=INFINITE State=UP
CONF
    unshare --uts bash -c 'hostname controller; exec slurmctld -D' 2>"$cluster/slurmctld.err" &
    start_node 1
    start_node 2
    await 30 nodes_are idle idle || fail "the nodes do not come up: $(sinfo 2>&1) $(tail -3 "$cluster"/*.log "$cluster"/slurmctld.err)"
}

# await SECONDS COMMAND…
await() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.2
    done
}

nodes_are() { [[ $(sinfo -hN -o %T | paste -sd' ') == "$*" ]]; }

# start_node N: the daemon and its tasks are in namespaces that end with it.
start_node() {
    local name=n$1
    # The file names the process whose namespaces they are.
    unshare --net --uts --pid --mount --fork --kill-child --mount-proc bash -c "
        hostname $name
        until ip addr add 10.213.0.1$1/24 dev eth0 2>/dev/null; do sleep 0.05; done
        ip link set lo up && ip link set eth0 up
        exec slurmd -D -N $name" 2>"$cluster/$name.err" &
    node_pids[$1]=$!
    # The child of unshare is in the namespaces.
    local child=
    await 5 eval 'child=$(pgrep -P '"${node_pids[$1]}"')' || fail "$name does not start"
    ip link add "v$1" type veth peer name eth0 netns "$child"
    ip link set "v$1" master bridge up
}
declare -A node_pids

# lose_node N: as a power failure.
lose_node() {
    kill -KILL "${node_pids[$1]}"
    wait "${node_pids[$1]}" 2>/dev/null || true
    ip link del "v$1" 2>/dev/null || true
}
