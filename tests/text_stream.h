#pragma once
// In-memory text for the stream readers and writers under test.

#include <cstdio>
#include <string>

namespace tarn_test {

// A temporary stream holding bytes, positioned at its start.
inline std::FILE* stream_of(const std::string& bytes) {
  std::FILE* fp = std::tmpfile();
  std::fwrite(bytes.data(), 1, bytes.size(), fp);
  std::rewind(fp);
  return fp;
}

// Everything written to fp so far.
inline std::string text_of(std::FILE* fp) {
  std::rewind(fp);
  std::string text;
  for (int c = std::fgetc(fp); c != EOF; c = std::fgetc(fp)) text += static_cast<char>(c);
  return text;
}

}  // namespace tarn_test
