#pragma once
// A stream in memory: log lines gathered while a piece of work runs, to be
// printed together once it is done.

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

namespace tarn {

class LogBuffer {
 public:
  LogBuffer() : stream_(open_memstream(&text_, &size_)) {
    if (stream_ == nullptr) throw std::bad_alloc();
  }
  ~LogBuffer() {
    if (stream_ != nullptr) std::fclose(stream_);
    std::free(text_);
  }
  LogBuffer(const LogBuffer&) = delete;
  LogBuffer& operator=(const LogBuffer&) = delete;

  std::FILE* stream() const { return stream_; }
  // Closes the stream and returns what was written to it.
  std::string take() {
    std::fclose(stream_);
    stream_ = nullptr;
    return std::string(text_, size_);
  }

 private:
  char* text_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* stream_;
};

}  // namespace tarn
