// Examines the files that a scan found as they are now: the file system of each and where its data
// is, and thus what merging would free.
#pragma once

#include <atomic>
#include <span>
#include <vector>

#include "extents.h"
#include "findings.h"
#include "time_limit.h"
#include "volume.h"

namespace tool {

// Sorts groups by what merging may free as far as the scan tells: what their plain files hold.
void put_promising_first(std::vector<FoundGroup> &groups);

// Sorts groups by what merging frees. Those not examined come last.
void put_gainful_first(std::span<FoundGroup> groups);

// How far a survey may go, and how far it is.
struct SurveyPace {
  TimeLimit::Clock::time_point end;  // stop then, as if it were requested
  std::atomic<uint64_t> &examined;   // counts groups; for the display thread
};

// Sets the state of every file, with what keeps merging from changing it, and the shares of every
// group. Opens nothing for writing. Sorts the files by path. Queries the layered inode of a plain
// file only before merging, when another program may have merged it since. After a requested stop
// this takes only a moment: the remaining files get the error ECANCELED. Returns how many groups
// were examined.
size_t survey(std::span<FoundGroup> groups, Volumes &volumes, bool before_merging,
              const SurveyPace &pace);

// As above, for compressed files.
void survey_compressed(std::vector<FoundFile> &files, Volumes &volumes, bool before_merging);

// Whether the file is still a regular file with the inode, size and modification time that the scan
// saw.
bool is_unchanged(const FoundFile &file);

// The extents of the file as it is now; unknown if it is no longer what the survey saw.
ExtentMap extents_of(const FoundFile &file, const Volumes &volumes);

}  // namespace tool
