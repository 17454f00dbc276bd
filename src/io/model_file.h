#pragma once
// The text form of one model: labelled blocks SSM_p_k, exp, var, H, R, F, Q.

#include <cstdio>
#include <memory>

#include "core/model.h"
#include "io/memory_budget.h"
#include "io/status.h"

namespace tarn {

// Where each block's first row stands in the file (line numbers from 1), in
// the order exp, var, H, R, F, Q.
struct ModelFileLines {
  int first_row[6] = {};
};

// A model as read from its file, with its sizes and the places of its blocks.
struct StoredModel {
  int p = 0;
  int k = 0;
  std::unique_ptr<StateSpaceModel> ssm;
  ModelFileLines lines;
};

// Writes the blocks to fp; the stream is neither flushed nor closed.
void write_model(const StateSpaceModel* ssm, int p, int k, std::FILE* fp);

// Reads a model by position: p and k from line 2, then every block with its
// header line, one line of numbers per row and its closing empty line; a
// header's text is not compared, and extra cells of a row are ignored. What
// follows the last block is left unread. Fails, naming the block and the
// line, on a file that ends early, a line of the wrong kind or a cell that is
// not a number, and before allocating on dimensions whose model and least
// filter tables need more than memory_bytes.
Result<StoredModel> read_model(std::FILE* fp, double memory_bytes = memory_limit_bytes());

// read_model on the named file.
Result<StoredModel> read_model_file(const char* file_name,
                                    double memory_bytes = memory_limit_bytes());

// Fails when a value of the model is not finite, or a variance (an element of
// R or Q, a diagonal element of var) is not positive, naming the first such
// value by its block and its place in the file.
Status check_usable(const StoredModel& model);

}  // namespace tarn
