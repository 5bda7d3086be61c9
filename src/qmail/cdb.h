// Look-ups in qmail's constant databases, such as users/cdb, which
// qmail-newu compiles from users/assign and qmail's local delivery reads.
//
// The format: a header of 256 (position, slot count) pairs, one hash table
// per low byte of a key's hash; then the records, each its key length,
// data length, key and data; then the hash tables, whose slots hold a
// key's hash and its record's position (0: an empty slot). Numbers are
// 32-bit little-endian. A key's search starts at slot (hash >> 8) modulo
// the table's count and goes on, wrapping, to the first empty slot.
#ifndef DRAVNIK_QMAIL_CDB_H_
#define DRAVNIK_QMAIL_CDB_H_

#include <cstdint>
#include <string>

namespace tavix {
namespace qmail {

uint32_t cdb_hash(const std::string& key);

// Finds `key` in the database open on `fd` (read with pread(), so the
// descriptor's offset does not matter): 1 with the data of the first
// record under that key in `*data`, 0 when there is none, -1 when the file
// cannot be read (errno tells why) or is not a whole database (EINVAL): a
// position or length that points outside the file.
int cdb_find(int fd, const std::string& key, std::string* data);

}  // namespace qmail
}  // namespace tavix

#endif  // DRAVNIK_QMAIL_CDB_H_
