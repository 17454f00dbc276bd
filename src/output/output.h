#pragma once
// The files written for a finished model: state variables (one combined file,
// or one file per quantity and replicate) and the result files.

#include "data/SSMData.h"
#include "model/SSM.h"

// All replicates and quantities in "%s.D%03d.S%03d.K.%s". A file that cannot
// be opened is only a warning here.
void Kalman_apply_output(const SSM* ssm, int k, const SSMData* data, SSMState* state, SSMWork* work,
                         const char* prefix, const char* suffix, int set, int output_option);

// One file per quantity and replicate: "%s.D%03d.S%03d.%s.%d.%s", and the
// observed data in "%s.%s.%d.%s".
void Kalman_apply_output_each(const SSM* ssm, int k, const SSMData* data, SSMState* state,
                              SSMWork* work, const char* prefix, const char* suffix, int set,
                              int output_option);

// T rows of k values, from the T vectors at x[0] .. x[T - 1].
void SSMState_output(const char* file_name, const double* const* x, int k, int T);

// T rows of the p values H x[t], formed in buffer (p doubles).
void SSM_output_Hx(const char* file_name, const double* H, const double* const* x, int p, int k,
                   int T, double* buffer);

// T rows of the observed values of replicate r, "NAN" where nothing is observed.
void SSMData_output(const SSMData* data, const char* file_name, int r);

// The model, D and L in "%s.D%03d.S%03d.A.%s", and the summary line in ".B.".
void SSMResult_output(const SSMResult* result, const char* prefix, const char* suffix, int set);

// Seven files "%s.D%03d.S%03d.%s.%s" with the labels H, R, F, D, L, x, B.
void SSMResult_output_each(const SSMResult* result, const char* prefix, const char* suffix,
                           int set);

// A column-major rows x columns matrix, "%.15f" separated by two spaces.
void SSMResult_output_matrix(const char* file_name, const double* matrix, int rows, int columns);
