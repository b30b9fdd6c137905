// A small host of the library: scans directory trees and merges the identical files that it finds.
//
//     merge_duplicates STATE_DIRECTORY ROOT...
//
// Ends with 0 when every identical file was merged, 1 when something was refused, 2 on bad usage.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "velmarin/control_codes.h"
#include "velmarin/files.h"
#include "velmarin/scan.h"

namespace {

// What the host keeps of a reported file. The record and everything it points to belong to the
// scan.
struct found_file {
  std::string path;
  bool shares_data;  // already attached to a layered inode
};
using group = std::vector<found_file>;

// The report callback: adds each group of identical files to the list in `caller_data`. It runs on
// the thread that called the scan, so the list needs no lock.
int collect(uint64_t caller_data, velmarin::sis_report *record) {
  auto &groups = *reinterpret_cast<std::vector<group> *>(caller_data);
  switch (record->stage) {
    case velmarin::REPORT_GROUP:
      groups.emplace_back();
      [[fallthrough]];
    case velmarin::REPORT_FILE: {
      const bool shares_data = record->status == velmarin::SIS_STATUS_LAYERED ||
                               record->status == velmarin::SIS_STATUS_DEDUPED;
      groups.back().push_back({record->path, shares_data});
      return 0;
    }
    case velmarin::REPORT_COMPRESSED:
      return 1;  // not needed: skip to the end

    case velmarin::REPORT_END:  // the counters are in the fields of the record
      std::printf("%llu candidates, %llu read\n", static_cast<unsigned long long>(record->status),
                  static_cast<unsigned long long>(record->size));
      return 0;
    default:
      return 0;
  }
}

// Opens the file whose data the others will share. Returns its descriptor or -1.
int open_source(const found_file &file) {
  return file.shares_data ? open(file.path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC)
                          : create_layer(file.path.c_str());
}

// Moves a file that already shares data to the front, so that an earlier merge is extended.
void choose_source(group &files) {
  for (found_file &file : files) {
    if (file.shares_data) {
      std::swap(file, files.front());
      return;
    }
  }
}

class merger {
 public:
  // Merges a group. Its files may be on several file systems, each of which gets its own source.
  void merge(group files) {
    while (files.size() > 1) {
      files = merge_with_first(std::move(files));
    }
  }

  bool print_result() const {
    std::printf("%d merged, %d refused\n", merged_, refused_);
    return refused_ == 0;
  }

 private:
  // Returns the files that are still to be merged. The file system compares before it shares: a
  // file that changed since the scan is refused and keeps its content.
  group merge_with_first(group files) {
    choose_source(files);
    const found_file source = files.front();
    files.erase(files.begin());
    const int source_fd = open_source(source);
    if (source_fd < 0) {
      refuse(source, "cannot be the source");
      return files;
    }
    group elsewhere;
    for (const found_file &file : files) {
      const int error = dedup_file(file.path.c_str(), source_fd);
      if (error == EXDEV) {
        elsewhere.push_back(file);
      } else if (error != 0) {
        refuse(file, std::strerror(error));
      } else {
        merged_++;
      }
    }
    close(source_fd);
    return elsewhere;
  }

  void refuse(const found_file &file, const char *reason) {
    std::fprintf(stderr, "%s: %s\n", file.path.c_str(), reason);
    refused_++;
  }

  int merged_ = 0;
  int refused_ = 0;
};

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s STATE_DIRECTORY ROOT...\n", argv[0]);
    return 2;
  }
  velmarin::sis_scan_request request = {};
  request.save_dir = argv[1];
  request.roots = const_cast<const char **>(argv + 2);
  request.root_count = argc - 2;

  std::vector<group> groups;
  const int error = startScanDirImpl(&request, reinterpret_cast<uintptr_t>(&groups), collect);
  if (error != 0) {
    std::fprintf(stderr, "the scan failed with %d\n", error);
    return 1;
  }
  merger merging;
  for (group &files : groups) {
    merging.merge(std::move(files));
  }
  return merging.print_result() ? 0 : 1;
}
