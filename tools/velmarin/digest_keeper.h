// Preserves saved digests that a scan would lose. The library removes the digest file when a run
// starts, and at the end writes what the run used. The keeper remembers what was saved, watches
// which files the scan sees, and then puts back:
// - the digests of unchanged files that had nothing to be compared with this time;
// - unless the scan looked everywhere, those of files that it did not see;
// - those that further runs of the scan saved for other devices, and those that the tool computed.
//
// Digests of files whose inode numbers do not fit into 32 bits are in a file of their own, with the
// suffix `.wide`, which the library does not know.
//
// While the scan runs, the old digest file has a second name with the suffix `.kept`. If the scan
// is killed, the next one finds the file there.
#pragma once

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "device_numbers.h"
#include "digest_file.h"
#include "wide_inodes.h"

namespace tool {

class DigestKeeper {
 public:
  using Digest = std::array<uint8_t, 32>;

  // Reads the digests saved for the roots. Silently drops what it cannot read, which only costs
  // time in a later scan. `library_uses_it`: a run of the library has the same roots and removes
  // the digest file; otherwise the keeper does. Returns false if a digest file belonged to another
  // user: it is removed, since its content may be made up.
  bool open(const std::string &state, const std::vector<std::string> &roots, bool library_uses_it);

  // Notes that the scan entered a directory on that device.
  void note_device(dev_t device, const std::string &directory) { devices_.add(device, directory); }

  // Notes that the scan saw the file. Thread-safe.
  void note_seen(const struct stat &status);

  // Exports digests of files on the device to a separate run with these roots, and reserves the
  // low halves of their inode numbers for them. Returns that run's state directory, which is
  // separate because the same roots may also be scanned on their own.
  std::string export_digests(const std::vector<std::string> &roots, dev_t device,
                             WideInodes &inodes);

  // Reads what that run saved, and removes its digest file.
  void import_digests(const std::vector<std::string> &roots, const WideInodes &inodes);

  // Reads what the run with all the roots saved.
  void import_main_run();

  // The saved or computed digest of the file, if its modification time matches.
  std::optional<Digest> find(const struct stat &status) const;

  // Adds a digest to save.
  void add(const struct stat &status, const Digest &digest);

  // Completes the digest file after the scan. `looked_everywhere`: a file that was not seen is
  // gone. Returns false if digests could not be written; those from before the scan are then kept
  // if they have a second name.
  bool close(bool looked_everywhere);

 private:
  enum class Mark : uint8_t { unseen, unchanged, changed };
  struct FileHash {
    size_t operator()(const SavedDigest &saved) const {
      return saved.key + (inode_of(saved) >> 32);
    }
  };
  struct SameFile {
    bool operator()(const SavedDigest &left, const SavedDigest &right) const {
      return is_same_file(left, right);
    }
  };

  void recover();
  SavedDigests load(const std::string &path) const;
  void remember(SavedDigests digests);
  void add_fresh(const std::optional<SavedDigests> &digests, const WideInodes &inodes);
  void replace_fresh(const SavedDigest &digest);
  bool may_export(size_t index, dev_t device) const;
  SavedDigests missing_digests(SavedDigests on_disk, bool looked_everywhere, bool are_wide) const;
  bool store_wide(bool looked_everywhere) const;
  bool complete(int fd, bool looked_everywhere) const;
  bool restore() const;

  std::string path_;  // of the digest file
  std::string kept_;  // its second name
  std::string wide_;  // the file of those with wide inode numbers
  std::string runs_;  // the state directory of further runs
  DeviceNumbers devices_;
  SavedDigests saved_;       // from before the scan; sorted by file, one for each
  std::vector<Mark> marks_;  // one for each of `saved_`; written atomically by the scan's threads
  std::unordered_set<SavedDigest, FileHash, SameFile> fresh_;  // from further runs, or computed
};

}  // namespace tool
