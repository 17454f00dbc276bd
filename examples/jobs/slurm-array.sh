#!/bin/bash
# Slurm array job: one task per set of the whole job.
#
#   sbatch --array=1-N examples/jobs/slurm-array.sh DATA [PREFIX]
#
# with N = (number of dims) x (number of sets), here 5 x 4 = 20. Every task
# gets the same options; only the set number -i differs, taken from the
# scheduler's task number. Each task writes its own log PREFIX.log.NNNNNN.
# The dims, sets and starts can be changed through the environment
# (TARNSSM_DIMS, TARNSSM_SETS, TARNSSM_STARTS); keep N equal to dims x sets.
#SBATCH --job-name=tarnssm
#SBATCH --ntasks=1
#SBATCH --cpus-per-task=1
#SBATCH --output=tarnssm-%A_%a.out
set -euo pipefail
data=${1:?usage: sbatch --array=1-N slurm-array.sh DATA [PREFIX]}
prefix=${2:-result}
tarnssm=${TARNSSM:-tarnssm}
"$tarnssm" --sge -i "${SLURM_ARRAY_TASK_ID:?not running as an array task}" \
  -d "${TARNSSM_DIMS:-2-6}" -s "${TARNSSM_SETS:-4}" -n "${TARNSSM_STARTS:-100}" \
  ${TARNSSM_OPTIONS:-} -o "$prefix" "$data"
