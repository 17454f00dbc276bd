#!/usr/bin/env bash
# Runs examples/jobs/sge-array.sh on a one-node Grid Engine cell made on this
# machine and checks every set's files and logs. Needs root and the
# gridengine-master, gridengine-exec and gridengine-client packages;
# sge_qmaster and sge_execd run in a scratch folder on ports of their own.
# Skips (77) with the failing step when the cell cannot be started.
#
#   tests/sge/sge_array_test.sh path/to/tarnssm
bin=/usr/lib/gridengine
source "$(dirname "$0")/../slurm/check_array_job.sh" sge "${1:-}" \
  $bin/{sge_qmaster,sge_execd,spoolinit,spooldefaults,qconf,qsub,qstat}

# Grid Engine refuses clients whose host name and address disagree. When this
# machine's name does not resolve, run the whole test again under a name of
# its own (localhost) in a new UTS namespace.
host=$(hostname)
if ! getent hosts "$host" > /dev/null; then
  [ -z "${TARN_SGE_UTS:-}" ] || skip "host name $host does not resolve"
  err=$(unshare --uts true 2>&1) || skip "host name $host does not resolve, and unshare --uts failed: $err"
  exec env TARN_SGE_UTS=1 unshare --uts sh -c 'hostname localhost && exec bash "$@"' sh "$0" "$@"
fi
make_work
pid_files="$work/qmaster/qmaster.pid $work/execd/*/execd.pid"
# step NAME COMMAND...: a step of starting the cell; skips when it fails.
step() { local out; out=$("${@:2}" 2>&1) || skip "$1 failed: $(tail -n 1 <<< "$out")"; }
# wait_for NAME LOG COMMAND...: polls COMMAND for 30 s, else skips with the
# last line of LOG (a pattern: the execution daemon names its own folder).
wait_for() {
  local end=$((SECONDS + 30))
  while [ "$SECONDS" -lt "$end" ]; do "${@:3}" > /dev/null 2>&1 && return; sleep 0.5; done
  # shellcheck disable=SC2086
  skip "$1 did not start: $(tail -q -n 1 $2 2> /dev/null || echo "no answer on port $SGE_QMASTER_PORT")"
}

export SGE_ROOT=$work/root SGE_CELL=tarn SGE_QMASTER_PORT=16444 SGE_EXECD_PORT=16445
common=$SGE_ROOT/$SGE_CELL/common
mkdir -p "$common" "$work/qmaster" "$work/execd"
for dir in bin lib utilbin util; do ln -s "/var/lib/gridengine/$dir" "$SGE_ROOT/$dir"; done
printf '%s\n' "admin_user none" "default_domain none" "ignore_fqdn true" "spooling_method classic" \
  "spooling_lib libspoolc" "spooling_params $common;$work/qmaster" "binary_path $bin" \
  "qmaster_spool_dir $work/qmaster" "security_mode none" "listener_threads 2" "worker_threads 2" \
  "scheduler_threads 1" > "$common/bootstrap"
echo "$host" > "$common/act_qmaster"
# Whatever name the address resolves back to (e.g. localhost) is this host.
addr=$(getent hosts "$host" | awk '{ print $1; exit }')
echo "$host $(getent hosts "$addr" | cut -d ' ' -f 2- | tr -s ' ' '\n' | grep -vx "$host" | tr '\n' ' ')" \
  > "$common/host_aliases"
sed -e "s|^execd_spool_dir .*|execd_spool_dir $work/execd|" -e 's/^min_uid .*/min_uid 0/' \
  -e 's/^min_gid .*/min_gid 0/' -e 's/^load_report_time .*/load_report_time 00:00:01/' \
  -e 's|^mailer .*|mailer /bin/true|' /usr/share/gridengine/default-configuration > "$work/global.conf"
resources=/usr/share/gridengine/util/resources
step spoolinit $bin/spoolinit classic libspoolc "$common;$work/qmaster" init
step "spooldefaults configuration" $bin/spooldefaults configuration "$work/global.conf"
step "spooldefaults complexes" $bin/spooldefaults complexes "$resources/centry"
step "spooldefaults usersets" $bin/spooldefaults usersets "$resources/usersets"
step "spooldefaults managers" $bin/spooldefaults managers root
step "spooldefaults adminhosts" $bin/spooldefaults adminhosts "$host"

for port in "$SGE_QMASTER_PORT" "$SGE_EXECD_PORT"; do
  ! (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null || skip "port $port is already in use"
done
step sge_qmaster $bin/sge_qmaster
wait_for sge_qmaster "$work/qmaster/messages" timeout 10 $bin/qconf -sh
printf '%s\n' "hostname $host" load_scaling\ NONE complex_values\ NONE user_lists\ NONE \
  xuser_lists\ NONE projects\ NONE xprojects\ NONE usage_scaling\ NONE report_variables\ NONE \
  > "$work/host.conf"
step "qconf -Ae (execution host)" $bin/qconf -Ae "$work/host.conf"
step "qconf -as (submit host)" $bin/qconf -as "$host"
$bin/qconf -ssconf | sed -e 's/^schedule_interval .*/schedule_interval 0:0:1/' \
  -e 's/^flush_submit_sec .*/flush_submit_sec 1/' -e 's/^flush_finish_sec .*/flush_finish_sec 1/' \
  > "$work/sched.conf"
step "qconf -Msconf (scheduler)" $bin/qconf -Msconf "$work/sched.conf"
$bin/qconf -sq | sed -e 's/^qname .*/qname tarn.q/' -e "s/^hostlist .*/hostlist $host/" \
  -e "s/^slots .*/slots $(nproc)/" -e 's/^load_thresholds .*/load_thresholds NONE/' \
  -e 's/^pe_list .*/pe_list NONE/' > "$work/queue.conf"
step "qconf -Aq (queue)" $bin/qconf -Aq "$work/queue.conf"
step sge_execd $bin/sge_execd
# The queue is usable once the execution daemon has reported its load.
queue_up() { timeout 10 $bin/qstat -f -q tarn.q | grep -q "^tarn\.q@.* lx-[a-z0-9]* *$"; }
wait_for sge_execd "$work/execd/*/messages" queue_up

# qsub -v splits its list at commas, hence the dims as a range.
logs="$work/job/tarnssm.o* $work/qmaster/messages $work/execd/*/messages"
run_array_job timeout 300 $bin/qsub -sync y -t 1-5 \
  -v "TARNSSM=$tarnssm,TARNSSM_DIMS=2-3,TARNSSM_SETS=2,TARNSSM_STARTS=2,TARNSSM_OPTIONS=-l 30" \
  "$top/examples/jobs/sge-array.sh"
