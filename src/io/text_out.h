#pragma once
// Fixed-notation number output for the result files: the same text as
// printf's "%.Nf", formatted without parsing a format string per number.

#include <charconv>
#include <cmath>
#include <cstdio>

namespace tarn {

// Writes v as "%.<precision>f" would.
inline void put_fixed(std::FILE* fp, double v, int precision) {
  char buf[400];
  const auto res = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, precision);
  if (res.ec == std::errc()) {
    fwrite_unlocked(buf, 1, static_cast<std::size_t>(res.ptr - buf), fp);
  } else {
    std::fprintf(fp, "%.*f", precision, v);
  }
}

// One text line: n values from v with stride, separated by sep, then "\n".
inline void put_row(std::FILE* fp, const double* v, int n, int stride, int precision,
                    const char* sep) {
  for (int j = 0; j < n; ++j) {
    if (j > 0) std::fputs(sep, fp);
    put_fixed(fp, v[static_cast<std::size_t>(j) * stride], precision);
  }
  fputc_unlocked('\n', fp);
}

}  // namespace tarn
