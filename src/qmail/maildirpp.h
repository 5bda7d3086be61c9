// Maildir++ quotas and mailbox sizes.
//
// A mailbox's quota lives in Maildir/maildirsize, a file shared with the
// local delivery agent:
//
//   1048576S,0C                    limits: bytes "S", messages "C"; 0 = none
//              0           0       usage written here, bytes and messages
//   2048 1                         usage lines the delivery agent appends
//
// The usage is the sum of every line after the header. It counts the
// messages of new/ and cur/ of the Maildir and of each folder (".Name"
// directories) except ".Trash".
#ifndef DRAVNIK_QMAIL_MAILDIRPP_H_
#define DRAVNIK_QMAIL_MAILDIRPP_H_

#include <sys/types.h>

#include <cstdint>
#include <ctime>

// Sets the quota of the mailbox of mailname@domain to `quota` bytes (see
// store_maildirpp_quota_raw()), less what the mailbox's @attachments
// directory already holds, so that attachments kept beside the Maildir count
// against the same limit. Non-zero on success, 0 after reporting a failure.
int store_mbox_quota(const char* domain, const char* mailname, int64_t quota);
// The same for the mailbox directory open as `home` (opened without
// following links), which a caller that has just made it has at hand.
int store_mbox_quota_in(int home, int64_t quota);

// Writes `maildir`/maildirsize for a quota of `quota` bytes: a positive
// quota is the limit, 0 blocks every delivery (written as the limit 1, since
// 0 means "no limit") and a negative quota removes the limit. The file
// belongs to popuser. 1 on success, 0 after reporting a failure.
int store_maildirpp_quota_raw(const char* maildir, int64_t quota);

// Replaces `maildir`/maildirsize with the limits and a fresh count of the
// usage, owned by uid:gid with mode 0644. The new file is written beside the
// Maildir's other deliveries in tmp/ and renamed into place, so readers see
// the old file or the whole new one. Runs of this program take turns at one
// Maildir (qmail/lock.h), and the one at work removes the temporaries that
// runs killed before their rename left in tmp/. 1 on success; 0 after
// reporting a failure, with errno telling why and the old file left in place.
int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid,
                                int64_t size_limit, int64_t count_limit);

// From maildirsize_hold() on, write_maildirpp_maildirsize() only notes the
// limits; maildirsize_write_held() writes each noted Maildir's file once,
// with the last limits noted for it, and ends the holding. Every reader of
// a maildirsize writes the noted files first. 0, or 1 after reporting a
// failed write.
void maildirsize_hold();
int maildirsize_write_held();
// Tells a hold that the Maildir open as `maildir` was just made by this
// run: its held write does not look in tmp/ for the temporaries of killed
// runs. Does nothing unless a hold is active.
void maildirsize_note_new(int maildir);
// Whether `fd` is the directory of a noted Maildir, kept open on purpose
// until its write.
bool maildirsize_holds_descriptor(int fd);

// Whether `name` in a Maildir's tmp/ is a temporary maildirsize that this
// program wrote on `host`: "<digits>.<digits>.<host>-maildirsize".
bool is_maildirsize_temp(const char* name, const char* host);

// Reads the usage and the limits of `maildir` from its maildirsize. A limit
// that is not set comes back as INT64_MAX. When the file is missing, damaged
// or too long, the usage is counted afresh from the messages unless
// `no_recount` is set. 1 on success, 0 on failure.
int get_maildirpp_usage_and_limits(const char* maildir, int no_recount,
                                   int64_t* bytes, int64_t* count,
                                   int64_t* size_limit, int64_t* count_limit);

// get_maildirpp_usage_and_limits() for the usage alone, recount allowed.
int get_maildirpp_usage(const char* maildir, int64_t* bytes, int64_t* count);

// 1 when adding `add_bytes` in `add_count` messages would go over the
// limits of `maildir`; 0 otherwise, and also when its maildirsize cannot be
// read (a broken quota file must not stop the mail).
int check_maildirpp_overquota(const char* maildir, int64_t add_bytes,
                              int64_t add_count);

// Counts the messages of the Maildir that is the current directory. Also
// gives the newest modification time of the directories it read. 1 on
// success, 0 after reporting a failure.
int get_maildirpp_messages_usage(int64_t* bytes, int64_t* count,
                                 time_t* newest_mtime);

// Raises `*newest_mtime` to the modification times of `folder`/cur and
// `folder`/new. 1, or 0 after reporting a failure (errno ENAMETOOLONG or
// EIO).
int get_maildirpp_folder_mtime(const char* folder, time_t* newest_mtime);

// The size in bytes of the mailbox of mailname@domain: its Maildir++ usage
// plus its @attachments directory, which with `in_blocks` counts allocated
// blocks instead of file sizes. A domain that cannot be converted or a path
// too long ends the process.
int64_t get_mbox_size(const char* mailname, const char* domain, int in_blocks);

// The maildirsize header "<bytes>S,<messages>C", where "" means no limits
// and "<bytes>" or "<bytes>S" no message limit. 1, or 0 with both limits set
// to INT64_MAX.
int parse_header_string(const char* text, int64_t* size_limit,
                        int64_t* count_limit);

// Parses the header (`header_mode` set) or a usage line "<bytes> <count>"
// into `*a` and `*b`, which are set only on success. 1 or 0.
int parse_string_common(const char* text, int64_t* a, int64_t* b,
                        int header_mode);

#endif  // DRAVNIK_QMAIL_MAILDIRPP_H_
