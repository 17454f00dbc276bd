#include "io/read_table.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "io/memory_budget.h"
#include "io/read_errors.h"
#include "io/read_line.h"

namespace tarn {

namespace {

// A largest time label this many times the number of distinct labels, and
// above kSparseGridFloor, makes a grid of mostly empty time points: years
// (1960 .. 2013) used as labels, say. Designs such as 1, 2, 4, 8, 24 stay
// below it.
constexpr int kSparseGridRatio = 10;
constexpr int kSparseGridFloor = 100;
// Row names kept per object for messages; longer names are cut.
constexpr std::size_t kMaxNameLength = 200;

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

// Strips blanks from both ends of [b, e) and returns it as a string.
std::string strip(const char* b, const char* e) {
  while (b < e && is_blank(*b)) ++b;
  while (e > b && is_blank(e[-1])) --e;
  return std::string(b, e);
}

// The text of the cell that begins at b: up to the next tab or the line's end.
std::string cell_text(const char* b) {
  const char* e = std::strchr(b, '\t');
  return e == nullptr ? std::string(b) : std::string(b, e);
}

// True when nothing but spaces stands from b to the next tab or the line's end.
bool blank_to_tab(const char* b) {
  while (*b == ' ') ++b;
  return *b == '\t' || *b == '\0';
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  out += text;
  out += '"';
  return out;
}

std::string shown(double v) {
  char text[40];
  std::snprintf(text, sizeof text, "%.15g", v);
  return text;
}

// One kind of doubtful reading: how often it happened and where it did first.
struct Tally {
  long long count = 0;
  std::string first;  // "line L, column C: ..."

  // what() tells what was read; it is asked for the first occurrence only.
  template <typename What>
  void note(int line, std::size_t column, What what) {
    if (count++ == 0) {
      first = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
      first += what();
    }
  }
};

// "1 cell" / "3 cells".
std::string counted(long long n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

struct TableReader {
  explicit TableReader(std::FILE* log_stream) : log(log_stream) {}
  std::FILE* log;
  std::string primary_key = "time";
  std::string secondary_key = "replicate";
  std::vector<int> time_labels;
  std::vector<int> replicate_labels;
  std::vector<int> distinct_labels;  // in order of first appearance
  std::unordered_set<int> distinct_seen;
  std::vector<double> cells;  // file order: row by row
  std::vector<std::string> names;
  std::vector<int> row_lines;
  int rows = 0;
  int line_no = 0;
  int time_line = 0;  // first line with time labels
  int state = 0;      // 0 before any header, 1 in the header, 2 in the data

  Tally empty_cells, trailing_text, odd_time_labels, odd_replicate_labels, unfit_cells;

  void add_replicate_label(int label) {
    replicate_labels.push_back(label);
    if (distinct_seen.insert(label).second) distinct_labels.push_back(label);
  }

  void meta_line(const char* start) {
    const char* tab = std::strchr(start, '\t');
    if (tab == nullptr) {
      std::fprintf(log, "WARNING: Broken meta data line found. Skip...\n");
      return;
    }
    const std::string key = strip(start, tab);
    const std::string value = strip(tab + 1, tab + std::strlen(tab));
    if (strcasecmp(key.c_str(), "$primarykeygroupid") == 0) {
      primary_key = value;
      std::fprintf(log, "  $PrimaryKeyGroupID: \"%s\"\n", value.c_str());
    } else if (strcasecmp(key.c_str(), "$secondarykeygroupid") == 0) {
      secondary_key = value;
      std::fprintf(log, "  $SecondaryPrimaryKeyGroupID: \"%s\"\n", value.c_str());
    } else {
      std::fprintf(log, "WARNING: Unsupported meta data key: %s\n", key.c_str());
    }
  }

  // One label as atoi reads it; a value beyond int is refused, and a cell
  // that is empty (atoi then reads the next one) or not a whole number is
  // noted.
  Result<int> read_label(const char* b, std::size_t column, Tally* odd) {
    errno = 0;
    const long long v = std::strtoll(b, nullptr, 10);
    if (errno == ERANGE || v > INT_MAX || v < INT_MIN) {
      // Where the number stands: atoi skips blanks and tabs before it.
      const char* at = b;
      for (; *at == ' ' || *at == '\t'; ++at) column += *at == '\t' ? 1 : 0;
      return read_error::label_too_large(line_no, column, cell_text(at));
    }
    const int label = static_cast<int>(v);
    const std::string text = cell_text(b);
    char* end = nullptr;
    const double as_number = std::strtod(text.c_str(), &end);
    const bool whole = !blank_to_tab(b) && blank_to_tab(end) && as_number == label;
    if (!whole) {
      odd->note(line_no, column,
                [&] { return quoted(text) + " read as " + std::to_string(label); });
    }
    return label;
  }

  Status header_line(const char* start) {
    const char* tab = std::strchr(start, '\t');
    if (tab == nullptr) return read_error::header_without_tab(line_no);
    const std::string name = strip(start, tab);
    if (name.empty() || name[0] != '@') return {};
    const char* key = name.c_str() + 1;
    const bool is_time = strcasecmp(key, primary_key.c_str()) == 0;
    if (!is_time && strcasecmp(key, secondary_key.c_str()) != 0) return {};
    if (is_time && time_line == 0) time_line = line_no;
    Tally* odd = is_time ? &odd_time_labels : &odd_replicate_labels;
    std::size_t column = 1;
    for (const char* t = tab; t != nullptr; t = std::strchr(t + 1, '\t')) {
      const Result<int> label = read_label(t + 1, ++column, odd);
      if (!label.ok()) return label.status();
      if (is_time) {
        time_labels.push_back(label.value());
      } else {
        add_replicate_label(label.value());
      }
    }
    const std::vector<int>& labels = is_time ? time_labels : replicate_labels;
    const std::vector<int>& other = is_time ? replicate_labels : time_labels;
    if (!other.empty() && other.size() != labels.size()) {
      return read_error::header_columns(line_no);
    }
    return {};
  }

  Status first_data_row(const char* start) {
    state = 2;
    if (replicate_labels.empty()) {
      replicate_labels.assign(time_labels.size(), 1);
      distinct_labels.assign(1, 1);
      distinct_seen = {1};
    }
    return data_row(start);
  }

  // One cell as strtod reads it, or nothing where no number begins; an empty
  // cell (which takes the next cell's number) and text after the number are
  // noted.
  std::optional<double> read_cell(const char* b, std::size_t column) {
    char* end = nullptr;
    const double v = std::strtod(b, &end);
    if (end == b) return std::nullopt;
    if (!std::isnan(v) && !(std::isfinite(v) && std::isfinite(v * v))) {
      unfit_cells.note(line_no, column, [v] { return "read as " + shown(v); });
    }
    if (blank_to_tab(b)) {
      empty_cells.note(line_no, column, [v] { return "read as " + shown(v); });
    } else if (!blank_to_tab(end)) {
      trailing_text.note(line_no, column,
                         [b, v] { return quoted(cell_text(b)) + " read as " + shown(v); });
    }
    return v;
  }

  Status data_row(const char* start) {
    ++rows;
    row_lines.push_back(line_no);
    const char* name_end = std::strchr(start, '\t');
    const std::size_t name_length = name_end == nullptr ? std::strlen(start) : name_end - start;
    names.emplace_back(start, std::min(name_length, kMaxNameLength));
    std::size_t n = 0;
    for (const char* t = name_end; t != nullptr; t = std::strchr(t + 1, '\t')) {
      const std::optional<double> v = read_cell(t + 1, n + 2);
      if (!v) return read_error::unrecognizable_cell(line_no);
      cells.push_back(*v);
      ++n;
    }
    if (n != time_labels.size()) {
      return read_error::row_columns(line_no, static_cast<int>(time_labels.size()),
                                     static_cast<int>(n));
    }
    return {};
  }

  Status line(std::string& text) {
    if (!text.empty() && text[0] == '#') return {};
    std::size_t b = 0;
    while (b < text.size() && is_blank(text[b])) ++b;
    std::size_t e = text.size();
    while (e > b && is_blank(text[e - 1])) --e;
    text.resize(e);
    const char* start = text.c_str() + b;
    const char c = *start;
    if (state == 0 && c == '@') {
      state = 1;
      return header_line(start);
    }
    if (state == 0 && c == '$') {
      meta_line(start);
      return {};
    }
    if (state == 1 && (c == '@' || c == '$')) return header_line(start);
    if (state != 2) return first_data_row(start);
    return data_row(start);
  }

  Status check_labels() const {
    if (replicate_labels.size() != time_labels.size()) {
      return replicate_labels.empty() ? read_error::no_replicate_labels()
                                      : read_error::no_time_labels();
    }
    for (const int t : time_labels) {
      if (t < 1) return read_error::time_label_out_of_range(t);
    }
    for (const int r : replicate_labels) {
      if (r < 0) return read_error::negative_replicate_label(r);
    }
    return {};
  }

  // The replicate-by-time table holds a slot for every pair, and the filters
  // a state for every time point: a grid that cannot fit is refused before
  // anything is allocated for it.
  Status check_grid_fits(int T, int p, const ReadBudget& budget) const {
    const double slots = static_cast<double>(distinct_labels.size()) * T;
    const double data = 2.0 * static_cast<double>(cells.size()) * sizeof(double);
    const double need = slots * sizeof(int) + data + budget.bytes_per_time_point * T;
    const double limit = budget.memory_bytes;
    if (need > limit) {
      return read_error::grid_too_large(need, p, T, distinct_labels.size(), limit);
    }
    return {};
  }

  std::vector<std::string> doubts(const DataSet& data, const Tally& repeated_pairs) const {
    std::vector<std::string> out;
    if (empty_cells.count > 0) {
      out.push_back(counted(empty_cells.count, "empty cell takes", "empty cells take") +
                    " the number of the next cell (first at " + empty_cells.first +
                    "): write NaN for a missing value.");
    }
    if (trailing_text.count > 0) {
      out.push_back(counted(trailing_text.count, "cell has text after its number",
                            "cells have text after their number") +
                    ", which is ignored (first at " + trailing_text.first +
                    "): a decimal comma is not understood, write 1.5 for 1,5.");
    }
    for (const auto& [odd, which] :
         {std::pair{&odd_time_labels, "time"}, std::pair{&odd_replicate_labels, "replicate"}}) {
      if (odd->count > 0) {
        out.push_back(
            std::to_string(odd->count) + " " + which +
            (odd->count == 1 ? " label is not a whole number" : " labels are not whole numbers") +
            " (first at " + odd->first + "): labels are integers.");
      }
    }
    if (repeated_pairs.count > 0) {
      out.push_back(counted(repeated_pairs.count, "column repeats", "columns repeat") +
                    " the (replicate, time) pair of an earlier column (first at " +
                    repeated_pairs.first +
                    "): the filter uses the last column of a pair while every column counts as a "
                    "sample; give each pair one column.");
    }
    std::unordered_set<int> distinct_times(time_labels.begin(), time_labels.end());
    const long long n_times = static_cast<long long>(distinct_times.size());
    if (data.T > kSparseGridFloor && data.T > kSparseGridRatio * n_times) {
      out.push_back("The largest time label is " + std::to_string(data.T) + " (line " +
                    std::to_string(time_line) + ") for " + std::to_string(n_times) +
                    " distinct time labels: every replicate is filtered over " +
                    std::to_string(data.T) +
                    " time points, most of them without data. Number the time points 1, 2, 3, "
                    "... unless the gaps are meant.");
    }
    return out;
  }

  Result<std::unique_ptr<DataSet>> finish(const ReadBudget& budget) const {
    auto data = std::make_unique<DataSet>();
    data->p = rows;
    data->n_replicates = static_cast<int>(distinct_labels.size());
    data->n_samples = static_cast<int>(time_labels.size());
    int T = -2147483647;
    for (const int t : time_labels) T = std::max(T, t);
    data->T = T;
    const std::size_t p = static_cast<std::size_t>(data->p);
    const std::size_t n_samples = static_cast<std::size_t>(data->n_samples);
    if (p * n_samples != cells.size()) return read_error::table_broken();
    if (Status labels = check_labels(); !labels.ok()) return labels;
    if (Status fits = check_grid_fits(T, data->p, budget); !fits.ok()) return fits;

    std::unordered_map<int, int> replicate_index;
    for (std::size_t i = 0; i < distinct_labels.size(); ++i) {
      replicate_index.emplace(distinct_labels[i], static_cast<int>(i));
    }
    const std::size_t T_len = T > 0 ? static_cast<std::size_t>(T) : 0;
    data->sample_at_block.assign(distinct_labels.size() * T_len, -1);
    data->sample_at.resize(distinct_labels.size());
    for (std::size_t r = 0; r < distinct_labels.size(); ++r) {
      data->sample_at[r] = data->sample_at_block.data() + r * T_len;
    }

    Tally repeated_pairs;
    data->Y.resize(p * n_samples);
    std::vector<std::size_t> list_end(n_samples);
    std::vector<int>& lists = data->missing_block;
    for (std::size_t s = 0; s < n_samples; ++s) {
      const int r = replicate_index.at(replicate_labels[s]);
      int& slot = data->sample_at[static_cast<std::size_t>(r)][time_labels[s] - 1];
      if (slot != -1) {
        repeated_pairs.note(time_line, s + 2, [&] {
          return "replicate " + std::to_string(replicate_labels[s]) + ", time " +
                 std::to_string(time_labels[s]);
        });
      }
      slot = static_cast<int>(s);
      for (std::size_t i = 0; i < p; ++i) {
        const double v = cells[i * n_samples + s];
        if (std::isnan(v)) {
          lists.push_back(static_cast<int>(i));
          data->Y[i + s * p] = 0.0;
        } else {
          data->Y[i + s * p] = v;
        }
      }
      lists.push_back(-1);
      list_end[s] = lists.size();
    }
    lists.shrink_to_fit();
    data->missing.resize(n_samples);
    for (std::size_t s = 0; s < n_samples; ++s) {
      data->missing[s] = lists.data() + (s == 0 ? 0 : list_end[s - 1]);
    }
    data->names = names;
    data->lines = row_lines;
    data->doubts = doubts(*data, repeated_pairs);
    if (unfit_cells.count > 0) {
      data->unfit_cells = counted(unfit_cells.count, "cell is", "cells are") +
                          " not finite or too large to square in double precision (first at " +
                          unfit_cells.first +
                          "): every start fails on such a value. Remove these values, or "
                          "rescale the data.";
    }
    return data;
  }
};

}  // namespace

Result<std::unique_ptr<DataSet>> read_table(std::FILE* fp, std::FILE* log,
                                            const ReadBudget& budget) {
  TableReader reader(log);
  std::string text;
  while (read_line(fp, text)) {
    ++reader.line_no;
    if (Status read = reader.line(text); !read.ok()) return read;
  }
  return reader.finish(budget);
}

Result<std::unique_ptr<DataSet>> read_table_file(const char* file_name, std::FILE* log,
                                                 const ReadBudget& budget) {
  if (file_name == nullptr) {
    std::fprintf(log, "Reading input data from the standard input.\n");
    return read_table(stdin, log, budget);
  }
  std::fprintf(log, "Reading input data file: %s\n", file_name);
  std::FILE* fp = std::fopen(file_name, "r");
  if (fp == nullptr) return read_error::cannot_open(file_name);
  Result<std::unique_ptr<DataSet>> table = read_table(fp, log, budget);
  std::fclose(fp);
  return table;
}

void print_table_summary(const DataSet& data, std::FILE* log) {
  std::fprintf(log, "--- INPUT DATA ---------\n");
  std::fprintf(log, " observed samples = %d\n", data.n_samples);
  std::fprintf(log, " objects = %d\n", data.p);
  std::fprintf(log, " time points = %d\n", data.T);
  std::fprintf(log, " replicates = %d\n", data.n_replicates);
  std::fprintf(log, "------------------------\n");
}

Status check_samples(const DataSet& data) {
  if (data.p < 1 || data.n_samples < 1) return read_error::no_samples();
  return {};
}

std::string object_label(const DataSet& data, int i) {
  const auto at = static_cast<std::size_t>(i);
  if (at >= data.names.size() || at >= data.lines.size()) return "object " + std::to_string(i + 1);
  return "\"" + data.names[at] + "\" (line " + std::to_string(data.lines[at]) + ")";
}

}  // namespace tarn
