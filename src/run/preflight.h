#pragma once
// The checks a run passes before it spends any time on estimation: a job that
// could never end, a table read in doubt or a job too large for the machine is
// told at once, by name, rather than hours later or never. For ordinary input
// they print nothing.

#include <string>
#include <vector>

#include "core/data_set.h"
#include "io/set_lock.h"
#include "run/job.h"
#include "run/settings.h"

namespace tarn {

// What the checks found: whole lines, "WARNING: ..." or "ERROR: ...", in
// order. A run ends after them when one is an error.
struct Findings {
  std::vector<std::string> lines;
  bool failed = false;

  void warn(const std::string& text);
  void fail(const std::string& text);
  // A warning, or an error when as_error is set.
  void report(const std::string& text, bool as_error);
};

// The bytes each time point of the input adds to the records the mode
// allocates (its filters' tables), for a check of the time grid while the
// table is read; 0 for the apply mode, whose dimension comes later.
double bytes_per_time_point(const RunSettings& settings);

// The table as read, before the mean shift: what the reader read in doubt
// (errors under --strict), and cells no start can work with (errors under
// unlimited retries).
Findings check_table(const RunSettings& settings, const DataSet& data);

// The centred table: objects without a positive, finite initial R, on which
// every start fails (errors under unlimited retries).
Findings check_objects(const RunSettings& settings, const DataSet& data);

// The output folder takes files, and no other run writes one of the sets:
// locks on them are added to held.
Findings claim_result_sets(const RunSettings& settings, std::span<const SetId> sets, SetLocks* held,
                           std::FILE* log);

// The memory the mode will allocate for its records, against the memory the
// run may use. Applies to every estimation mode that allocates them, also
// when it then estimates no set.
Findings check_memory(const RunSettings& settings, const DataSet& data);

}  // namespace tarn
