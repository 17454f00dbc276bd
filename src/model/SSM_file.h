#pragma once
// The text form of one model: labelled blocks SSM_p_k, exp, var, H, R, F, Q.

#include <cstdio>
#include <memory>

#include "model/SSM.h"

// Writes the blocks to fp; the stream is neither flushed nor closed.
void SSM_write_fp(const SSM* ssm, int p, int k, std::FILE* fp);

// Reads a model by position: p and k from line 2, then every block without
// looking at its header. Ends the process on a malformed file.
std::unique_ptr<SSM> SSM_read_fp(std::FILE* fp, int* p_out, int* k_out);
