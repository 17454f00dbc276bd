#include "io/model_file.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "core/trajectory.h"
#include "core/workspace.h"
#include "io/convert.h"
#include "io/matrix_text.h"
#include "io/memory_budget.h"
#include "io/read_errors.h"
#include "io/read_line.h"

namespace tarn {

void write_model(const StateSpaceModel* ssm, int p, int k, std::FILE* fp) {
  std::fprintf(fp, "SSM_p_k\t1\t2\n%d\t%d\n\n", p, k);
  write_labelled_matrix(fp, "SSM::exp", ssm->initial_mean.data(), k, 1);
  write_labelled_matrix(fp, "SSM::var", ssm->initial_cov.data(), k, k);
  write_labelled_matrix(fp, "SSM::H", ssm->H.data(), p, k);
  write_labelled_matrix(fp, "SSM::R", ssm->R.data(), p, 1);
  write_labelled_matrix(fp, "SSM::F", ssm->F.data(), k, k);
  write_labelled_matrix(fp, "SSM::Q", ssm->Q.data(), k, 1);
}

namespace {

// Which elements of a block are variances, and so must be positive.
enum class Variances { kNone, kAll, kDiagonal };

// One block of the file: its label, its column-major array and its size.
struct Block {
  const char* label;
  double* A;
  int rows;
  int cols;
  Variances variances;
};

std::array<Block, 6> blocks_of(StateSpaceModel* ssm, int p, int k) {
  return {{{"SSM::exp", ssm->initial_mean.data(), k, 1, Variances::kNone},
           {"SSM::var", ssm->initial_cov.data(), k, k, Variances::kDiagonal},
           {"SSM::H", ssm->H.data(), p, k, Variances::kNone},
           {"SSM::R", ssm->R.data(), p, 1, Variances::kAll},
           {"SSM::F", ssm->F.data(), k, k, Variances::kNone},
           {"SSM::Q", ssm->Q.data(), k, 1, Variances::kAll}}};
}

// The stream with the line last read and its number, counted from 1.
struct LineReader {
  std::FILE* fp;
  std::string line;
  int number = 0;

  // False at the end of input, where line and number stay as they were.
  bool next() {
    if (!read_line(fp, line)) return false;
    ++number;
    return true;
  }
};

bool is_blank(std::string_view s) {
  return s.find_first_not_of(" \t") == std::string_view::npos;
}

// The number that fills a cell, blanks around it allowed. The cell must be
// followed by a tab or the end of the line's text, where strtod stops.
std::optional<double> number_in(std::string_view cell) {
  const std::size_t start = cell.find_first_not_of(' ');
  // strtod would skip any other white space, tabs too, into the next cell.
  if (start == std::string_view::npos || std::isspace(static_cast<unsigned char>(cell[start])))
    return std::nullopt;
  char* end = nullptr;
  const double v = std::strtod(cell.data() + start, &end);
  const auto used = static_cast<std::size_t>(end - cell.data());
  if (used == start || cell.find_first_not_of(' ', used) != std::string_view::npos)
    return std::nullopt;
  return v;
}

// Text of a line for a message: tabs and control bytes escaped, cut at 40 bytes.
std::string shown(std::string_view s) {
  constexpr std::size_t kMax = 40;
  std::string out;
  for (const char c : s.substr(0, kMax)) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '\t') {
      out += "\\t";
    } else if (u < 0x20 || u == 0x7f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", u);
      out += hex;
    } else {
      out += c;
    }
  }
  if (s.size() > kMax) out += "...";
  return out;
}

Status line_unexpected(const LineReader& in, const char* expected, const char* label) {
  return read_error::model_line_unexpected(in.number, expected, label, shown(in.line));
}

// Reads a line that the block still needs; fails at the end of input.
Status next_in_block(LineReader& in, const char* label) {
  if (!in.next()) return read_error::model_ends_early(in.number + 1, label);
  return {};
}

// A header is any line with text whose first cell is not a number.
Status read_header(LineReader& in, const char* label) {
  if (Status read = next_in_block(in, label); !read.ok()) return read;
  const std::string_view first = std::string_view(in.line).substr(0, in.line.find('\t'));
  if (is_blank(in.line) || number_in(first)) return line_unexpected(in, "header of block", label);
  return {};
}

// The first b.cols cells of the next line into row i; later cells are ignored.
// A row of no columns (k = 0) is whatever line stands there, empty as written.
Status read_row(LineReader& in, const Block& b, int i) {
  if (Status read = next_in_block(in, b.label); !read.ok()) return read;
  if (b.cols > 0 && is_blank(in.line)) return line_unexpected(in, "row of block", b.label);
  std::string_view rest = in.line;
  for (int j = 0; j < b.cols; ++j) {
    const std::size_t tab = rest.find('\t');
    const std::string_view cell = rest.substr(0, tab);
    const std::optional<double> v = number_in(cell);
    if (!v) return read_error::model_not_a_number(in.number, b.label, j + 1, shown(cell));
    b.A[i + static_cast<std::size_t>(j) * b.rows] = *v;
    if (j + 1 == b.cols) break;
    if (tab == std::string_view::npos) {
      return read_error::model_too_few_cells(in.number, b.label, j + 1, b.cols);
    }
    rest.remove_prefix(tab + 1);
  }
  return {};
}

// The empty line that ends a block; the last block's may be missing at the end.
Status read_block_end(LineReader& in, const char* label, bool last) {
  if (last && !in.next()) return {};
  if (!last) {
    if (Status read = next_in_block(in, label); !read.ok()) return read;
  }
  if (!is_blank(in.line)) return line_unexpected(in, "empty line after block", label);
  return {};
}

// Returns the line of the block's first row.
Result<int> read_block(LineReader& in, const Block& b, bool last) {
  if (Status header = read_header(in, b.label); !header.ok()) return header;
  const int first_row = in.number + 1;
  for (int i = 0; i < b.rows; ++i) {
    if (Status row = read_row(in, b, i); !row.ok()) return row;
  }
  if (Status end = read_block_end(in, b.label, last); !end.ok()) return end;
  return first_row;
}

// Line 1 unread, "p\tk" on line 2, and the empty line 3 that ends the pair.
Result<std::pair<int, int>> read_dimensions(LineReader& in, double memory_bytes) {
  in.next();
  if (!in.next() || in.line.empty()) return read_error::model_parameters();
  const int p = leading_int(in.line.c_str());
  const char* tab = std::strchr(in.line.c_str(), '\t');
  if (tab == nullptr) return read_error::model_parameters();
  const int k = leading_int(tab + 1);
  if (p < 0 || k < 0) return read_error::model_parameters();
  // The model, and the least that applying it takes (one state of the
  // filter's tables and the scratch), must fit before anything is allocated.
  const double need = model_bytes(p, k) + workspace_bytes(p, k, false) + trajectory_bytes(k, 0);
  if (need > memory_bytes) return read_error::model_too_large(p, k, need, memory_bytes);
  if (Status end = read_block_end(in, "SSM_p_k", false); !end.ok()) return end;
  return std::pair{p, k};
}

// Fails unless element (i, j) of b, which stands on the given line, is finite
// and, where it is a variance, positive.
Status check_value(const Block& b, int i, int j, int line) {
  const double v = b.A[i + static_cast<std::size_t>(j) * b.rows];
  const bool variance =
      b.variances == Variances::kAll || (b.variances == Variances::kDiagonal && i == j);
  if (std::isfinite(v) && (!variance || v > 0.0)) return {};
  return read_error::model_not_usable(b.label, line, b.cols > 1 ? j + 1 : 0, v);
}

}  // namespace

Result<StoredModel> read_model(std::FILE* fp, double memory_bytes) {
  LineReader in{fp, {}, 0};
  const Result<std::pair<int, int>> dimensions = read_dimensions(in, memory_bytes);
  if (!dimensions.ok()) return dimensions.status();
  StoredModel model;
  std::tie(model.p, model.k) = dimensions.value();
  model.ssm = std::make_unique<StateSpaceModel>(model.p, model.k);
  const auto blocks = blocks_of(model.ssm.get(), model.p, model.k);
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    const Result<int> first_row = read_block(in, blocks[b], b + 1 == blocks.size());
    if (!first_row.ok()) return first_row.status();
    model.lines.first_row[b] = first_row.value();
  }
  return model;
}

Result<StoredModel> read_model_file(const char* file_name, double memory_bytes) {
  std::FILE* fp = std::fopen(file_name, "r");
  if (fp == nullptr) return read_error::cannot_open(file_name);
  Result<StoredModel> model = read_model(fp, memory_bytes);
  std::fclose(fp);
  return model;
}

Status check_usable(const StoredModel& model) {
  const auto blocks = blocks_of(model.ssm.get(), model.p, model.k);
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    for (int i = 0; i < blocks[b].rows; ++i) {
      for (int j = 0; j < blocks[b].cols; ++j) {
        const Status value = check_value(blocks[b], i, j, model.lines.first_row[b] + i);
        if (!value.ok()) return value;
      }
    }
  }
  return {};
}

}  // namespace tarn
