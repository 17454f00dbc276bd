#pragma once
// The files written for a finished model: state variables (one combined file,
// or one file per quantity and replicate) and the result files.
//
// Each writer takes the result set its files belong to: they are then staged
// in it and put in place by its publish(). With none (nullptr, as in the
// apply mode) every file is put in place as soon as it is written. Errors
// come back as a Status holding the line to print; progress lines go to the
// log stream of the options.

#include <cstdio>
#include <string>
#include <vector>

#include "core/canonical_form.h"
#include "core/data_set.h"
#include "core/em.h"
#include "io/output_file.h"
#include "io/status.h"

namespace tarn {

// Where and how the files of a set are written.
struct OutputOptions {
  const char* prefix;  // -o
  const char* suffix;  // -e
  bool each;           // one file per quantity (and replicate)
  bool state;          // write the state variables as well
  std::FILE* log;      // progress lines and warnings
};

// The name of one file of set (state dimension k, set number set):
//   replicate 0:  "%s.D%03d.S%03d.%s.%s"    prefix, k, set, label, suffix
//   replicate r:  "%s.D%03d.S%03d.%s.%d.%s" prefix, k, set, label, r, suffix
// and with shared (the observed data, the same for all sets) "%s.%s.%d.%s"
// of prefix, label, r, suffix. A name is cut where it does not fit: at 1023
// characters, 255 for the shared files; fits tells whether it did.
struct FileName {
  std::string text;
  bool fits;
};
struct SetFiles {
  const OutputOptions* options;
  int k;
  int set;
};
FileName result_file_name(const SetFiles& files, const char* label, int replicate = 0,
                          bool shared = false);

// The model with D and L of canonical in ".A." and the summary line in ".B."
// or, with each, seven files labelled H, R, F, D, L, x, B.
Status write_result_files(const Estimate& result, const CanonicalModel& canonical,
                          const SetFiles& files, StagedSet* staged);

// The state variables of a model over the replicates of a data set, written
// from the trajectories of the filter and smoother run per replicate:
//   StateWriter writer(model, data, files, staged);
//   Status s = writer.begin();
//   for each replicate r, while writer.wants_states(): run the passes, then
//     s = writer.write_replicate(r, trajectory);
//   s = writer.finish();
// Combined, all replicates go to ".K." (a file that cannot be opened is only
// a warning, and then no replicate is wanted); with each, one file per
// quantity and replicate, and the observed data of each replicate in a
// shared file put in place at once.
class StateWriter {
 public:
  StateWriter(const StateSpaceModel& model, const DataSet& data, const SetFiles& files,
              StagedSet* staged);

  Status begin();
  bool wants_states() const { return files_.options->each || combined_.stream() != nullptr; }
  Status write_replicate(int r, const Trajectory& trajectory);
  Status finish();

 private:
  void write_combined(int r, const Trajectory& trajectory);
  Status write_each(int r, const Trajectory& trajectory);

  const StateSpaceModel& model_;
  const DataSet& data_;
  SetFiles files_;
  StagedSet* staged_;
  OutputFile combined_;
  std::vector<double> image_;  // p: H x of one row
};

}  // namespace tarn
