#!/usr/bin/env bash
# Runs the project's Grid Engine array job script on a one-node Grid Engine
# cell made on this machine, and checks every set's files and logs. Needs root
# and the gridengine-master, gridengine-exec and gridengine-client packages;
# makes the cell in a temporary directory, starts sge_qmaster and sge_execd
# there on ports of their own, and stops them by their process ids at the end.
# Exits 77 (skipped) with the failing step when the cell cannot be started.
#
#   tests/sge/sge_array_test.sh path/to/tarnssm
set -euo pipefail
tarnssm=$(realpath "${1:?usage: sge_array_test.sh TARNSSM}")
top=$(cd "$(dirname "$0")/../.." && pwd)
skip() { echo "sge test: skipped ($*)"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root"
bin=/usr/lib/gridengine
for tool in sge_qmaster sge_execd spoolinit spooldefaults qconf qsub qstat; do
  [ -x "$bin/$tool" ] || skip "$bin/$tool not found"
done

# Grid Engine refuses clients whose host name and address disagree. When this
# machine's name does not resolve, run the whole test again under a name of
# its own (localhost) in a new UTS namespace.
host=$(hostname)
if ! getent hosts "$host" > /dev/null; then
  [ -z "${TARN_SGE_UTS:-}" ] || skip "host name $host does not resolve"
  err=$(unshare --uts true 2>&1) ||
    skip "host name $host does not resolve, and unshare --uts failed: $err"
  exec env TARN_SGE_UTS=1 unshare --uts sh -c 'hostname localhost && exec bash "$@"' \
    sh "$0" "$@"
fi

work=$(mktemp -d /tmp/tarn-sge.XXXXXX)
chmod 755 "$work"
cleanup() {
  # The daemons detach themselves; their pid files say who they are.
  local pids=() file
  for file in "$work"/qmaster/qmaster.pid "$work"/execd/*/execd.pid; do
    [ -s "$file" ] && pids+=("$(cat "$file")")
  done
  for pid in "${pids[@]}"; do kill "$pid" 2> /dev/null || true; done
  # sge_qmaster takes a few seconds to shut down.
  for _ in $(seq 30); do
    alive=0
    for pid in "${pids[@]}"; do kill -0 "$pid" 2> /dev/null && alive=1; done
    [ "$alive" -eq 0 ] && break
    sleep 0.5
  done
  for pid in "${pids[@]}"; do kill -9 "$pid" 2> /dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
# step NAME COMMAND...: a step of starting the cell; skips when it fails.
step() {
  local out
  out=$("${@:2}" 2>&1) || skip "$1 failed: $(tail -n 1 <<< "$out")"
}
# wait_for NAME LOG COMMAND...: polls COMMAND for 30 s, else skips with the
# last line of LOG (a pattern: the execution daemon names its own folder).
wait_for() {
  local end=$((SECONDS + 30))
  while [ "$SECONDS" -lt "$end" ]; do
    "${@:3}" > /dev/null 2>&1 && return
    sleep 0.5
  done
  # shellcheck disable=SC2086
  skip "$1 did not start: $(tail -q -n 1 $2 2> /dev/null || echo "no answer on port $SGE_QMASTER_PORT")"
}

export SGE_ROOT=$work/root SGE_CELL=tarn SGE_QMASTER_PORT=16444 SGE_EXECD_PORT=16445
common=$SGE_ROOT/$SGE_CELL/common
mkdir -p "$common" "$work/qmaster" "$work/execd"
for dir in bin lib utilbin util; do ln -s "/var/lib/gridengine/$dir" "$SGE_ROOT/$dir"; done
cat > "$common/bootstrap" <<CONF
admin_user              none
default_domain          none
ignore_fqdn             true
spooling_method         classic
spooling_lib            libspoolc
spooling_params         $common;$work/qmaster
binary_path             $bin
qmaster_spool_dir       $work/qmaster
security_mode           none
listener_threads        2
worker_threads          2
scheduler_threads       1
CONF
echo "$host" > "$common/act_qmaster"
# Whatever name the address resolves back to (e.g. localhost) is this host.
addr=$(getent hosts "$host" | awk '{ print $1; exit }')
echo "$host $(getent hosts "$addr" | cut -d ' ' -f 2- | tr -s ' ' '\n' | grep -vx "$host" | tr '\n' ' ')" \
  > "$common/host_aliases"
sed -e "s|^execd_spool_dir .*|execd_spool_dir $work/execd|" -e 's/^min_uid .*/min_uid 0/' \
  -e 's/^min_gid .*/min_gid 0/' -e 's/^load_report_time .*/load_report_time 00:00:01/' \
  -e 's|^mailer .*|mailer /bin/true|' \
  /usr/share/gridengine/default-configuration > "$work/global.conf"
resources=/usr/share/gridengine/util/resources
step spoolinit "$bin/spoolinit" classic libspoolc "$common;$work/qmaster" init
step "spooldefaults configuration" "$bin/spooldefaults" configuration "$work/global.conf"
step "spooldefaults complexes" "$bin/spooldefaults" complexes "$resources/centry"
step "spooldefaults usersets" "$bin/spooldefaults" usersets "$resources/usersets"
step "spooldefaults managers" "$bin/spooldefaults" managers root
step "spooldefaults adminhosts" "$bin/spooldefaults" adminhosts "$host"

for port in "$SGE_QMASTER_PORT" "$SGE_EXECD_PORT"; do
  ! (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null || skip "port $port is already in use"
done
step sge_qmaster "$bin/sge_qmaster"
wait_for sge_qmaster "$work/qmaster/messages" timeout 10 "$bin/qconf" -sh
printf '%s\n' "hostname $host" load_scaling\ NONE complex_values\ NONE user_lists\ NONE \
  xuser_lists\ NONE projects\ NONE xprojects\ NONE usage_scaling\ NONE report_variables\ NONE \
  > "$work/host.conf"
step "qconf -Ae (execution host)" "$bin/qconf" -Ae "$work/host.conf"
step "qconf -as (submit host)" "$bin/qconf" -as "$host"
"$bin/qconf" -ssconf | sed -e 's/^schedule_interval .*/schedule_interval 0:0:1/' \
  -e 's/^flush_submit_sec .*/flush_submit_sec 1/' -e 's/^flush_finish_sec .*/flush_finish_sec 1/' \
  > "$work/sched.conf"
step "qconf -Msconf (scheduler)" "$bin/qconf" -Msconf "$work/sched.conf"
"$bin/qconf" -sq | sed -e 's/^qname .*/qname tarn.q/' -e "s/^hostlist .*/hostlist $host/" \
  -e "s/^slots .*/slots $(nproc)/" -e 's/^load_thresholds .*/load_thresholds NONE/' \
  -e 's/^pe_list .*/pe_list NONE/' > "$work/queue.conf"
step "qconf -Aq (queue)" "$bin/qconf" -Aq "$work/queue.conf"

step sge_execd "$bin/sge_execd"
# The queue is usable once the execution daemon has reported its load.
queue_up() { timeout 10 "$bin/qstat" -f -q tarn.q | grep -q "^tarn\.q@.* lx-[a-z0-9]* *$"; }
wait_for sge_execd "$work/execd/*/messages" queue_up

# A job of 2 dims x 2 sets = 4 tasks, and one task past the end of the job.
# qsub -v splits its list at commas, hence the dims as a range.
job="$work/job"
mkdir -p "$job"
cp "$top/examples/data/sim-expression.txt" "$job/data.txt"
cd "$job"
vars="TARNSSM=$tarnssm,TARNSSM_DIMS=2-3,TARNSSM_SETS=2,TARNSSM_STARTS=2,TARNSSM_OPTIONS=-l 30"
status=0
timeout 300 "$bin/qsub" -sync y -t 1-5 -v "$vars" "$top/examples/jobs/sge-array.sh" data.txt res \
  > "$work/qsub.out" 2>&1 || status=$?

fail=0
[ "$status" -eq 0 ] || { echo "sge test: qsub -sync y exited with $status" >&2; fail=1; }
bash "$top/tests/slurm/check_array_job.sh" res "2 3" 2 5 || fail=1
if [ "$fail" -ne 0 ]; then
  ls -la "$job" >&2
  cat "$work/qsub.out" "$job"/tarnssm.o* "$work"/qmaster/messages "$work"/execd/*/messages >&2 || true
  exit 1
fi
echo "sge test: 1 passed, 0 failed"
