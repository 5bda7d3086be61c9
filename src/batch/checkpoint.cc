#include "batch/checkpoint.h"

#include <unistd.h>

#include <vector>

#include "mailauth/auth_db.h"
#include "mailauth/sqlite_db.h"
#include "qmail/delivery.h"
#include "qmail/line_file.h"
#include "qmail/maildirpp.h"
#include "qmail/paths.h"

namespace tavix {
namespace batch {

namespace {

// The files every server-wide change rewrites as a whole: worth holding.
// A mail name's own .qmail is held apart (qmail/delivery.h), without a
// lock or a descriptor per file.
const char* const kSharedFiles[] = {
    "/users/assign",           "/control/rcpthosts", "/control/virtualdomains",
    "/control/locals",         "/control/rejectnonexist",
};

}  // namespace

Checkpoint::~Checkpoint() { close(); }

void Checkpoint::open() {
  if (open_)
    return;
  std::vector<std::string> paths;
  for (const char* suffix : kSharedFiles)
    paths.push_back(qmail::qmail_file(suffix));
  std::vector<const char*> list;
  for (const std::string& path : paths)
    list.push_back(path.c_str());
  list.push_back(nullptr);
  line_files_hold(list.data());
  maildirsize_hold();
  dotqmail_hold();
  qmail_defer(true);
  sqlite::begin_transactions();
  // Without a key to read, each command that needs one says so itself.
  if (access(mailAuthKey, R_OK) == 0)
    cipher_ = std::make_unique<MailCipherReference>(mailAuthKey);
  open_ = true;
}

QmailRequests Checkpoint::requests() const { return qmail_deferred_requests(); }

Checkpoint::Result Checkpoint::close() {
  Result result;
  if (!open_)
    return result;
  open_ = false;
  cipher_.reset();
  // The mailboxes' own files first: the compile below opens the new
  // mailboxes to mail, which must find their limits and delivery lines.
  result.quotas_failed = maildirsize_write_held() != 0;
  if (!result.quotas_failed)
    result.dotqmails_failed = dotqmail_write_held() != 0;
  dotqmail_end_hold();
  if (result.quotas_failed || result.dotqmails_failed)
    line_files_drop_held();
  else
    result.files_failed = line_files_write_held() != 0;
  qmail_defer(false);
  // Also after a failed write: other files may have been written.
  result.failed = qmail_run_deferred();
  if (result.quotas_failed || result.dotqmails_failed || result.files_failed) {
    result.databases_undone = true;
    result.databases_failed = sqlite::rollback_transactions() != 0;
  } else {
    result.databases_failed = sqlite::commit_transactions() != 0;
  }
  return result;
}

std::string Checkpoint::Result::message() const {
  std::string text;
  if (files_failed)
    text += "dravnik-batch: the qmail files of this checkpoint could not be written\n";
  if (quotas_failed)
    text += "dravnik-batch: the quota files of this checkpoint's mailboxes could not all be written\n";
  if (dotqmails_failed)
    text += "dravnik-batch: the .qmail files of this checkpoint's mail names could not all be written\n";
  if (databases_undone)
    text += "dravnik-batch: the database changes of this checkpoint were undone\n";
  else if (databases_failed)
    text += "dravnik-batch: the database changes of this checkpoint could not be committed\n";
  if (failed.newu)
    text += "dravnik-batch: qmail-newu failed at the checkpoint\n";
  if (failed.restart || failed.reload || failed.hup)
    text += "dravnik-batch: qmail could not be told to re-read its files\n";
  return text;
}

}  // namespace batch
}  // namespace tavix
