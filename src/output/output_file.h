#pragma once
// Result files are written whole or not at all: under a temporary name in the
// same directory, renamed into place once complete. A run killed at any moment
// leaves each result file complete or absent, never truncated.

#include <cstdio>
#include <string>

struct OutputFile {
  std::FILE* fp = nullptr;
  std::string final_name;
  std::string temp_name;
};

// Creates the temporary file beside name. Returns false, with nothing
// created, when that is impossible (the directory is missing or read-only).
bool OutputFile_open(OutputFile* file, const char* name);

// Flushes and closes the stream and renames the file into place. A failed
// write, close or rename (a full disk) ends the process with
// "ERROR: Failed to write file: %s", leaving no file under the final name.
void OutputFile_commit(OutputFile* file);
