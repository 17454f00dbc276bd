#include "io/read_errors.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "io/memory_budget.h"

namespace tarn::read_error {

namespace {

Status failure(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

Status failure(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int length = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string message(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
  std::vsnprintf(message.data(), message.size() + 1, fmt, again);
  va_end(again);
  return Status::error(std::move(message));
}

}  // namespace

Status cannot_open(const char* file_name) {
  return failure("ERROR: Cannot open file: %s", file_name);
}

Status label_too_large(int line, std::size_t column, const std::string& cell) {
  return failure("ERROR: Label too large for an integer at line %d, column %zu: \"%s\".", line,
                 column, cell.c_str());
}

Status header_without_tab(int line) {
  return failure("ERROR: Header line without a tab: line %d", line);
}

Status header_columns(int line) {
  return failure("ERROR: Inconsistent number of columns: line %d", line);
}

Status unrecognizable_cell(int line) {
  return failure("ERROR: Unrecognizable character found at line %d", line);
}

Status row_columns(int line, int previous, int now) {
  return failure(
      "ERROR: Inconsistent number of columns: line %d\n     :   %d (previous) vs %d (now).", line,
      previous, now);
}

Status no_replicate_labels() {
  return failure(
      "ERROR: The columns have no replicate labels: the input has a time line but neither a "
      "replicate line nor data rows.");
}

Status no_time_labels() {
  return failure(
      "ERROR: The columns have no time labels: the input has a replicate line but neither a time "
      "line nor data rows.");
}

Status time_label_out_of_range(int label) {
  return failure("ERROR: Time label out of range: %d (time labels count from 1).", label);
}

Status negative_replicate_label(int label) {
  return failure("ERROR: Negative replicate label: %d.", label);
}

Status grid_too_large(double need_bytes, int p, int T, std::size_t replicates, double limit_bytes) {
  return failure(
      "ERROR: The job needs about %s of memory (%d objects, %d time points in %zu replicates), "
      "more than the %s this run may use: number the time points 1, 2, 3, ..., or use a smaller "
      "-d or fewer --threads.",
      format_bytes(need_bytes).c_str(), p, T, replicates, format_bytes(limit_bytes).c_str());
}

Status table_broken() {
  return failure("ERROR: Input file broken.");
}

Status no_samples() {
  return failure("ERROR: The input data has no objects or no samples.");
}

Status model_parameters() {
  return failure("ERROR: Failed to read the SSM parameters.");
}

Status model_too_large(int p, int k, double need_bytes, double limit_bytes) {
  return failure(
      "ERROR: SSM dimensions too large: p = %d, dim = %d (the model needs at least %s of memory, "
      "more than the %s this run may use).",
      p, k, format_bytes(need_bytes).c_str(), format_bytes(limit_bytes).c_str());
}

Status model_ends_early(int line, const char* block) {
  return failure("ERROR: SSM model file, line %d: the file ends before block %s is complete.", line,
                 block);
}

Status model_line_unexpected(int line, const char* expected, const char* block,
                             const std::string& shown) {
  return failure("ERROR: SSM model file, line %d: %s %s expected, found \"%s\".", line, expected,
                 block, shown.c_str());
}

Status model_not_a_number(int line, const char* block, int column, const std::string& shown) {
  return failure("ERROR: SSM model file, line %d: not a number in block %s, column %d: \"%s\".",
                 line, block, column, shown.c_str());
}

Status model_too_few_cells(int line, const char* block, int cells, int columns) {
  return failure("ERROR: SSM model file, line %d: too few cells in block %s: %d of %d.", line,
                 block, cells, columns);
}

Status model_not_usable(const char* block, int line, int column, double value) {
  const std::string at_column = column > 0 ? ", column " + std::to_string(column) : "";
  return failure("ERROR: The SSM model is not usable: %s at line %d%s is %g%s.", block, line,
                 at_column.c_str(), value,
                 std::isfinite(value) ? " (variances must be positive)" : "");
}

}  // namespace tarn::read_error
