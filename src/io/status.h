#pragma once
// What a reader returns: success, or an error with the message that main
// prints to the log before it ends the run. Result<T> holds either a value or
// such an error.

#include <optional>
#include <string>
#include <utility>

namespace tarn {

class Status {
 public:
  // Success.
  Status() = default;

  // A failure; message is the text to print, without the final newline.
  static Status error(std::string message) {
    Status status;
    status.failed_ = true;
    status.message_ = std::move(message);
    return status;
  }

  bool ok() const { return !failed_; }
  const std::string& message() const { return message_; }

 private:
  bool failed_ = false;
  std::string message_;
};

template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  // error must be a failure.
  Result(Status error) : status_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return status_.ok(); }
  const Status& status() const { return status_; }

  // The value; only when ok().
  T& value() { return *value_; }
  const T& value() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }

 private:
  Status status_;
  std::optional<T> value_;
};

}  // namespace tarn
