#include "io/matrix_text.h"

#include <cstddef>

namespace tarn {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void write_labelled_matrix(std::FILE* fp, const char* label, const double* A, int rows, int cols) {
  char fmt[16];
  std::snprintf(fmt, sizeof fmt, "%%.%df", 18);
  std::fprintf(fp, "%s\t%d\t%d\n", label, rows, cols);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < cols; ++j) {
      if (j > 0) std::fputc('\t', fp);
      std::fprintf(fp, fmt, A[i + static_cast<std::size_t>(j) * rows]);
    }
    std::fputc('\n', fp);
  }
  std::fputc('\n', fp);
}
#pragma GCC diagnostic pop

}  // namespace tarn
