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

#include "io/status.h"

namespace tarn {

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
  // sync of the directory, and syncs the directory again. Fails with
  // "ERROR: Failed to write file: NAME"; the temporaries go with the object.
  Status publish();
  // Removes the temporaries not yet published.
  void discard();

 private:
  struct Staged {
    std::string temp_name;
    std::string final_name;
  };
  std::vector<Staged> files_;
};

// One file being written under its temporary name. Dropped unfinished, it is
// closed and its temporary removed.
class OutputFile {
 public:
  OutputFile() = default;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // Creates the temporary beside name. Returns false, with nothing created,
  // when that is impossible (the directory is missing or read-only).
  bool open(const std::string& name);

  std::FILE* stream() const { return fp_; }

  // Flushes, syncs and closes the stream. With no set, renames the file into
  // place at once and syncs its directory; with a set, hands the temporary to
  // it for publish(). A failed write, sync, close or rename (a full disk, a
  // file size limit) fails with "ERROR: Failed to write file: NAME", leaving
  // no temporary of the file behind.
  Status commit(StagedSet* set);

  // For a file shared by all sets (the observed data): renamed into place at
  // once even while a set is being written.
  Status commit_at_once();

 private:
  Status finish();
  Status place();

  std::FILE* fp_ = nullptr;
  std::string final_name_;
  std::string temp_name_;
};

// The directory part of path with its trailing '/', or "" for none.
std::string directory_of(const std::string& path);

// Creates an empty hidden temporary file in dir ("" or ending in '/') and
// returns its descriptor, or -1 with errno set.
int create_temp_file(const std::string& dir, std::string* temp_name);

}  // namespace tarn
