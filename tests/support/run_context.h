// The context of a run and its log, between set-up and teardown, without workers: the test adds the
// dentries and runs the jobs itself, in a fixed order.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "fbddp/dentry.h"
#include "fbddp/file_index.h"
#include "fbddp/run_resources.h"
#include "support/captured_log.h"

namespace velmarin_test {

struct run_context {
  captured_log log;
  velmarin::sis_ops ops = {};
  velmarin::sis_context ctx = {};

  run_context() {
    ctx.in_time = 1;
    ctx.ops = &ops;
    EXPECT_TRUE(velmarin::set_up_run(&ctx));
  }
  ~run_context() { velmarin::tear_down_run(&ctx); }
  run_context(const run_context &) = delete;

  velmarin::dentry *list(velmarin::dentry *parent, const std::string &name, bool is_file) {
    velmarin::dentry *d = nullptr;
    EXPECT_EQ(velmarin::create_dentry(parent, name.c_str(), &d,
                                      is_file ? velmarin::FILE_FORM : velmarin::DIRECTORY_FORM),
              0);
    velmarin::track_dentry(&ctx, d);
    return d;
  }

  static void give_digest(velmarin::dentry *file, const uint8_t *digest) {
    file->hash = static_cast<velmarin::usable_hash *>(calloc(1, sizeof(*file->hash)));
    std::copy_n(digest, velmarin::DIGEST_SIZE, file->hash->digest);
  }
};

}  // namespace velmarin_test
