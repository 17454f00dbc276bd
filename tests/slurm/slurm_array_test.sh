#!/usr/bin/env bash
# Runs the project's Slurm array job script on a one-node Slurm cluster made
# on this machine, and checks every set's files and logs. Needs root and the
# slurm-wlm and munge packages; starts munged, slurmctld and slurmd in a
# temporary directory and stops them by their process ids at the end.
#
#   tests/slurm/slurm_array_test.sh path/to/tarnssm
set -euo pipefail
tarnssm=$(realpath "${1:?usage: slurm_array_test.sh TARNSSM}")
top=$(cd "$(dirname "$0")/../.." && pwd)
# Exit status 77 tells CTest that the test was skipped.
if [ "$(id -u)" -ne 0 ]; then
  echo "slurm test: skipped (needs root)"
  exit 77
fi
for tool in munged slurmctld slurmd sbatch sinfo; do
  command -v "$tool" > /dev/null || { echo "slurm test: skipped ($tool not found)"; exit 77; }
done

work=$(mktemp -d /tmp/tarn-slurm.XXXXXX)
chmod 755 "$work"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2> /dev/null || true; done
  sleep 1
  for pid in "${pids[@]}"; do kill -9 "$pid" 2> /dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

host=$(hostname -s)
cpus=$(nproc)
mkdir -p "$work/state" "$work/spool" "$work/munge" "$work/run"
cp /etc/munge/munge.key "$work/munge/munge.key" 2> /dev/null ||
  dd if=/dev/urandom bs=1 count=1024 of="$work/munge/munge.key" 2> /dev/null
chmod 700 "$work/munge"
chmod 400 "$work/munge/munge.key"
munged --force --socket="$work/munge/munge.socket" --key-file="$work/munge/munge.key" \
  --pid-file="$work/munge/munged.pid" --log-file="$work/munge/munged.log" \
  --seed-file="$work/munge/munged.seed"
for _ in $(seq 50); do [ -s "$work/munge/munged.pid" ] && break; sleep 0.1; done
pids+=("$(cat "$work/munge/munged.pid")")

cat > "$work/slurm.conf" <<CONF
ClusterName=tarntest
SlurmctldHost=$host
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$work/munge/munge.socket
CredType=cred/munge
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MpiDefault=none
ReturnToService=2
SchedulerType=sched/backfill
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/run/slurmctld.pid
SlurmdPidFile=$work/run/slurmd.pid
SlurmctldLogFile=$work/run/slurmctld.log
SlurmdLogFile=$work/run/slurmd.log
SlurmctldPort=16817
SlurmdPort=16818
JobCompType=jobcomp/none
AccountingStorageType=accounting_storage/none
NodeName=$host CPUs=$cpus State=UNKNOWN
PartitionName=tarn Nodes=$host Default=YES MaxTime=INFINITE State=UP
CONF
export SLURM_CONF="$work/slurm.conf"
slurmctld -f "$SLURM_CONF"
slurmd -f "$SLURM_CONF"
for _ in $(seq 100); do
  [ -s "$work/run/slurmctld.pid" ] && [ -s "$work/run/slurmd.pid" ] && break
  sleep 0.1
done
pids+=("$(cat "$work/run/slurmctld.pid")" "$(cat "$work/run/slurmd.pid")")
for _ in $(seq 120); do
  sinfo -h -o '%t' 2> /dev/null | grep -q idle && break
  sleep 0.5
done
sinfo -h -o '%t' | grep -q idle || { echo "slurm test: node not idle" >&2; cat "$work/run/"*.log >&2; exit 1; }

# A job of 2 dims x 2 sets = 4 tasks, and one task past the end of the job.
job="$work/job"
mkdir -p "$job"
cp "$top/examples/data/sim-expression.txt" "$job/data.txt"
cd "$job"
TARNSSM="$tarnssm" TARNSSM_DIMS=2,3 TARNSSM_SETS=2 TARNSSM_STARTS=2 TARNSSM_OPTIONS="-l 30" \
  sbatch --wait --array=1-5 --chdir="$job" "$top/examples/jobs/slurm-array.sh" data.txt res \
  > "$work/sbatch.out"

if ! bash "$top/tests/slurm/check_array_job.sh" res "2 3" 2 5; then
  ls -la "$job" >&2
  cat "$job"/tarnssm-*.out "$work/run/"*.log >&2 || true
  exit 1
fi
echo "slurm test: 1 passed, 0 failed"
