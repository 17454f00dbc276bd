#!/bin/bash
# Sun Grid Engine array job: one task per set of the whole job.
#
#   qsub -t 1-N examples/jobs/sge-array.sh DATA [PREFIX]
#
# with N = (number of dims) x (number of sets), here 5 x 4 = 20. Every task
# gets the same options; only the set number -i differs, taken from the
# scheduler's task number. Each task writes its own log PREFIX.log.NNNNNN.
# The dims, sets and starts can be changed through the environment
# (TARNSSM_DIMS, TARNSSM_SETS, TARNSSM_STARTS); keep N equal to dims x sets.
#$ -cwd
#$ -S /bin/bash
#$ -N tarnssm
#$ -j y
set -euo pipefail
data=${1:?usage: qsub -t 1-N sge-array.sh DATA [PREFIX]}
prefix=${2:-result}
tarnssm=${TARNSSM:-tarnssm}
"$tarnssm" --sge -i "${SGE_TASK_ID:?not running as an array task}" \
  -d "${TARNSSM_DIMS:-2-6}" -s "${TARNSSM_SETS:-4}" -n "${TARNSSM_STARTS:-100}" \
  ${TARNSSM_OPTIONS:-} -o "$prefix" "$data"
