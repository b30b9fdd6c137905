// What a scan does for each entry: building its path, queueing its job, computing its digest.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "common/paths.h"
#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"
#include "fbddp/job_queue.h"
#include "fbddp/run_resources.h"

namespace {

using namespace velmarin;

struct run {
  sis_ops ops = {};
  sis_context ctx = {};

  run() {
    ctx.in_time = 1;
    ctx.ops = &ops;
    if (!set_up_run(&ctx)) {
      abort();
    }
  }
  ~run() { tear_down_run(&ctx); }

  dentry *add(dentry *parent, const std::string &name, bool is_file) {
    dentry *d = nullptr;
    if (create_dentry(parent, name.c_str(), &d,
                      is_file ? velmarin::FILE_FORM : velmarin::DIRECTORY_FORM) != 0) {
      abort();
    }
    track_dentry(&ctx, d);
    return d;
  }
};

void full_path(benchmark::State &state) {
  run one;
  dentry *d = one.add(nullptr, "/usr/share", false);
  for (int64_t depth = 0; depth < state.range(0); depth++) {
    d = one.add(d, "directory", false);
  }
  path_buffer buffer;
  for ([[maybe_unused]] auto round : state) {
    benchmark::DoNotOptimize(get_fullpath(d, buffer.text));
  }
}
BENCHMARK(full_path)->Arg(1)->Arg(8)->Arg(64);

// Three threads that each schedule a job, take one and finish it.
void job_queue_of_three(benchmark::State &state) {
  static run *one;
  static dentry *d;
  if (state.thread_index() == 0) {
    one = new run;
    d = one->add(nullptr, "/", false);
    one->ctx.pending = 1;  // so that no round ends the phase
  }
  for ([[maybe_unused]] auto round : state) {
    schedule_job(&one->ctx, d);
    if (job *taken = take_job(&one->ctx)) {
      finish_job(&one->ctx, taken);
    }
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) {
    delete one;
  }
}
BENCHMARK(job_queue_of_three)->Threads(1)->Threads(3)->UseRealTime();

// A file in the page cache. A digest drops the pages it has read, so the file is on a memory file
// system.
class memory_file {
 public:
  explicit memory_file(int64_t size) : content_(static_cast<size_t>(size), 'x') {
    fd_ = memfd_create("bench", 0);
    if (write(fd_, content_.data(), content_.size()) != size) {
      abort();
    }
    name_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~memory_file() { close(fd_); }
  int fd() const { return fd_; }
  const std::string &name() const { return name_; }
  const std::vector<unsigned char> &content() const { return content_; }

 private:
  std::vector<unsigned char> content_;
  int fd_;
  std::string name_;
};

void digest_of_cached_file(benchmark::State &state) {
  const memory_file file(state.range(0));
  run one;
  dentry *d = one.add(nullptr, "/", false);
  d = one.add(d, "proc/self/fd/" + std::to_string(file.fd()), true);
  struct stat status = {};
  fstat(file.fd(), &status);
  d->mtime = status.st_mtim;
  for ([[maybe_unused]] auto round : state) {
    make_digest(&one.ctx, d);
    if (digest_record_of(d) == nullptr) {
      state.SkipWithError("no digest");
      return;
    }
    free(d->hash);
    d->hash = nullptr;
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(digest_of_cached_file)->Range(1 << 16, 1 << 24);

void bare_sha256(benchmark::State &state) {
  const memory_file file(state.range(0));
  unsigned char digest[SHA256_DIGEST_LENGTH];
  for ([[maybe_unused]] auto round : state) {
    benchmark::DoNotOptimize(SHA256(file.content().data(), file.content().size(), digest));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(bare_sha256)->Range(1 << 16, 1 << 24);

}  // namespace
