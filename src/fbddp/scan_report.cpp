// Reports groups, compressed files and counters.

#include "fbddp/scan_report.h"

#include "common/log.h"
#include "common/paths.h"
#include "fbddp/dentry.h"
#include "fbddp/dentry_forms.h"
#include "fbddp/file_index.h"
#include "fbddp/file_key.h"
#include "velmarin/control_codes.h"

namespace velmarin {
namespace {

// The record and the path buffer shared by all calls of the callback.
struct report_pass {
  sis_context *ctx;
  sis_report record;
  path_buffer buffer;
};

int call_host(report_pass *pass, sis_report_stage stage) {
  pass->record.stage = stage;
  return pass->ctx->ops->report(pass->ctx->caller_data, &pass->record);
}

int report_file(report_pass *pass, dentry *file, sis_report_stage stage) {
  const file_attributes attributes = attributes_of(file);
  const usable_hash *digest_record = digest_record_of(file);
  sis_report *record = &pass->record;
  record->dentry = file;
  record->ino = inode_of_key(file->key);
  record->path = get_fullpath(file, pass->buffer.text);
  record->status = attributes.status;
  record->size = file->size;
  record->blocks = attributes.blocks;
  record->mtime = &file->mtime;
  record->digest = digest_record == nullptr ? nullptr : digest_record->digest;
  return call_host(pass, stage);
}

// Reports the files identical to `head`. Returns false when the host ends the report.
bool report_members(report_pass *pass, dentry *head) {
  for (dentry &member : list_range<&dentry::same>(&head->same)) {
    const int result = report_file(pass, &member, REPORT_FILE);
    if (result == REPORT_STOP) {
      return false;
    }
    if (result == REPORT_SKIP) {
      break;
    }
  }
  return true;
}

bool report_group(report_pass *pass, dentry *head) {
  const int result = report_file(pass, head, REPORT_GROUP);
  if (result == REPORT_STOP) {
    return false;
  }
  if (result != REPORT_SKIP && !report_members(pass, head)) {
    return false;
  }
  return call_host(pass, REPORT_GROUP_END) != REPORT_STOP;
}

bool report_groups(report_pass *pass) {
  for (dentry &head : list_range<&dentry::group>(&pass->ctx->groups)) {
    if (!report_group(pass, &head)) {
      return false;
    }
  }
  return true;
}

void report_compressed_files(report_pass *pass) {
  if (call_host(pass, REPORT_COMPRESSED) != 0) {
    return;
  }
  for (dentry &d : list_range<&dentry::link>(&pass->ctx->dentries)) {
    if (is_file_form(&d) && attributes_of(&d).status == SIS_STATUS_COMPRESSED &&
        report_file(pass, &d, REPORT_FILE) == REPORT_SKIP) {
      return;
    }
  }
}

// The last record carries the counters in its fields.
void report_counters(report_pass *pass) {
  const sis_context *ctx = pass->ctx;
  sis_report *record = &pass->record;
  record->dentry = reinterpret_cast<dentry *>(ctx->nr_dir_opened);
  record->ino = ctx->nr_dir_read;
  record->path = reinterpret_cast<const char *>(ctx->nr_file_opened);
  record->status = static_cast<int64_t>(ctx->nr_scan_file);
  record->size = ctx->nr_hashed;
  record->blocks = ctx->nr_error;
  log_info("nr_scan_file %lu\n", ctx->nr_scan_file);
  call_host(pass, REPORT_END);
}

}  // namespace

void report_findings(sis_context *ctx) {
  if (ctx->ops->report == nullptr) {
    return;
  }
  report_pass pass = {};
  pass.ctx = ctx;
  if (call_host(&pass, REPORT_BEGIN) == 0 && report_groups(&pass)) {
    report_compressed_files(&pass);
  }
  report_counters(&pass);
}

}  // namespace velmarin
