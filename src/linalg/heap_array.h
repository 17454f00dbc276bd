#pragma once
// An owned, zero-filled heap array; a size too large for memory throws
// std::bad_alloc.

#include <cstddef>
#include <memory>

namespace tarn {

template <typename T>
class HeapArray {
 public:
  HeapArray() = default;
  explicit HeapArray(std::size_t n) : data_(n > 0 ? std::make_unique<T[]>(n) : nullptr), size_(n) {}

  T* get() const { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  std::unique_ptr<T[]> data_;
  std::size_t size_ = 0;
};

// Element count of a k x k (or p x k ...) array; negative factors count as 0.
// A count too large for memory saturates, so that its allocation fails cleanly.
inline std::size_t array_size(long long a, long long b = 1, long long c = 1, long long d = 1) {
  if (a <= 0 || b <= 0 || c <= 0 || d <= 0) return 0;
  constexpr long long kLimit = 1LL << 60;
  long long n = a;
  for (const long long f : {b, c, d}) {
    if (n > kLimit / f) return static_cast<std::size_t>(kLimit);
    n *= f;
  }
  return static_cast<std::size_t>(n);
}

}  // namespace tarn
