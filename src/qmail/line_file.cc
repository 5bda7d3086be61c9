#include "qmail/line_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qmail/lock.h"
#include "qmail/qmail_control.h"
#include "util/atomic_file.h"
#include "util/fs.h"
#include "util/log.h"

namespace {

using tavix::AtomicFile;
using tavix::ScopedLock;
using tavix::UniqueFd;
using tavix::UniqueFile;

// Lines are filtered in pieces read into this buffer; a longer line is
// several pieces, each judged on its own.
const int kPieceBuffer = 4095;
// What both streams of a rewrite buffer. stdio's default of one 4 KiB block
// turns copying users/assign (megabytes on a big server) into thousands of
// read and write calls.
const size_t kStreamBuffer = 128 * 1024;

const char* const kNoLines[] = {nullptr};

// How many times a piece of the old file goes into the new one.
using CopyCount = std::function<size_t(std::string_view piece)>;

// A stream's buffer owned here: glibc ignores the size given to setvbuf()
// without a buffer. It must outlive the stream, so it is declared before it.
class StreamBuffer {
 public:
  StreamBuffer() : data_(new char[kStreamBuffer]) {}
  // Before the stream's first read or write. A refusal leaves the stream
  // with its own small buffer, which is only slower.
  void attach(FILE* stream) { (void)setvbuf(stream, data_.get(), _IOFBF, kStreamBuffer); }

 private:
  std::unique_ptr<char[]> data_;
};

// A few failures of the temporary file are printed on standard error alone
// instead of through the message printer, which also writes standard output.
void print_error(const char* format, const std::string& name) {
  fprintf(stderr, format, name.c_str(), strerror(errno));
  fflush(stderr);
}

void log_error(const char* format, const char* name) {
  messlog2(0, 0, format, name, strerror(errno));
}

std::string temp_name(const char* path) { return std::string(path) + ".tmp"; }

// A stream on `path`; a link that the mail user planted there (a .qmail
// pointing at /etc/shadow) is neither read nor written through.
UniqueFile stream_of(UniqueFd fd, const char* mode) {
  if (!fd)
    return nullptr;
  UniqueFile stream(fdopen(fd.get(), mode));
  if (stream)
    fd.release();
  return stream;
}

UniqueFile open_stream(const char* path, int flags, const char* mode) {
  return stream_of(tavix::open_nofollow(path, flags, 0666), mode);
}

// The new contents of `path` start in "<path>.tmp". A temporary file that
// a run killed half-way left behind is taken over.
bool create_temp(const char* path, AtomicFile* temp, StreamBuffer* buffer) {
  if (!temp->create(path, tavix::name_beside(path, ".tmp"),
                    AtomicFile::Temp::kReplace, 0666) ||
      temp->stream() == nullptr) {
    print_error("Unable to open file %s: %s\n", temp_name(path));
    return false;
  }
  buffer->attach(temp->stream());
  return true;
}

// The old file, read through `buffer`.
UniqueFile open_old(const char* path, StreamBuffer* buffer) {
  UniqueFile in(open_stream(path, O_RDONLY, "r"));
  if (!in) {
    log_error("Unable to open file %s: %s\n", path);
    return nullptr;
  }
  buffer->attach(in.get());
  return in;
}

// The text of a piece without the newline that ends its line. A piece cut
// from a longer line, and a last line without one, have none.
std::string_view without_newline(std::string_view piece) {
  if (!piece.empty() && piece.back() == '\n')
    piece.remove_suffix(1);
  return piece;
}

// A piece is the given line when their texts agree up to the piece's end
// and the given line ends there, with or without a newline: "a" and "a\n"
// both name the file line "a".
bool is_given_line(std::string_view piece, const char* given) {
  std::string_view body = without_newline(piece);
  size_t length = body.size();
  return strncmp(given, body.data(), length) == 0 &&
         (given[length] == '\0' || given[length] == '\n');
}

bool matches(int how, std::string_view piece, std::string_view given) {
  std::string_view body = without_newline(piece);
  switch (how) {
    case kMatchPrefix:
      return body.size() >= given.size() &&
             body.substr(0, given.size()) == given;
    case kMatchSuffix:
      return body.size() >= given.size() &&
             body.substr(body.size() - given.size()) == given;
    case kMatchSubstring:
      return piece.find(given) != std::string_view::npos;
    default:
      return false;
  }
}

// Exact removal: a piece equal to any given line is dropped.
size_t copies_unless_given(std::string_view piece, const char* const* lines) {
  for (; *lines; ++lines) {
    if (is_given_line(piece, *lines))
      return 0;
  }
  return 1;
}

// Writes `length` bytes from `data`; nothing to write is no failure.
bool write_bytes(FILE* out, const char* data, size_t length) {
  return length == 0 || fwrite(data, 1, length, out) == length;
}

// The next piece at the start of `text`, as fgets() would read it into a
// buffer of kPieceBuffer: up to and including a newline, at most
// kPieceBuffer - 1 bytes. 0 when `text` holds no whole piece yet and more
// is to come (`at_end` false).
size_t piece_length(std::string_view text, bool at_end) {
  size_t limit = std::min(text.size(), static_cast<size_t>(kPieceBuffer - 1));
  const void* newline = memchr(text.data(), '\n', limit);
  if (newline)
    return static_cast<const char*>(newline) - text.data() + 1;
  if (limit == static_cast<size_t>(kPieceBuffer - 1) || at_end)
    return limit;
  return 0;
}

// Judges and writes the whole pieces at the start of `text` (all of it at
// the end of the file). A piece counts only up to a NUL byte in it, as it
// does once read with fgets() and written with fputs(). A run of pieces
// kept once each is written in one call. How many bytes were used, or -1
// when a write failed.
long copy_whole_pieces(std::string_view text, bool at_end, FILE* out, const CopyCount& copies) {
  size_t start = 0, run = 0;  // [run, start) is kept but not written yet
  while (start < text.size()) {
    size_t length = piece_length(text.substr(start), at_end);
    if (length == 0)
      break;
    std::string_view piece = text.substr(start, length);
    piece = piece.substr(0, piece.find('\0'));
    size_t n = copies(piece);
    if (n != 1 || piece.size() != length) {
      if (!write_bytes(out, text.data() + run, start - run))
        return -1;
      for (; n > 0; --n) {
        if (!write_bytes(out, piece.data(), piece.size()))
          return -1;
      }
      run = start + length;
    }
    start += length;
  }
  if (!write_bytes(out, text.data() + run, start - run))
    return -1;
  return static_cast<long>(start);
}

// Copies the old file to the new one piece by piece, each piece as often
// as `copies` says. False when a write failed; a read error ends the copy
// and is left to the caller's ferror().
//
// users/assign holds a line per address of the server (megabytes), so the
// file is read in large blocks and the lines kept as they are are written
// in runs rather than read and written one by one.
bool copy_pieces(FILE* in, FILE* out, const CopyCount& copies) {
  std::unique_ptr<char[]> block(new char[kStreamBuffer]);
  size_t filled = 0;
  bool at_end = false;
  while (!at_end) {
    size_t wanted = kStreamBuffer - filled;
    size_t got = fread(block.get() + filled, 1, wanted, in);
    filled += got;
    at_end = got < wanted;
    long used = copy_whole_pieces(std::string_view(block.get(), filled), at_end, out, copies);
    if (used < 0)
      return false;
    // What is left is part of one piece, shorter than kPieceBuffer.
    memmove(block.get(), block.get() + used, filled - used);
    filled -= used;
  }
  return true;
}

// Removal by match. The strings are tried in order and every one tried
// before the first match writes the piece once more. Callers only ever pass
// one string, for which this is plain "drop on match"; the rule for longer
// lists is kept as it always was so that no existing file changes meaning.
size_t copies_before_match(std::string_view piece, const char* const* lines,
                           int how) {
  size_t copies = 0;
  for (; *lines; ++lines) {
    if (matches(how, piece, *lines))
      break;
    ++copies;
  }
  return copies;
}

bool close_reported(UniqueFile file, const char* path) {
  if (fclose(file.release()) == 0)
    return true;
  log_error("Unable to close file %s: %s\n", path);
  return false;
}

// The new file takes the owner and mode of the one it replaces before it
// gets its name, so that nobody ever sees it with other ones.
bool give_attributes(AtomicFile* temp, FILE* old_file, const char* path) {
  struct stat saved;
  if (fstat(fileno(old_file), &saved) != 0 || !temp->set_owner(saved.st_uid, saved.st_gid)) {
    log_error("file_str: ERROR: Unable to chown file %s: %s", path);
    return false;
  }
  if (!temp->set_mode(saved.st_mode & 07777)) {
    log_error("file_str: ERROR: Unable to chmod file %s: %s", path);
    return false;
  }
  return true;
}

// The new contents are on disk before the rename can publish them, and the
// old file is fully read.
bool finish_reading(AtomicFile* temp, UniqueFile in, const char* path) {
  if (ferror(in.get())) {
    log_error("Unable to read file %s: %s\n", path);
    return false;
  }
  if (!give_attributes(temp, in.get(), path))
    return false;
  if (!temp->sync()) {
    log_error("Unable to close file %s: %s\n", path);
    return false;
  }
  return close_reported(std::move(in), path);
}

enum class RenameReport { kLogPath, kPrintTemp };

// Files up to this size are read whole before a removal, to see whether it
// removes anything at all.
const off_t kSmallFile = 64 * 1024;

// Whether `in`, a small file read from its start, has nothing that
// `copies` would drop or repeat, so that a rewrite would write it again
// as it is. Left at its start when it has.
bool keeps_everything(FILE* in, const CopyCount& copies) {
  struct stat info;
  if (fstat(fileno(in), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kSmallFile)
    return false;
  std::string text(static_cast<size_t>(kSmallFile) + 1, '\0');
  text.resize(fread(&text[0], 1, text.size(), in));
  bool kept = !ferror(in) && text.size() <= static_cast<size_t>(kSmallFile);
  for (std::string_view rest(text); kept && !rest.empty();) {
    size_t length = piece_length(rest, true);
    std::string_view piece = rest.substr(0, length);
    kept = piece.find('\0') == std::string_view::npos && copies(piece) == 1;
    rest.remove_prefix(length);
  }
  if (!kept)
    rewind(in);
  return kept;
}

// The temporary file a killed rewrite left, when there is one; through
// `parent` (the file's directory, opened) when the caller has it.
bool remove_stale_temp(const char* path, const tavix::PathParent* parent = nullptr) {
  int rc = parent ? unlinkat(parent->dir.get(), (parent->name + ".tmp").c_str(), 0)
                  : tavix::unlink_nofollow(temp_name(path).c_str());
  if (rc != 0 && errno != ENOENT) {
    print_error("Unable to open file %s: %s\n", temp_name(path));
    return false;
  }
  return true;
}

// The removals' common body: copies `path` to its temporary file piece by
// piece, each piece as often as `copies` says, and renames the result over
// `path`. False after reporting a failure.
bool rewrite_filtered(const char* path, const CopyCount& copies,
                      RenameReport report) {
  StreamBuffer in_buffer, out_buffer;
  UniqueFile in(open_old(path, &in_buffer));
  if (!in)
    return false;
  // Nothing to remove leaves the file alone (a mailbox's .qmail is edited
  // so by most commands), but not the temporary a killed rewrite left.
  if (keeps_everything(in.get(), copies))
    return remove_stale_temp(path) && close_reported(std::move(in), path);
  AtomicFile temp;
  if (!create_temp(path, &temp, &out_buffer))
    return false;

  // The new file would silently lose a line: stop everything.
  if (!copy_pieces(in.get(), temp.stream(), copies))
    messlog2(1, 1, "cannot write a line to %s.tmp", path);
  if (!finish_reading(&temp, std::move(in), path))
    return false;

  if (!temp.commit()) {
    if (report == RenameReport::kLogPath)
      log_error("Error while rename file %s: %s\n", path);
    else
      print_error("Error while rename file %s: %s\n", temp_name(path));
    return false;
  }
  return true;
}

// The new lines first, then the old contents without the lines equal to
// one of `drop`, through the temporary file: what an exact removal of
// `drop` followed by a prepend would leave, in one rewrite. The old file
// must exist; when it does not, the temporary file is left holding the new
// lines.
// A line kept by a removal that ends with the watched text, if one is
// watched, is noted.
struct Watch {
  const char* suffix = nullptr;
  bool* seen = nullptr;
  void look(std::string_view piece) const {
    if (suffix && !*seen && matches(kMatchSuffix, piece, suffix))
      *seen = true;
  }
};

bool prepend(const char* path, const char* const* lines,
             const char* const* drop, const Watch& watch = Watch()) {
  StreamBuffer in_buffer, out_buffer;
  AtomicFile temp;
  if (!create_temp(path, &temp, &out_buffer))
    return false;
  const std::string temp_path = temp_name(path);
  if (write_strings(temp.stream(), lines) != 0) {
    log_error("Unable to fputs to file %s: %s\n", temp_path.c_str());
    return false;
  }
  UniqueFile in(open_old(path, &in_buffer));
  if (!in) {
    temp.abandon();  // the new lines stay for whoever looks into it
    return false;
  }

  if (!copy_pieces(in.get(), temp.stream(), [drop, &watch](std::string_view piece) {
        size_t copies = copies_unless_given(piece, drop);
        if (copies != 0)
          watch.look(piece);
        return copies;
      })) {
    log_error("Unable to fputs to file %s: %s\n", temp_path.c_str());
    return false;
  }
  if (!finish_reading(&temp, std::move(in), path))
    return false;

  if (!temp.commit()) {
    print_error("Unable to rename file %s: %s\n", temp_path);
    return false;
  }
  return true;
}

// Appending writes in place: the only edit a reader may see half done,
// which is harmless for a line that is being added.
bool append(const char* path, const char* const* lines) {
  UniqueFile out(open_stream(path, O_WRONLY | O_APPEND | O_CREAT, "a"));
  if (!out) {
    log_error("Unable to open file %s: %s\n", path);
    return false;
  }
  if (write_strings(out.get(), lines) != 0) {
    log_error("Unable to fputs to file %s: %s\n", path);
    return false;
  }
  return close_reported(std::move(out), path);
}

// An exact removal of `drop` followed by an append of `lines`, on a file
// that exists; `*failed` tells which of the two failed. A small file that
// holds none of `drop` (a new mailbox's .qmail) is read and appended to
// through one descriptor.
bool remove_append(const char* path, const char* const* drop, const char* const* lines,
                   int* failed) {
  *failed = kRemoveFailed;
  CopyCount copies = [drop](std::string_view piece) {
    return copies_unless_given(piece, drop);
  };
  // The file and its temporary are reached through one open of their
  // directory.
  tavix::PathParent parent;
  UniqueFile file;
  if (tavix::open_parent_nofollow(path, &parent))
    file = stream_of(tavix::openat_nofollow(parent.dir.get(), parent.name.c_str(),
                                            O_RDWR | O_APPEND, 0666),
                     "a+");
  if (file && keeps_everything(file.get(), copies)) {
    if (!remove_stale_temp(path, &parent))
      return false;
    *failed = kAppendFailed;
    // The read ended at the end of the file, where a write may follow it.
    if ((!feof(file.get()) && fseek(file.get(), 0, SEEK_END) != 0) ||
        write_strings(file.get(), lines) != 0) {
      log_error("Unable to fputs to file %s: %s\n", path);
      return false;
    }
    return close_reported(std::move(file), path);
  }
  file.reset();  // the removal reads it again and reports its failures
  if (!rewrite_filtered(path, copies, RenameReport::kLogPath))
    return false;
  *failed = kAppendFailed;
  return append(path, lines);
}

// Changes the contents as (op, how) says. False after reporting a failure.
bool edit_contents(const char* path, const char* const* lines, int op, int how,
                   bool existed) {
  switch (op) {
    case kLinesAdd:
      if (how == kAddPrepend)
        return prepend(path, lines, kNoLines);
      if (how == kAddAppend)
        return append(path, lines);
      return true;
    case kLinesRemove:
      // Nothing to remove from, and nothing worth a message.
      if (!existed)
        return false;
      return rewrite_filtered(
          path,
          [lines](std::string_view piece) {
            return copies_unless_given(piece, lines);
          },
          RenameReport::kLogPath);
    case kLinesRemoveBy:
      return rewrite_filtered(
          path,
          [lines, how](std::string_view piece) {
            return copies_before_match(piece, lines, how);
          },
          RenameReport::kPrintTemp);
    default:
      return true;
  }
}

// Runs `edit` on `path` under the file's lock; `edit` is told whether the
// file existed and reports its own failures. 0, or 1 after reporting.
int edit_locked(const char* path, const std::function<bool(bool existed)>& edit) {
  ScopedLock lock(mk_lock(path, 1));
  if (!lock.locked()) {
    log_error("Error occurred while locking the file %s: %s\n", path);
    return 1;
  }

  struct stat saved;
  bool existed = true;
  if (stat(path, &saved) != 0) {
    if (errno != ENOENT) {
      log_error("file_str: Unable to stat file %s: %s\n", path);
      // Kept as it always was: this rare path holds the lock until exit.
      lock.keep_until_exit();
      return 1;
    }
    existed = false;
  }

  // A rewritten file takes the old one's owner and mode; an append leaves
  // them as they are, and a file it creates keeps those it was made with.
  bool edited = edit(existed);
  // Even a failed edit may have replaced the file (its owner or mode could
  // not be set afterwards).
  qmail_note_edit(path, true);
  if (!edited)
    return 1;
  if (lock.release() != 0) {
    log_error("Error occurred while unlocking the file %s: %s\n", path);
    return 1;
  }
  return 0;
}


// --- Held editing ------------------------------------------------------------
//
// A held file is kept as the pieces copy_pieces() would read from it, so
// that every filter judges exactly what it would judge on the file.

// The pieces of a held file, with how often each line occurs, so that an
// exact removal of lines the file does not hold (adding a new name to a
// large users/assign) costs no pass over the file. The pieces point into
// the text read from the file or into pieces added since, kept in a deque
// (which never moves its elements): loading users/assign, a line per
// address of the server, makes no copy of each line.
class HeldLines {
 public:
  HeldLines() = default;
  // The views would go on pointing into the original's text.
  HeldLines(const HeldLines&) = delete;
  HeldLines& operator=(const HeldLines&) = delete;

  const std::deque<std::string_view>& pieces() const { return pieces_; }

  // The pieces copy_pieces() would judge in `text`: each one read as
  // fgets() reads it, counting up to a NUL byte in it.
  void load(std::string text) {
    text_ = std::move(text);
    for (std::string_view rest(text_); !rest.empty();) {
      size_t length = piece_length(rest, true);
      std::string_view piece = rest.substr(0, length);
      push_back_view(piece.substr(0, piece.find('\0')));
      rest.remove_prefix(length);
    }
  }
  void push_back(std::string piece) { push_back_view(own(std::move(piece))); }
  void push_front(std::string piece) {
    std::string_view view = own(std::move(piece));
    ++count_[key(view)];
    pieces_.push_front(view);
  }
  // The last piece when it lacks its newline (taken out), else empty.
  std::string take_unfinished() {
    if (pieces_.empty() || (!pieces_.back().empty() && pieces_.back().back() == '\n'))
      return std::string();
    std::string last(pieces_.back());
    forget(pieces_.back());
    pieces_.pop_back();
    return last;
  }
  // True when a piece is one of `lines` (as is_given_line() judges).
  bool holds_any(const char* const* lines) const {
    for (; *lines; ++lines) {
      std::string_view given(*lines);
      if (count_.count(given.substr(0, given.find('\n'))) != 0)
        return true;
    }
    return false;
  }
  // Keeps each piece as often as `copies` says.
  void filter(const CopyCount& copies) {
    std::deque<std::string_view> kept;
    for (std::string_view piece : pieces_) {
      size_t n = copies(piece);
      if (n == 0)
        forget(piece);
      for (size_t i = 1; i < n; ++i)
        ++count_[key(piece)];
      kept.insert(kept.end(), n, piece);
    }
    pieces_.swap(kept);
  }

 private:
  static std::string_view key(std::string_view piece) { return without_newline(piece); }
  std::string_view own(std::string piece) {
    owned_.push_back(std::move(piece));
    return owned_.back();
  }
  void push_back_view(std::string_view piece) {
    ++count_[key(piece)];
    pieces_.push_back(piece);
  }
  void forget(std::string_view piece) {
    auto found = count_.find(key(piece));
    if (found != count_.end() && --found->second == 0)
      count_.erase(found);
  }

  std::string text_;
  std::deque<std::string> owned_;
  std::deque<std::string_view> pieces_;
  std::unordered_map<std::string_view, size_t> count_;
};

struct HeldFile {
  explicit HeldFile(lock_handle* handle) : lock(handle) {}
  ScopedLock lock;
  bool existed = false;
  bool changed = false;
  HeldLines lines;
};

struct Holding {
  bool active = false;
  std::set<std::string> paths;
  std::map<std::string, std::unique_ptr<HeldFile>> files;
};

Holding& holding() {
  static Holding state;
  return state;
}

// Cuts `text` into the pieces fgets() would read from it.
std::vector<std::string> text_pieces(std::string_view text) {
  std::vector<std::string> pieces;
  while (!text.empty()) {
    size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
    length = std::min(length, static_cast<size_t>(kPieceBuffer - 1));
    pieces.emplace_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return pieces;
}

// What write_strings() would write.
std::string lines_text(const char* const* lines) {
  std::string text;
  for (; *lines; ++lines) {
    text += *lines;
    if (text.empty() || text.back() != '\n')
      text += '\n';
  }
  return text;
}

bool read_pieces(const char* path, HeldLines* lines) {
  UniqueFd in(tavix::open_nofollow(path, O_RDONLY));
  if (!in) {
    log_error("Unable to open file %s: %s\n", path);
    return false;
  }
  std::string text;
  if (!tavix::read_to_end(in.get(), &text)) {
    log_error("Unable to read file %s: %s\n", path);
    return false;
  }
  lines->load(std::move(text));
  return true;
}

// The held copy of `path`, loaded under its lock on first use. Null with
// `*failed` false when the path is not held now; null with `*failed` true
// after reporting a failure.
HeldFile* held_file(const char* path, bool* failed) {
  *failed = false;
  Holding& state = holding();
  if (!state.active || state.paths.count(path) == 0)
    return nullptr;
  auto found = state.files.find(path);
  if (found != state.files.end())
    return found->second.get();

  auto file = std::make_unique<HeldFile>(mk_lock(path, 1));
  *failed = true;
  if (!file->lock.locked()) {
    log_error("Error occurred while locking the file %s: %s\n", path);
    return nullptr;
  }
  struct stat saved;
  file->existed = stat(path, &saved) == 0;
  if (!file->existed && errno != ENOENT) {
    log_error("file_str: Unable to stat file %s: %s\n", path);
    return nullptr;
  }
  if (file->existed && !read_pieces(path, &file->lines))
    return nullptr;
  *failed = false;
  return (state.files[path] = std::move(file)).get();
}

void filter_held(HeldFile* file, const CopyCount& copies) {
  file->lines.filter(copies);
  file->changed = true;
}

// What open_old() says about a file that is not there.
bool missing_held(const char* path) {
  errno = ENOENT;
  log_error("Unable to open file %s: %s\n", path);
  return false;
}

bool prepend_held(HeldFile* file, const char* path, const char* const* lines,
                  const char* const* drop, const Watch& watch = Watch()) {
  if (!file->existed)
    return missing_held(path);
  if (file->lines.holds_any(drop)) {
    file->lines.filter([drop](std::string_view piece) {
      return copies_unless_given(piece, drop);
    });
  }
  if (watch.suffix) {
    for (std::string_view piece : file->lines.pieces())
      watch.look(piece);
  }
  std::vector<std::string> pieces = text_pieces(lines_text(lines));
  for (auto piece = pieces.rbegin(); piece != pieces.rend(); ++piece)
    file->lines.push_front(std::move(*piece));
  file->changed = true;
  return true;
}

// The appended text joins a last line that has no newline, as it does in
// the file.
bool append_held(HeldFile* file, const char* const* lines) {
  for (std::string& piece : text_pieces(file->lines.take_unfinished() + lines_text(lines)))
    file->lines.push_back(std::move(piece));
  file->existed = true;
  file->changed = true;
  return true;
}

bool edit_held(HeldFile* file, const char* path, const char* const* lines, int op,
               int how) {
  switch (op) {
    case kLinesAdd:
      if (how == kAddPrepend)
        return prepend_held(file, path, lines, kNoLines);
      if (how == kAddAppend)
        return append_held(file, lines);
      return true;
    case kLinesRemove:
      if (!file->existed)
        return false;
      if (file->lines.holds_any(lines)) {
        filter_held(file, [lines](std::string_view piece) {
          return copies_unless_given(piece, lines);
        });
      }
      return true;
    case kLinesRemoveBy:
      if (!file->existed)
        return missing_held(path);
      filter_held(file, [lines, how](std::string_view piece) {
        return copies_before_match(piece, lines, how);
      });
      return true;
    default:
      return true;
  }
}

// The held copy of `path` written over the file, with the owner and mode
// the file has now (a command may have changed them since the copy was
// read). False after reporting.
bool write_held(const std::string& path, const HeldFile& file) {
  StreamBuffer buffer;
  AtomicFile temp;
  if (!create_temp(path.c_str(), &temp, &buffer))
    return false;
  for (std::string_view piece : file.lines.pieces()) {
    if (!write_bytes(temp.stream(), piece.data(), piece.size())) {
      log_error("Unable to fputs to file %s: %s\n", temp_name(path.c_str()).c_str());
      return false;
    }
  }
  UniqueFile current(open_stream(path.c_str(), O_RDONLY, "r"));
  if (current && !give_attributes(&temp, current.get(), path.c_str()))
    return false;
  if (!temp.sync() || !temp.commit()) {
    print_error("Unable to rename file %s: %s\n", temp_name(path.c_str()));
    return false;
  }
  return true;
}

// Writes `path` when it changed and releases its lock. False after
// reporting.
bool release_held(const std::string& path, HeldFile* file) {
  bool written = !file->changed || write_held(path, *file);
  if (file->changed)
    qmail_note_edit(path.c_str(), true);
  if (file->lock.release() != 0) {
    log_error("Error occurred while unlocking the file %s: %s\n", path.c_str());
    return false;
  }
  return written;
}

}  // namespace

int write_strings(FILE* stream, const char* const* lines) {
  for (; lines && *lines; ++lines) {
    size_t length = strlen(*lines);
    if (fputs(*lines, stream) == EOF)
      return -1;
    if ((length == 0 || (*lines)[length - 1] != '\n') &&
        fputc('\n', stream) == EOF)
      return -1;
  }
  return 0;
}

int file_strings(const char* path, const char* const* lines, int op, int how) {
  if (!lines)
    lines = kNoLines;
  bool failed = false;
  if (HeldFile* file = held_file(path, &failed))
    return edit_held(file, path, lines, op, how) ? 0 : 1;
  if (failed)
    return 1;
  return edit_locked(path, [=](bool existed) {
    return edit_contents(path, lines, op, how, existed);
  });
}

int file_remove_prepend(const char* path, const char* const* drop,
                        const char* const* lines) {
  return file_remove_prepend_watch(path, drop, lines, nullptr, nullptr);
}

int file_remove_prepend_watch(const char* path, const char* const* drop,
                              const char* const* lines, const char* suffix, bool* seen) {
  Watch watch;
  if (suffix && seen) {
    watch.suffix = suffix;
    watch.seen = seen;
    *seen = false;
  }
  if (!drop)
    drop = kNoLines;
  if (!lines)
    lines = kNoLines;
  bool failed = false;
  if (HeldFile* file = held_file(path, &failed))
    return prepend_held(file, path, lines, drop, watch) ? 0 : 1;
  if (failed)
    return 1;
  // A missing file fails at the prepend, as it would after the removal.
  return edit_locked(path, [=](bool) { return prepend(path, lines, drop, watch); });
}

int file_remove_append(const char* path, const char* const* drop, const char* const* lines) {
  if (!drop)
    drop = kNoLines;
  if (!lines)
    lines = kNoLines;
  bool failed = false;
  if (HeldFile* file = held_file(path, &failed)) {
    if (!edit_held(file, path, drop, kLinesRemove, 0))
      return kRemoveFailed;
    return edit_held(file, path, lines, kLinesAdd, kAddAppend) ? 0 : kAppendFailed;
  }
  if (failed)
    return kRemoveFailed;
  int failed_step = kRemoveFailed;
  int result = edit_locked(path, [&](bool existed) {
    // Nothing to remove from, and nothing worth a message.
    return existed && remove_append(path, drop, lines, &failed_step);
  });
  return result == 0 ? 0 : failed_step;
}

int file_str(const char* path, const char* line, int op, int how) {
  const char* const lines[] = {line, nullptr};
  return file_strings(path, lines, op, how);
}

void line_files_hold(const char* const* paths) {
  Holding& state = holding();
  state.active = true;
  for (; paths && *paths; ++paths)
    state.paths.insert(*paths);
}

int line_files_write_held() {
  Holding& state = holding();
  int result = 0;
  for (auto& entry : state.files) {
    if (!release_held(entry.first, entry.second.get()))
      result = 1;
  }
  state.files.clear();
  state.paths.clear();
  state.active = false;
  return result;
}

void line_files_drop_held() {
  Holding& state = holding();
  for (auto& entry : state.files) {
    if (entry.second->lock.release() != 0)
      log_error("Error occurred while unlocking the file %s: %s\n", entry.first.c_str());
  }
  state.files.clear();
  state.paths.clear();
  state.active = false;
}

int line_file_write_held(const char* path) {
  Holding& state = holding();
  auto found = state.files.find(path);
  if (found == state.files.end())
    return 0;
  bool written = release_held(found->first, found->second.get());
  state.files.erase(found);
  return written ? 0 : 1;
}

bool line_files_hold_descriptor(int fd) {
  for (const auto& entry : holding().files) {
    const lock_handle* handle = entry.second->lock.get();
    if (handle && handle->descriptor == fd)
      return true;
  }
  return false;
}
