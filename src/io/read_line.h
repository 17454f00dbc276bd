#pragma once

#include <cstdio>
#include <string>

namespace tarn {

// Reads one line, ended by LF, CR or CRLF (the ending is not stored), into
// line. Returns true when a line was delivered and false at the end of input,
// leaving line untouched then. A lone CR as the very last byte makes no line.
bool read_line(std::FILE* fp, std::string& line);

}  // namespace tarn
