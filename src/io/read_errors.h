#pragma once
// The errors of the input table and model file readers, all their texts in
// one place. Each gives the failed Status with the message as printed.

#include <cstddef>
#include <string>

#include "io/status.h"

namespace tarn::read_error {

// Either file.
Status cannot_open(const char* file_name);

// The input table.
Status label_too_large(int line, std::size_t column, const std::string& cell);
Status header_without_tab(int line);
Status header_columns(int line);
Status unrecognizable_cell(int line);
Status row_columns(int line, int previous, int now);
Status no_replicate_labels();
Status no_time_labels();
Status time_label_out_of_range(int label);
Status negative_replicate_label(int label);
Status grid_too_large(double need_bytes, int p, int T, std::size_t replicates, double limit_bytes);
Status table_broken();
Status no_samples();

// The model file. shown is the text of a line or a cell, as the message gives it.
Status model_parameters();
Status model_too_large(int p, int k, double need_bytes, double limit_bytes);
Status model_ends_early(int line, const char* block);
Status model_line_unexpected(int line, const char* expected, const char* block,
                             const std::string& shown);
Status model_not_a_number(int line, const char* block, int column, const std::string& shown);
Status model_too_few_cells(int line, const char* block, int cells, int columns);
// column is 0 for a block of one column, which the message does not name.
Status model_not_usable(const char* block, int line, int column, double value);

}  // namespace tarn::read_error
