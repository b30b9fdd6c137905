#include "group_join.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>
#include <tuple>

#include "file_digest.h"
#include "omission_watch.h"
#include "stop_signal.h"

namespace tool {
namespace {

FoundFile found_file(const CollectedFile &collected) {
  const struct stat &status = collected.status;
  FoundFile file;
  file.path = collected.path;
  file.device = status.st_dev;
  file.inode = status.st_ino;
  file.status = collected.state;
  file.size = static_cast<uint64_t>(status.st_size);
  file.blocks = static_cast<uint64_t>(status.st_blocks);
  file.mtime = status.st_mtim;
  return file;
}

// Whether the files come from several runs. Files of one run have already been compared.
bool span_runs(std::span<const CollectedFile> files) {
  return std::any_of(files.begin(), files.end(),
                     [&](const CollectedFile &file) { return file.run != files.front().run; });
}

uint64_t size_of(const CollectedFile &file) {
  return static_cast<uint64_t>(file.status.st_size);
}

// Keeps one name of each file, and sorts by size.
void drop_extra_links(std::vector<CollectedFile> &files) {
  const auto inode = [](const CollectedFile &file) {
    return std::tuple(file.status.st_size, file.status.st_dev, file.status.st_ino);
  };
  std::ranges::sort(files, {}, [&](const CollectedFile &file) {
    return std::tuple(inode(file), std::string_view(file.path));
  });
  const auto is_same = [&](const CollectedFile &a, const CollectedFile &b) {
    return inode(a) == inode(b);
  };
  files.erase(std::unique(files.begin(), files.end(), is_same), files.end());
}

}  // namespace

void GroupJoin::run(std::vector<CollectedFile> files) {
  load_groups();
  drop_extra_links(files);
  for (auto first = files.begin(); first != files.end();) {
    const auto last = std::find_if(first, files.end(), [&](const CollectedFile &file) {
      return size_of(file) != size_of(*first);
    });
    join_size(std::span(first, last));
    first = last;
  }
  store_groups();
}

void GroupJoin::load_groups() {
  for (FoundGroup &group : findings_.groups) {
    for (FoundFile &file : group.files) {
      if (const auto digest = file.digest) {
        add(std::move(file), *digest);
      }
    }
  }
  findings_.groups.clear();
}

// Ignores a file seen before, which another mount shows again.
void GroupJoin::add(FoundFile file, const Digest &digest) {
  if (known_.emplace(FileId(file.device, file.inode), digest).second) {
    file.digest = digest;
    groups_[{digest, file.size}].files.push_back(std::move(file));
  }
}

void GroupJoin::join_size(std::span<CollectedFile> files) {
  const bool are_known =
      std::all_of(files.begin(), files.end(), [this](const auto &file) { return is_known(file); });
  if (are_known || !span_runs(files)) {
    return;
  }
  if (size_of(files.front()) < PATTERN_MIN_SIZE) {
    join_candidates(files);
    return;
  }
  std::map<uint64_t, std::vector<CollectedFile>> patterns;
  for (const CollectedFile &file : files) {
    patterns[read_pattern(file.path)].push_back(file);
  }
  for (auto &[pattern, part] : patterns) {
    join_candidates(part);
  }
}

// Takes files of equal size and, if they are large, equal pattern.
void GroupJoin::join_candidates(std::span<CollectedFile> files) {
  if (!span_runs(files)) {
    return;
  }
  for (const CollectedFile &file : files) {
    Digest digest;
    if (!is_known(file) && find_digest(file, digest)) {
      add(found_file(file), digest);
    }
  }
}

bool GroupJoin::is_known(const CollectedFile &file) const {
  return known_.contains({file.status.st_dev, file.status.st_ino});
}

bool GroupJoin::find_digest(const CollectedFile &file, Digest &digest) {
  if (const auto saved = keeper_.find(file.status)) {
    digest = *saved;
    return true;
  }
  if (stop_requested()) {
    return false;
  }
  const int error = read_digest(file.path, file.status, digest);
  ++findings_.counters.nr_file_opened;
  findings_.counters.nr_hashed += error == 0 ? 1 : 0;
  findings_.counters.nr_error += error != 0 && error != ESTALE ? 1 : 0;
  if (error == 0) {
    keeper_.add(file.status, digest);
  } else {
    OmissionWatch::note(file.path, error == ESTALE ? Cause::changed : Cause::not_read,
                        error == ESTALE ? 0 : error);
  }
  return error == 0;
}

void GroupJoin::store_groups() {
  for (auto &[content, group] : groups_) {
    if (group.files.size() > 1) {
      findings_.groups.push_back(std::move(group));
    }
  }
}

}  // namespace tool
