#pragma once
// The execution modes: how a whole job of dims, sets and tasks is worked through.

#include "cli/args.h"
#include "core/data_set.h"

namespace tarn {

// One thread: every dim, every set, one after the other.
void single_one(const Args* args, const SSMData* data);

// One set of the job, picked by the id (for a scheduler's array job).
void single_set(const Args* args, const SSMData* data);

// A team of threads drawing tasks from one ticket counter.
void thread(const Args* args, const SSMData* data);

// Ends the process when a state dimension of the job is below 1.
void require_dimensions(const Args* args);

}  // namespace tarn
