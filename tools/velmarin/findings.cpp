#include "findings.h"

#include <algorithm>
#include <cerrno>

#include "scan_paths.h"
#include "stop_signal.h"

namespace tool {
namespace {

FoundFile found_file(const velmarin::sis_report &record) {
  FoundFile file;
  file.path = reported_path(record.path);
  file.inode = record.ino;
  file.status = record.status;
  file.size = record.size;
  file.blocks = record.blocks;
  file.mtime = *record.mtime;
  if (record.digest != nullptr) {
    std::copy_n(record.digest, file.digest.emplace().size(), file.digest->begin());
  }
  return file;
}

// The last record of the report carries the counters in its first six fields.
Counters counters_of(const velmarin::sis_report &record) {
  return {.nr_dir_opened = reinterpret_cast<uintptr_t>(record.dentry),
          .nr_dir_read = record.ino,
          .nr_file_opened = reinterpret_cast<uintptr_t>(record.path),
          .nr_scan_file = static_cast<uint64_t>(record.status),
          .nr_hashed = record.size,
          .nr_error = record.blocks};
}

template <typename Range, typename Measure>
auto sum(const Range &range, Measure measure) {
  decltype(measure(*range.begin())) total{};
  for (const auto &element : range) {
    total += measure(element);
  }
  return total;
}

}  // namespace

bool FoundGroup::is_examined() const {
  return files.front().state.error != ECANCELED;
}

uint64_t FoundGroup::unmerged_bytes() const {
  return sum(shares, [](const Share &share) { return share.unmerged_bytes; });
}

uint64_t FoundGroup::unsharable_bytes() const {
  return sum(shares, [](const Share &share) { return share.can_share ? 0 : share.unmerged_bytes; });
}

uint64_t FoundGroup::saved_bytes() const {
  return sum(shares, [](const Share &share) { return share.saved_bytes; });
}

Space FoundGroup::reclaimable() const {
  return sum(shares, [](const Share &share) { return share.reclaimable; });
}

Space FoundGroup::freed() const {
  return sum(shares, [](const Share &share) { return share.freed; });
}

uint64_t FoundGroup::inline_files() const {
  return sum(files, [](const FoundFile &file) { return uint64_t{file.state.is_inline}; });
}

bool Findings::is_unsharable() const {
  bool has_shares = false;
  for (const FoundGroup &group : groups) {
    for (const FoundFile &file : group.files) {
      if (file.state.can_share) {
        return false;
      }
    }
    has_shares |= !group.shares.empty();
  }
  return has_shares;
}

uint64_t Findings::grouped_files() const {
  return sum(groups, [](const FoundGroup &group) { return group.files.size(); });
}

uint64_t Findings::unexamined_groups() const {
  return sum(groups, [](const FoundGroup &group) { return uint64_t{!group.is_examined()}; });
}

uint64_t Findings::unmerged_bytes() const {
  return sum(groups, [](const FoundGroup &group) { return group.unmerged_bytes(); });
}

uint64_t Findings::unsharable_bytes() const {
  return sum(groups, [](const FoundGroup &group) { return group.unsharable_bytes(); });
}

uint64_t Findings::saved_bytes() const {
  return sum(groups, [](const FoundGroup &group) { return group.saved_bytes(); });
}

Space Findings::reclaimable() const {
  return sum(groups, [](const FoundGroup &group) { return group.reclaimable(); });
}

Space Findings::freed() const {
  return sum(groups, [](const FoundGroup &group) { return group.freed(); }).less(mark_bytes);
}

uint64_t Findings::inline_files() const {
  return sum(groups, [](const FoundGroup &group) { return group.inline_files(); });
}

int Collector::receive(uint64_t collector, velmarin::sis_report *record) {
  reinterpret_cast<Collector *>(collector)->take(*record);
  return 0;
}

void Collector::take(const velmarin::sis_report &record) {
  switch (record.stage) {
    case velmarin::REPORT_BEGIN:
      withdraw_stop_handle();
      break;
    case velmarin::REPORT_GROUP:
      findings.groups.emplace_back();
      take_file(record);
      break;
    case velmarin::REPORT_FILE:
      take_file(record);
      break;
    case velmarin::REPORT_COMPRESSED:
      in_compressed_section_ = true;
      break;
    case velmarin::REPORT_END:
      findings.counters = counters_of(record);
      break;
    default:
      break;
  }
}

void Collector::take_file(const velmarin::sis_report &record) {
  auto &files = in_compressed_section_ ? findings.compressed : findings.groups.back().files;
  files.push_back(found_file(record));
}

}  // namespace tool
