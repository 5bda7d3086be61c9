#include "qmail/cdb.h"

#include <errno.h>
#include <sys/stat.h>

#include "util/fs.h"

namespace tavix {
namespace qmail {

namespace {

const off_t kHeaderSize = 256 * 8;

uint32_t Number(const unsigned char* bytes) {
  return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
         static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

// The file's bytes [offset, offset + size), all of them inside the file.
class Reader {
 public:
  explicit Reader(int fd) : fd_(fd) {}

  bool Open() {
    struct stat st;
    if (fstat(fd_, &st) != 0)
      return false;
    size_ = st.st_size;
    return Inside(0, kHeaderSize);
  }

  bool Read(off_t offset, void* buffer, size_t size) const {
    if (!Inside(offset, static_cast<off_t>(size)))
      return false;
    ssize_t n = read_at(fd_, buffer, size, offset);
    if (n >= 0 && static_cast<size_t>(n) != size)
      errno = EINVAL;  // shorter than fstat() said: replaced under us
    return n >= 0 && static_cast<size_t>(n) == size;
  }

  // Two numbers at `offset`.
  bool Pair(off_t offset, uint32_t* first, uint32_t* second) const {
    unsigned char bytes[8];
    if (!Read(offset, bytes, sizeof bytes))
      return false;
    *first = Number(bytes);
    *second = Number(bytes + 4);
    return true;
  }

 private:
  bool Inside(off_t offset, off_t size) const {
    if (offset >= 0 && size >= 0 && offset <= size_ && size <= size_ - offset)
      return true;
    errno = EINVAL;
    return false;
  }

  int fd_;
  off_t size_ = 0;
};

}  // namespace

uint32_t cdb_hash(const std::string& key) {
  uint32_t hash = 5381;
  for (unsigned char c : key)
    hash = ((hash << 5) + hash) ^ c;
  return hash;
}

int cdb_find(int fd, const std::string& key, std::string* data) {
  Reader file(fd);
  if (!file.Open())
    return -1;
  const uint32_t hash = cdb_hash(key);
  uint32_t table = 0, slots = 0;
  if (!file.Pair((hash & 255) * 8, &table, &slots))
    return -1;
  uint32_t slot = slots ? (hash >> 8) % slots : 0;
  // At most one look at every slot: a damaged table need not have an
  // empty one to stop at.
  for (uint32_t looked = 0; looked < slots; ++looked) {
    uint32_t slot_hash = 0, record = 0;
    if (!file.Pair(table + static_cast<off_t>(slot) * 8, &slot_hash, &record))
      return -1;
    if (record == 0)
      return 0;
    if (slot_hash == hash) {
      uint32_t key_size = 0, data_size = 0;
      if (!file.Pair(record, &key_size, &data_size))
        return -1;
      if (key_size == key.size()) {
        std::string found(key_size, '\0');
        if (!file.Read(record + 8, &found[0], key_size))
          return -1;
        if (found == key) {
          data->assign(data_size, '\0');
          return file.Read(static_cast<off_t>(record) + 8 + key_size, &(*data)[0], data_size)
                     ? 1
                     : -1;
        }
      }
    }
    if (++slot == slots)
      slot = 0;
  }
  return 0;
}

}  // namespace qmail
}  // namespace tavix
