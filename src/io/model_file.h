#pragma once
// The text form of one model: labelled blocks SSM_p_k, exp, var, H, R, F, Q.

#include <cstdio>
#include <memory>

#include "core/model.h"
#include "io/memory_budget.h"

namespace tarn {

// Where each block's first row stands in the file (line numbers from 1), in
// the order exp, var, H, R, F, Q.
struct SSMFileLines {
  int first_row[6] = {};
};

// Writes the blocks to fp; the stream is neither flushed nor closed.
void SSM_write_fp(const StateSpaceModel* ssm, int p, int k, std::FILE* fp);

// Reads a model by position: p and k from line 2, then every block with its
// header line, one line of numbers per row and its closing empty line; a
// header's text is not compared, and extra cells of a row are ignored. What
// follows the last block is left unread. Ends the process, naming the block
// and the line, on a file that ends early, a line of the wrong kind or a cell
// that is not a number, and before allocating on dimensions whose model and
// least filter tables need more than memory_bytes. lines, when given,
// receives the blocks' places.
std::unique_ptr<StateSpaceModel> SSM_read_fp(std::FILE* fp, int* p_out, int* k_out,
                                             SSMFileLines* lines = nullptr,
                                             double memory_bytes = memory_limit_bytes());

// Ends the process when a value of the model is not finite, or a variance (an
// element of R or Q, a diagonal element of var) is not positive, naming the
// first such value by its block and its place in the file.
void SSM_require_usable(const StateSpaceModel* ssm, int p, int k, const SSMFileLines& lines);

}  // namespace tarn
