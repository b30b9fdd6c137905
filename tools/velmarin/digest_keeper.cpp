#include "digest_keeper.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "common/unique_fd.h"

namespace tool {
namespace {

// The most digests of unseen files to keep (64 bytes each in the digest file). Without a limit,
// those of deleted files would pile up for users who never scan everything.
constexpr size_t MAX_UNSEEN = 1U << 20;

// Sorts by file and keeps the first of each.
void sort_unique(SavedDigests &digests) {
  std::stable_sort(digests.begin(), digests.end(), is_file_before);
  digests.erase(std::unique(digests.begin(), digests.end(), is_same_file), digests.end());
}

// Returns null if there is none. The digests are sorted.
const SavedDigest *find_file(const SavedDigests &digests, const SavedDigest &file) {
  const auto found = std::lower_bound(digests.begin(), digests.end(), file, is_file_before);
  return found != digests.end() && is_same_file(*found, file) ? &*found : nullptr;
}

bool is_wide(const SavedDigest &saved) {
  return inode_of(saved) >> 32 != 0;
}

// Removes a file that belongs to another user. Returns whether there was one.
bool remove_foreign(const std::string &path) {
  struct stat status = {};
  const bool is_foreign = lstat(path.c_str(), &status) == 0 && status.st_uid != geteuid();
  if (is_foreign) {
    unlink(path.c_str());
  }
  return is_foreign;
}

std::string name_in(const std::string &directory, const std::vector<std::string> &roots) {
  return directory + "/" + digest_file_name(roots);
}

}  // namespace

bool DigestKeeper::open(const std::string &state, const std::vector<std::string> &roots,
                        bool library_uses_it) {
  path_ = name_in(state, roots);
  kept_ = path_ + ".kept";
  wide_ = path_ + ".wide";
  runs_ = path_ + ".runs";
  std::error_code ignored;
  std::filesystem::remove_all(runs_, ignored);  // left by a killed scan
  const bool is_file_foreign = remove_foreign(path_);
  const bool is_kept_foreign = remove_foreign(kept_);
  const bool is_wide_foreign = remove_foreign(wide_);
  recover();
  devices_.load(state + "/" + digest_file_name(roots).substr(0, 64) + ".devices");
  SavedDigests digests = load(path_);
  if (!digests.empty()) {
    // Without hard links, only a killed scan or a failed write loses what was saved.
    [[maybe_unused]] const int result = link(path_.c_str(), kept_.c_str());
  }
  const SavedDigests wide = load(wide_);
  devices_.save();
  digests.insert(digests.end(), wide.begin(), wide.end());
  remember(std::move(digests));
  if (!library_uses_it) {
    unlink(path_.c_str());
  }
  return !is_file_foreign && !is_kept_foreign && !is_wide_foreign;
}

// Restores what a killed scan left under the second name.
void DigestKeeper::recover() {
  if (const auto kept = read_digests(kept_)) {
    const velmarin::unique_fd fd(lock_digest_file(path_, false));
    remember(*kept);
    if (!complete(fd.get(), false)) {
      return;
    }
  }
  unlink(kept_.c_str());
}

// Adjusts the file to the device numbers of today, before the library reads it. If that fails, the
// file goes: its numbers may be those of other file systems now.
SavedDigests DigestKeeper::load(const std::string &path) const {
  SavedDigests digests = read_digests(path).value_or(SavedDigests());
  if (devices_.renumber(digests)) {
    const velmarin::unique_fd fd(lock_digest_file(path, false));
    if (!fd.is_open() || replace_digests(fd.get(), digests) != 0) {
      unlink(path.c_str());
    }
  }
  return digests;
}

void DigestKeeper::remember(SavedDigests digests) {
  saved_ = std::move(digests);
  sort_unique(saved_);
  marks_.assign(saved_.size(), Mark::unseen);
}

void DigestKeeper::note_seen(const struct stat &status) {
  if (const SavedDigest *const saved = find_file(saved_, record_of(status, {}))) {
    Mark &mark = marks_[static_cast<size_t>(saved - saved_.data())];
    std::atomic_ref(mark).store(has_time_of(*saved, status) ? Mark::unchanged : Mark::changed,
                                std::memory_order_relaxed);
  }
}

// Of wide inode numbers, only those of files that are there may keep others out of a run.
bool DigestKeeper::may_export(size_t index, dev_t device) const {
  const SavedDigest &saved = saved_[index];
  return saved.key >> 32 == static_cast<uint32_t>(device) &&
         (!is_wide(saved) || marks_[index] == Mark::unchanged);
}

std::string DigestKeeper::export_digests(const std::vector<std::string> &roots, dev_t device,
                                         WideInodes &inodes) {
  mkdir(runs_.c_str(), 0700);
  SavedDigests digests;
  for (size_t i = 0; i < saved_.size(); ++i) {
    if (may_export(i, device) && inodes.reserve(inode_of(saved_[i]))) {
      digests.push_back(saved_[i]);
      set_inode(digests.back(), static_cast<uint32_t>(inode_of(saved_[i])));
    }
  }
  if (!digests.empty()) {
    const velmarin::unique_fd fd(lock_digest_file(name_in(runs_, roots), true));
    append_digests(fd.get(), digests);
  }
  return runs_;
}

void DigestKeeper::import_digests(const std::vector<std::string> &roots, const WideInodes &inodes) {
  const std::string path = name_in(runs_, roots);
  add_fresh(read_digests(path), inodes);
  unlink(path.c_str());
  rmdir(runs_.c_str());
}

void DigestKeeper::import_main_run() {
  add_fresh(read_digests(path_), {});
}

void DigestKeeper::add_fresh(const std::optional<SavedDigests> &digests, const WideInodes &inodes) {
  for (SavedDigest digest : digests.value_or(SavedDigests())) {
    set_inode(digest, inodes.whole_number(static_cast<uint32_t>(digest.key)));
    replace_fresh(digest);
  }
}

void DigestKeeper::replace_fresh(const SavedDigest &digest) {
  fresh_.erase(digest);
  fresh_.insert(digest);
}

std::optional<DigestKeeper::Digest> DigestKeeper::find(const struct stat &status) const {
  const SavedDigest file = record_of(status, {});
  const auto fresh = fresh_.find(file);
  const SavedDigest *const known = fresh != fresh_.end() ? &*fresh : find_file(saved_, file);
  return known != nullptr && has_time_of(*known, status) ? std::optional(known->digest)
                                                         : std::nullopt;
}

void DigestKeeper::add(const struct stat &status, const Digest &digest) {
  replace_fresh(record_of(status, digest));
}

bool DigestKeeper::close(bool looked_everywhere) {
  devices_.save();
  if (saved_.empty() && fresh_.empty()) {
    return true;
  }
  const bool has_wide = store_wide(looked_everywhere);
  std::error_code ignored;
  const bool has_second_name = std::filesystem::is_regular_file(kept_, ignored);
  const velmarin::unique_fd fd(lock_digest_file(path_, !fresh_.empty() || !has_second_name));
  const bool is_complete = complete(fd.get(), looked_everywhere);
  if (is_complete) {
    unlink(kept_.c_str());
  }
  return is_complete && has_wide;
}

// Replaces the file, which stays as it was if this fails.
bool DigestKeeper::store_wide(bool looked_everywhere) const {
  const SavedDigests digests = missing_digests({}, looked_everywhere, true);
  if (digests.empty()) {
    unlink(wide_.c_str());
    return true;
  }
  const std::string replacement = wide_ + ".new";
  unlink(replacement.c_str());  // left by a killed scan, or a link that someone else has made
  const velmarin::unique_fd fd(lock_digest_file(replacement, true));
  if (append_digests(fd.get(), digests) == 0 && rename(replacement.c_str(), wide_.c_str()) == 0) {
    return true;
  }
  unlink(replacement.c_str());
  return false;
}

// The digests to append to a file that holds those in `on_disk`.
SavedDigests DigestKeeper::missing_digests(SavedDigests on_disk, bool looked_everywhere,
                                           bool are_wide) const {
  sort_unique(on_disk);
  SavedDigests digests;
  std::copy_if(fresh_.begin(), fresh_.end(), std::back_inserter(digests),
               [&](const SavedDigest &fresh) {
                 return is_wide(fresh) == are_wide && find_file(on_disk, fresh) == nullptr;
               });
  size_t room = looked_everywhere ? 0 : MAX_UNSEEN;
  for (size_t i = 0; i < saved_.size(); ++i) {
    const bool is_replaced = fresh_.contains(saved_[i]) || find_file(on_disk, saved_[i]) != nullptr;
    if (is_wide(saved_[i]) != are_wide || is_replaced || marks_[i] == Mark::changed ||
        (marks_[i] == Mark::unseen && room == 0)) {
      continue;
    }
    room -= marks_[i] == Mark::unseen ? 1U : 0U;
    digests.push_back(saved_[i]);
  }
  return digests;
}

// If `fd` is not open or the file damaged, what is kept under the second name takes its place, and
// what this scan has added is lost.
bool DigestKeeper::complete(int fd, bool looked_everywhere) const {
  auto on_disk = read_locked_digests(fd);
  if (!on_disk) {
    return restore() && fresh_.empty();
  }
  const SavedDigests digests = missing_digests(std::move(*on_disk), looked_everywhere, false);
  return digests.empty() || append_digests(fd, digests) == 0;
}

bool DigestKeeper::restore() const {
  return rename(kept_.c_str(), path_.c_str()) == 0;
}

}  // namespace tool
