// The context of a run between its set-up and its teardown, without workers: a test lists the
// dentries and does the workers' jobs itself, in a fixed order.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "common/atomic_word.h"
#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"
#include "fbddp/job_queue.h"
#include "fbddp/run_resources.h"

namespace velmarin_test {

struct run_context {
  velmarin::sis_ops ops = {};
  velmarin::sis_context ctx = {};

  run_context() {
    ctx.in_time = 1;
    ctx.ops = &ops;
    EXPECT_TRUE(velmarin::set_up_run(&ctx));
  }
  ~run_context() { velmarin::tear_down_run(&ctx); }
  run_context(const run_context &) = delete;
  run_context &operator=(const run_context &) = delete;

  velmarin::dentry *list(velmarin::dentry *parent, const std::string &name, bool is_file) {
    velmarin::dentry *d = nullptr;
    EXPECT_EQ(velmarin::create_dentry(parent, name.c_str(), &d, is_file ? 1 : 0), 0);
    velmarin::list_dentry(&ctx, d);
    return d;
  }

  // Does the queued digest jobs. Returns how many there were.
  int do_digest_jobs() {
    int count = 0;
    for (velmarin::job *taken; (taken = velmarin::take_job(&ctx)) != nullptr; count++) {
      velmarin::digest_file_content(&ctx, taken->target);
      velmarin::finish_job(&ctx, taken);
    }
    EXPECT_EQ(ctx.pending, 0U);
    return count;
  }
};

}  // namespace velmarin_test
