#pragma once
// The canonical form of an estimated model: the state rotated until
// H' R^-1 H is diagonal, descending; and the module matrix
// D = diag(L)^-1 H' R^-1/2 with L that diagonal.

#include "core/model.h"
#include "core/workspace.h"
#include "linalg/matrix.h"

namespace tarn {

struct CanonicalModel {
  StateSpaceModel model;  // rotated by x_new = V' x, with R^-1/2 H = U S V'
  Matrix D;               // k x p
  Matrix L;               // k x 1: the squared singular values S^2
};

// The canonical form of model; the workspace lends its scratch.
CanonicalModel to_canonical_form(const StateSpaceModel& model, Workspace* work);

// R^-1 H of model, p x k column-major, handed back as a k x p matrix over the
// same storage: the D block that the result files hold when the state
// variables are written as well.
Matrix information_matrix_as_module(const StateSpaceModel& model);

}  // namespace tarn
