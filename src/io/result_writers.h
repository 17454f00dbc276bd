#pragma once
// The files written for a finished model: state variables (one combined file,
// or one file per quantity and replicate) and the result files.

#include "core/canonical_form.h"
#include "core/data_set.h"
#include "core/em.h"

namespace tarn {

class StagedSet;

// Each writer takes, last, the result set its files belong to: they are then
// staged in it and put in place by its publish(). With none (nullptr, as in
// the apply mode) every file is put in place as soon as it is written.

// All replicates and quantities in "%s.D%03d.S%03d.K.%s". A file that cannot
// be opened is only a warning here.
void Kalman_apply_output(const StateSpaceModel* ssm, int k, const SSMData* data, Trajectory* state,
                         Workspace* work, const char* prefix, const char* suffix, int set,
                         int output_option, StagedSet* files = nullptr);

// One file per quantity and replicate: "%s.D%03d.S%03d.%s.%d.%s", and the
// observed data in "%s.%s.%d.%s", which all sets share and which is
// therefore put in place at once.
void Kalman_apply_output_each(const StateSpaceModel* ssm, int k, const SSMData* data,
                              Trajectory* state, Workspace* work, const char* prefix,
                              const char* suffix, int set, int output_option,
                              StagedSet* files = nullptr);

// T rows of k values, from the T vectors at x[0] .. x[T - 1].
void SSMState_output(const char* file_name, const double* const* x, int k, int T,
                     StagedSet* files = nullptr);

// T rows of the p values H x[t], formed in buffer (p doubles).
void SSM_output_Hx(const char* file_name, const double* H, const double* const* x, int p, int k,
                   int T, double* buffer, StagedSet* files = nullptr);

// T rows of the observed values of replicate r, "NAN" where nothing is observed.
// Put in place at once; a failure also removes the temporaries of files.
void SSMData_output(const SSMData* data, const char* file_name, int r, StagedSet* files = nullptr);

// The model, D and L in "%s.D%03d.S%03d.A.%s", and the summary line in ".B.".
void SSMResult_output(const Estimate* result, const CanonicalModel* canonical, const char* prefix,
                      const char* suffix, int set, StagedSet* files = nullptr);

// Seven files "%s.D%03d.S%03d.%s.%s" with the labels H, R, F, D, L, x, B.
void SSMResult_output_each(const Estimate* result, const CanonicalModel* canonical,
                           const char* prefix, const char* suffix, int set,
                           StagedSet* files = nullptr);

// A column-major rows x columns matrix, "%.15f" separated by two spaces.
void SSMResult_output_matrix(const char* file_name, const double* matrix, int rows, int columns,
                             StagedSet* files = nullptr);

}  // namespace tarn
