#include "io/read_line.h"

namespace tarn {

namespace {

// After a CR: swallow a directly following LF, push anything else back.
// Returns true when the input ended right after the CR.
bool finish_cr(std::FILE* fp) {
  const int next = getc_unlocked(fp);
  if (next == EOF) return true;
  if (next != '\n') ungetc(next, fp);
  return false;
}

bool read_line_locked(std::FILE* fp, std::string& line) {
  int c = getc_unlocked(fp);
  if (c == EOF) return false;
  if (c == '\r') {
    if (finish_cr(fp)) return false;  // a lone CR at the very end is no line
    line.clear();
    return true;
  }
  line.clear();
  char chunk[1024];
  std::size_t n = 0;
  while (c != EOF && c != '\n' && c != '\r') {
    if (n == sizeof chunk) {
      line.append(chunk, n);
      n = 0;
    }
    chunk[n++] = static_cast<char>(c);
    c = getc_unlocked(fp);
  }
  line.append(chunk, n);
  if (c == '\r') finish_cr(fp);
  return true;
}

}  // namespace

bool read_line(std::FILE* fp, std::string& line) {
  flockfile(fp);
  const bool delivered = read_line_locked(fp, line);
  funlockfile(fp);
  return delivered;
}

}  // namespace tarn
