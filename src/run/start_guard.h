#pragma once
// Under unlimited retries a start whose attempts can never succeed would run
// for ever. Until some start of the run has succeeded, kMaxFailuresInARow
// failed attempts of one start end the run instead. One guard serves the
// whole run, on every thread; it also tells the threads of a run that has
// failed to stop.

#include <atomic>
#include <string>

namespace tarn {

class StartGuard {
 public:
  // A start that fails this many times in a row before any start of the run
  // succeeded is taken as one that cannot succeed (see the README).
  static constexpr int kMaxFailuresInARow = 100;

  explicit StartGuard(int retry) : unlimited_(retry < 0) {}

  void note_success() { any_success_.store(true, std::memory_order_relaxed); }

  bool gives_up(int failures_in_a_row) const {
    return unlimited_ && failures_in_a_row >= kMaxFailuresInARow &&
           !any_success_.load(std::memory_order_relaxed);
  }

  // The error that ends the run, for a start of dimension k.
  static std::string message(int k);

  // The run has failed: no thread starts or reports anything more.
  void stop() { stopped_.store(true, std::memory_order_relaxed); }
  bool stopped() const { return stopped_.load(std::memory_order_relaxed); }

 private:
  bool unlimited_;
  std::atomic<bool> any_success_{false};
  std::atomic<bool> stopped_{false};
};

}  // namespace tarn
