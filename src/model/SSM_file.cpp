#include "model/SSM_file.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "data/Str_readline.h"
#include "data/convert.h"
#include "log.h"
#include "math/HeapArray.h"
#include "math/Matrix.h"

void SSM_write_fp(const SSM* ssm, int p, int k, std::FILE* fp) {
  std::fprintf(fp, "SSM_p_k\t1\t2\n%d\t%d\n\n", p, k);
  Matrix_write_labelled(fp, "SSM::exp", ssm->exp, k, 1);
  Matrix_write_labelled(fp, "SSM::var", ssm->var, k, k);
  Matrix_write_labelled(fp, "SSM::H", ssm->H, p, k);
  Matrix_write_labelled(fp, "SSM::R", ssm->R, p, 1);
  Matrix_write_labelled(fp, "SSM::F", ssm->F, k, k);
  Matrix_write_labelled(fp, "SSM::Q", ssm->Q, k, 1);
}

namespace {

// The most elements a matrix of the model may have (128 MiB of doubles). Every
// one is filled even from a truncated file, and the filter works on k x k
// matrices at every time point: a larger model cannot be worked on.
constexpr long long kMaxModelElements = 1LL << 24;

[[noreturn]] void fail_parameters() {
  tarn_fatal("ERROR: Failed to read the SSM parameters.\n");
}

// One block: its header and its closing empty line are skipped unread.
void read_block(std::FILE* fp, std::string& line, double* A, int rows, int cols) {
  Str_readline(fp, line);
  if (Matrix_read_rows(fp, line, A, rows, cols) != 0) {
    tarn_fatal("ERROR: Too few cells in a matrix line of the SSM model file.\n");
  }
  Str_readline(fp, line);
}

}  // namespace

std::unique_ptr<SSM> SSM_read_fp(std::FILE* fp, int* p_out, int* k_out) {
  std::string line;
  Str_readline(fp, line);
  Str_readline(fp, line);
  if (line.empty()) fail_parameters();
  const int p = tarn_atoi(line.c_str());
  const char* tab = std::strchr(line.c_str(), '\t');
  if (tab == nullptr) fail_parameters();
  const int k = tarn_atoi(tab + 1);
  if (p < 0 || k < 0) fail_parameters();
  if (array_size(p, std::max(k, 1)) > kMaxModelElements || array_size(k, k) > kMaxModelElements) {
    tarn_fatal(
        "ERROR: SSM dimensions too large: p = %d, dim = %d (at most %lld elements in a "
        "matrix).\n",
        p, k, kMaxModelElements);
  }
  Str_readline(fp, line);

  auto ssm = SSM_new(p, k);
  read_block(fp, line, ssm->exp, k, 1);
  read_block(fp, line, ssm->var, k, k);
  read_block(fp, line, ssm->H, p, k);
  read_block(fp, line, ssm->R, p, 1);
  read_block(fp, line, ssm->F, k, k);
  read_block(fp, line, ssm->Q, k, 1);
  *p_out = p;
  *k_out = k;
  return ssm;
}
