#!/usr/bin/env bash
# Runs examples/jobs/slurm-array.sh on a one-node Slurm cluster made on this
# machine and checks every set's files and logs. Needs root and the slurm-wlm
# and munge packages; munged, slurmctld and slurmd run in a scratch folder.
#
#   tests/slurm/slurm_array_test.sh path/to/tarnssm
source "$(dirname "$0")/check_array_job.sh" slurm "${1:-}" munged slurmctld slurmd sbatch sinfo
make_work
pid_files="$work/munge/munged.pid $work/run/slurmctld.pid $work/run/slurmd.pid"
mkdir -p "$work/state" "$work/spool" "$work/munge" "$work/run"
cp /etc/munge/munge.key "$work/munge/munge.key" 2> /dev/null ||
  dd if=/dev/urandom bs=1 count=1024 of="$work/munge/munge.key" 2> /dev/null
chmod 700 "$work/munge"
chmod 400 "$work/munge/munge.key"
munged --force --socket="$work/munge/munge.socket" --key-file="$work/munge/munge.key" \
  --pid-file="$work/munge/munged.pid" --log-file="$work/munge/munged.log" \
  --seed-file="$work/munge/munged.seed"
for _ in $(seq 50); do [ -s "$work/munge/munged.pid" ] && break; sleep 0.1; done

host=$(hostname -s)
cat > "$work/slurm.conf" <<CONF
ClusterName=tarntest
SlurmctldHost=$host
AuthInfo=socket=$work/munge/munge.socket
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
ReturnToService=2
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/run/slurmctld.pid
SlurmdPidFile=$work/run/slurmd.pid
SlurmctldLogFile=$work/run/slurmctld.log
SlurmdLogFile=$work/run/slurmd.log
SlurmctldPort=16817
SlurmdPort=16818
NodeName=$host CPUs=$(nproc) State=UNKNOWN
PartitionName=tarn Nodes=$host Default=YES MaxTime=INFINITE State=UP
CONF
export SLURM_CONF="$work/slurm.conf"
slurmctld -f "$SLURM_CONF"
slurmd -f "$SLURM_CONF"
for _ in $(seq 120); do sinfo -h -o '%t' 2> /dev/null | grep -q idle && break; sleep 0.5; done
sinfo -h -o '%t' | grep -q idle || { echo "slurm test: node not idle" >&2; cat "$work/run/"*.log >&2; exit 1; }

logs="$work/job/tarnssm-*.out $work/run/*.log"
run_array_job env TARNSSM="$tarnssm" TARNSSM_DIMS=2,3 TARNSSM_SETS=2 TARNSSM_STARTS=2 \
  TARNSSM_OPTIONS="-l 30" sbatch --wait --array=1-5 --chdir="$work/job" \
  "$top/examples/jobs/slurm-array.sh"
