#include <strings.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "data/SSMData.h"
#include "data/Str_readline.h"
#include "data/convert.h"
#include "log.h"

namespace {

// Every replicate keeps a slot for each time point up to the largest label,
// and the filter a state for each: a larger grid cannot be worked on.
constexpr int kMaxTimeLabel = 10000000;
// The replicate-by-time table of columns holds a slot for every pair: a few
// hundred replicate labels and one large time label must not make it
// gigabytes long (512 MiB of ints at most).
constexpr long long kMaxGridSlots = 1LL << 27;

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

// Strips blanks from both ends of [b, e) and returns it as a string.
std::string strip(const char* b, const char* e) {
  while (b < e && is_blank(*b)) ++b;
  while (e > b && is_blank(e[-1])) --e;
  return std::string(b, e);
}

struct TableReader {
  std::string primary_key = "time";
  std::string secondary_key = "replicate";
  std::vector<int> time_labels;
  std::vector<int> replicate_labels;
  std::vector<int> distinct_labels;  // in order of first appearance
  std::unordered_set<int> distinct_seen;
  std::vector<double> cells;  // file order: row by row
  int rows = 0;
  int line_no = 0;
  int state = 0;  // 0 before any header, 1 in the header, 2 in the data

  void add_replicate_label(int label) {
    replicate_labels.push_back(label);
    if (distinct_seen.insert(label).second) distinct_labels.push_back(label);
  }

  void meta_line(const char* start) {
    const char* tab = std::strchr(start, '\t');
    if (tab == nullptr) {
      std::fprintf(TARN_ERR, "WARNING: Broken meta data line found. Skip...\n");
      return;
    }
    const std::string key = strip(start, tab);
    const std::string value = strip(tab + 1, tab + std::strlen(tab));
    if (strcasecmp(key.c_str(), "$primarykeygroupid") == 0) {
      primary_key = value;
      std::fprintf(TARN_ERR, "  $PrimaryKeyGroupID: \"%s\"\n", value.c_str());
    } else if (strcasecmp(key.c_str(), "$secondarykeygroupid") == 0) {
      secondary_key = value;
      std::fprintf(TARN_ERR, "  $SecondaryPrimaryKeyGroupID: \"%s\"\n", value.c_str());
    } else {
      std::fprintf(TARN_ERR, "WARNING: Unsupported meta data key: %s\n", key.c_str());
    }
  }

  void header_line(const char* start) {
    const char* tab = std::strchr(start, '\t');
    if (tab == nullptr) {
      tarn_fatal("ERROR: Header line without a tab: line %d\n", line_no);
    }
    const std::string name = strip(start, tab);
    if (name.empty() || name[0] != '@') return;
    const char* key = name.c_str() + 1;
    std::vector<int>* labels = nullptr;
    const std::vector<int>* other = nullptr;
    if (strcasecmp(key, primary_key.c_str()) == 0) {
      labels = &time_labels;
      other = &replicate_labels;
    } else if (strcasecmp(key, secondary_key.c_str()) == 0) {
      labels = &replicate_labels;
      other = &time_labels;
    } else {
      return;
    }
    for (const char* t = tab; t != nullptr; t = std::strchr(t + 1, '\t')) {
      const int label = tarn_atoi(t + 1);
      if (labels == &time_labels) {
        time_labels.push_back(label);
      } else {
        add_replicate_label(label);
      }
    }
    if (!other->empty() && other->size() != labels->size()) {
      tarn_fatal("ERROR: Inconsistent number of columns: line %d\n", line_no);
    }
  }

  void first_data_row(const char* start) {
    state = 2;
    if (replicate_labels.empty()) {
      replicate_labels.assign(time_labels.size(), 1);
      distinct_labels.assign(1, 1);
      distinct_seen = {1};
    }
    data_row(start);
  }

  void data_row(const char* start) {
    ++rows;
    std::size_t n = 0;
    for (const char* t = std::strchr(start, '\t'); t != nullptr; t = std::strchr(t + 1, '\t')) {
      char* end = nullptr;
      const double v = std::strtod(t + 1, &end);
      if (end == t + 1) {
        tarn_fatal("ERROR: Unrecognizable character found at line %d\n", line_no);
      }
      cells.push_back(v);
      ++n;
    }
    if (n != time_labels.size()) {
      std::fprintf(TARN_ERR, "ERROR: Inconsistent number of columns: line %d\n", line_no);
      tarn_fatal("     :   %d (previous) vs %d (now).\n", static_cast<int>(time_labels.size()),
                 static_cast<int>(n));
    }
  }

  void line(std::string& text) {
    if (!text.empty() && text[0] == '#') return;
    std::size_t b = 0;
    while (b < text.size() && is_blank(text[b])) ++b;
    std::size_t e = text.size();
    while (e > b && is_blank(text[e - 1])) --e;
    text.resize(e);
    const char* start = text.c_str() + b;
    const char c = *start;
    if (state == 0 && c == '@') {
      state = 1;
      header_line(start);
    } else if (state == 0 && c == '$') {
      meta_line(start);
    } else if (state == 1 && (c == '@' || c == '$')) {
      header_line(start);
    } else if (state != 2) {
      first_data_row(start);
    } else {
      data_row(start);
    }
  }

  void check_labels() const {
    if (replicate_labels.size() != time_labels.size()) {
      if (replicate_labels.empty()) {
        tarn_fatal(
            "ERROR: The columns have no replicate labels: the input has a time line but neither "
            "a replicate line nor data rows.\n");
      }
      tarn_fatal(
          "ERROR: The columns have no time labels: the input has a replicate line but neither a "
          "time line nor data rows.\n");
    }
    for (const int t : time_labels) {
      if (t < 1) tarn_fatal("ERROR: Time label out of range: %d (time labels count from 1).\n", t);
      if (t > kMaxTimeLabel) {
        tarn_fatal("ERROR: Time label out of range: %d (at most %d time points).\n", t,
                   kMaxTimeLabel);
      }
    }
    for (const int r : replicate_labels) {
      if (r < 0) tarn_fatal("ERROR: Negative replicate label: %d.\n", r);
    }
  }

  std::unique_ptr<SSMData> finish() const {
    auto data = std::make_unique<SSMData>();
    data->p = rows;
    data->n_replicates = static_cast<int>(distinct_labels.size());
    data->n_samples = static_cast<int>(time_labels.size());
    int T = -2147483647;
    for (const int t : time_labels) T = std::max(T, t);
    data->T = T;
    const std::size_t p = static_cast<std::size_t>(data->p);
    const std::size_t n_samples = static_cast<std::size_t>(data->n_samples);
    if (p * n_samples != cells.size()) tarn_fatal("ERROR: Input file broken.\n");
    check_labels();
    if (static_cast<long long>(distinct_labels.size()) * T > kMaxGridSlots) {
      tarn_fatal("ERROR: Too many replicates and time points: %d x %d (at most %lld pairs).\n",
                 data->n_replicates, T, kMaxGridSlots);
    }

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

    data->Y.resize(p * n_samples);
    std::vector<std::size_t> list_end(n_samples);
    std::vector<int>& lists = data->missing_block;
    for (std::size_t s = 0; s < n_samples; ++s) {
      const int r = replicate_index.at(replicate_labels[s]);
      data->sample_at[static_cast<std::size_t>(r)][time_labels[s] - 1] = static_cast<int>(s);
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
    return data;
  }
};

}  // namespace

std::unique_ptr<SSMData> read_file(const char* file_name) {
  // A named file is closed also when a fatal error unwinds through the reader
  // (tarn_fatal_hook); standard input stays open.
  const auto close_named = [](std::FILE* f) {
    if (f != stdin) std::fclose(f);
  };
  std::unique_ptr<std::FILE, decltype(close_named)> fp(stdin, close_named);
  if (file_name == nullptr) {
    std::fprintf(TARN_ERR, "Reading input data from the standard input.\n");
  } else {
    std::fprintf(TARN_ERR, "Reading input data file: %s\n", file_name);
    std::FILE* named = std::fopen(file_name, "r");
    if (named == nullptr) tarn_fatal("ERROR: Cannot open file: %s\n", file_name);
    fp.reset(named);
  }
  TableReader reader;
  std::string text;
  while (Str_readline(fp.get(), text) == 0) {
    ++reader.line_no;
    reader.line(text);
  }
  fp.reset();
  return reader.finish();
}

void SSMData_print_summary(const SSMData* data) {
  std::fprintf(TARN_ERR, "--- INPUT DATA ---------\n");
  std::fprintf(TARN_ERR, " observed samples = %d\n", data->n_samples);
  std::fprintf(TARN_ERR, " objects = %d\n", data->p);
  std::fprintf(TARN_ERR, " time points = %d\n", data->T);
  std::fprintf(TARN_ERR, " replicates = %d\n", data->n_replicates);
  std::fprintf(TARN_ERR, "------------------------\n");
}

void SSMData_require_samples(const SSMData* data) {
  if (data->p < 1 || data->n_samples < 1) {
    tarn_fatal("ERROR: The input data has no objects or no samples.\n");
  }
}
