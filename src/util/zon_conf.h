// The product configuration file and a reader for files of its syntax:
//
//   # comment
//   NAME   value with inner blanks   # comment
//
// A name is a run of letters, digits and underscores followed by white
// space; the value runs to a "#" or the end of the line, trailing blanks
// removed. Malformed lines are skipped with a warning.
#ifndef DRAVNIK_UTIL_ZON_CONF_H_
#define DRAVNIK_UTIL_ZON_CONF_H_

#include <string>
#include <vector>

// The product configuration file.
extern const char* const kZonConfPath;

// The variables the program knows, with their compiled-in defaults, as
// parallel tables; the first and the last entries only mark the range.
enum {
  ZON_CONF_MIN_INDEX = 0,
  ZON_CONF_TAVIX_MAILNAMES_D = 1,
  ZON_CONF_PRODUCT_ROOT_D = 28,
  ZON_CONF_MAX_INDEX = 29,
  ZON_CONF_COUNT = 30
};
extern const char* const theZonConfNames[ZON_CONF_COUNT];
extern const char* const theZonConfDefauls[ZON_CONF_COUNT];

// The value of `name` in the configuration file, or null. The file is read
// on first use; a failed read is tried again by the next call. The pointer
// stays valid for the life of the process.
const char* zonConfGet(const char* name);
// Reads the configuration file unless it was read already. 0 or -1.
int autoprepend();
// zonConfGet() of the variable at `index`; a found value is remembered.
const char* zonConfGetByIndex(int index);
// zonConfGetByIndex(), or the compiled-in default.
const char* zonConfGetDefaultByIndex(int index);
// The file's value of a known variable or its default; null, with a log
// line, for a name that is not known.
const char* zonConfGetDefault(const char* name);

// A name-value store filled by conf_set_r() and made searchable by
// conf_finalize_r(). When a name is defined twice the later value wins.
struct conf_entry {
  std::string name;
  std::string value;
};
struct conf_t {
  std::vector<conf_entry> entries;
};

// Orders entries by name (strcmp order).
bool cmp_conf(const conf_entry& a, const conf_entry& b);

// The reader's functions return 0 or -1 after logging why.
int conf_init_r(conf_t* store);
int conf_set_r(conf_t* store, const char* name, const char* value);
int conf_finalize_r(conf_t* store);
// The value of `name` in a finalized store, or null.
const char* conf_get_r(const char* name, const conf_t* store);
// Empties `store` and fills it from the file at `path`.
int conf_read_file_r(const char* path, conf_t* store);
void conf_free_r(conf_t* store);

#endif  // DRAVNIK_UTIL_ZON_CONF_H_
