#pragma once
// Result files are written whole or not at all: under a temporary name in the
// same directory, synced, and renamed into place once complete. A run killed
// at any moment leaves each result file complete or absent, never truncated.
//
// The files of one result set are staged together (StagedSet) and put in
// place only when all of them are written, the summary file last, so that a
// set whose summary exists is whole and comes from one run.

#include <cstdio>
#include <string>
#include <vector>

namespace tarn {

struct OutputFile {
  std::FILE* fp = nullptr;
  std::string final_name;
  std::string temp_name;
};

// The finished temporaries of one result set. The file staged last is the
// set's summary: publish() removes the older summary first and renames the
// new one last. Temporaries not published are removed with the object.
class StagedSet {
 public:
  StagedSet() = default;
  StagedSet(const StagedSet&) = delete;
  StagedSet& operator=(const StagedSet&) = delete;
  ~StagedSet() { discard(); }

  void add(std::string temp_name, std::string final_name);
  // Puts every staged file in place in staging order, the summary after a
  // sync of the directory, and syncs the directory again. A failure ends the
  // process with "ERROR: Failed to write file: %s".
  void publish();
  // Removes the temporaries not yet published.
  void discard();

 private:
  struct Staged {
    std::string temp_name;
    std::string final_name;
  };
  std::vector<Staged> files_;
};

// Creates the temporary file beside name. Returns false, with nothing
// created, when that is impossible (the directory is missing or read-only).
bool OutputFile_open(OutputFile* file, const char* name);

// The directory part of path with its trailing '/', or "" for none.
std::string OutputFile_directory_of(const std::string& path);

// Creates an empty hidden temporary file in dir ("" or ending in '/') and
// returns its descriptor, or -1 with errno set.
int OutputFile_create_temp(const std::string& dir, std::string* temp_name);

// Flushes, syncs and closes the stream. With no set, renames the file into
// place at once and syncs its directory; with a set, hands the temporary to
// it for publish(). A failed write, sync, close or rename (a full disk, a
// file size limit) ends the process with "ERROR: Failed to write file: %s",
// leaving no temporary of the file or of the set behind.
void OutputFile_commit(OutputFile* file, StagedSet* set = nullptr);

// A file shared by all sets (the observed data), renamed into place at once
// while set is being written; a failure also removes the set's temporaries.
void OutputFile_commit_beside(OutputFile* file, StagedSet* set);

// Removes the set's temporaries, if there is a set, and ends the process with
// the line words followed by file_name.
[[noreturn]] void OutputFile_fail(StagedSet* set, const char* words, const char* file_name = "");

}  // namespace tarn
