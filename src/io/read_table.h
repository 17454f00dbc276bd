#pragma once
// The reader of the input table, with the summary and the labels of objects
// that messages give.

#include <cstdio>
#include <memory>
#include <string>

#include "core/data_set.h"
#include "io/memory_budget.h"
#include "io/status.h"

namespace tarn {

// What reading may take: the memory the run may use, and the bytes that each
// time point of the table adds to the run beyond the table (its filters'
// tables).
struct ReadBudget {
  double memory_bytes = memory_limit_bytes();
  double bytes_per_time_point = 0.0;
};

// Reads the table from fp, which is left open. Meta-data lines are reported on
// the log as they are read. Fails on malformed input, and on a time grid that
// does not fit the budget, before allocating it.
Result<std::unique_ptr<DataSet>> read_table(std::FILE* fp, std::FILE* log,
                                            const ReadBudget& budget = {});

// Names the input on the log and reads it from the named file, or from
// standard input for null.
Result<std::unique_ptr<DataSet>> read_table_file(const char* file_name, std::FILE* log,
                                                 const ReadBudget& budget = {});

// Writes the "--- INPUT DATA ---" report to the log.
void print_table_summary(const DataSet& data, std::FILE* log);

// Fails when the table has no object or no sample to work on.
Status check_samples(const DataSet& data);

// "name (line n)" of object i, for messages.
std::string object_label(const DataSet& data, int i);

}  // namespace tarn
