// Keeps the saved digests that a scan does not carry on by itself. The library removes the digest
// file when a run starts and at its end writes what the run has used. The keeper remembers what was
// saved, watches which files the scan meets, and puts back afterwards:
// - the digests of unchanged files that had nothing to be compared with this time;
// - unless the scan looked everywhere, those of files that it did not meet;
// - what further runs of the scan have saved, which see other devices, and what the tool computed.
//
// While the scan runs, a second name for the old digest file, with `.kept` behind it, holds what
// was saved; the first scan after one that was killed finds it.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "digest_file.h"

namespace tool {

class DigestKeeper {
 public:
  using Digest = std::array<uint8_t, 32>;

  // Reads what is saved for the roots. Whatever cannot be read is not kept, without a word: it
  // costs time in a later scan and nothing else. `library_takes_it`: a run of the library has the
  // same roots and removes the digest file; otherwise the keeper does.
  void open(const std::string &state, const std::vector<std::string> &roots, bool library_takes_it);

  // Notes that the scan met the file. For any thread.
  void meet(const struct stat &status);

  // Saves what is known of the device for a run of its own with these roots. Returns the directory
  // that is the state directory of that run, one apart: the same roots may well be scanned for
  // themselves at other times.
  std::string lend(const std::vector<std::string> &roots, dev_t device);

  // Takes back what that run has saved.
  void take_back(const std::vector<std::string> &roots);

  // Takes up what the run with all the roots has saved.
  void take_up();

  // The digest of a file with that time, as it was saved or computed meanwhile.
  std::optional<Digest> find(const struct stat &status) const;

  // Adds a digest to be saved.
  void add(const struct stat &status, const Digest &digest);

  // Completes the digest file after the scan. `looked_everywhere`: a file that was not met is gone.
  // Returns false when digests could not be written; they are kept under their second name then.
  bool close(bool looked_everywhere);

 private:
  enum class Mark : uint8_t { not_met, met, met_changed };

  void recover();
  void remember(SavedDigests digests);
  void take(const std::optional<SavedDigests> &digests);
  SavedDigests worth_keeping(SavedDigests present, bool looked_everywhere) const;
  bool complete(int fd, bool looked_everywhere) const;
  bool restore() const;

  std::string path_;    // of the digest file
  std::string kept_;    // its second name
  std::string runs_;    // the state directory of further runs
  SavedDigests saved_;  // before the scan; ordered by key, each key once
  std::vector<Mark>
      marks_;  // of the file of each of them; the scan's threads write them atomically
  std::unordered_map<uint64_t, SavedDigest> fresh_;  // by key; of further runs, and computed
};

}  // namespace tool
