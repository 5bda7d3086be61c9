#include "util/zon_conf.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "util/fs.h"
#include "util/log.h"

const char* const kZonConfPath = "/etc/zon/zon.conf";

const char* const theZonConfNames[ZON_CONF_COUNT] = {
    "_MIN_POSSIBLE_ZON_CONF_VAR_NAME",
    "TAVIX_MAILNAMES_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "MYSQL_SOCKET",
    "SA_MAX_MAIL_SIZE",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_ZON_CONF_VAR_NAME",
};

const char* const theZonConfDefauls[ZON_CONF_COUNT] = {
    "_MIN_POSSIBLE_ZON_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/usr/sbin/rblsmtpd",
    "/usr/local/zon/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/var/www/html/awstats",
    "/usr/share/awstats",
    "/var/www/cgi-bin/awstats",
    "/etc/awstats",
    "/usr/share/tomcat",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/zon/dumps",
    "/tmp",
    "/var/named/chroot",
    "httpd",
    "/var/log/httpd",
    "/etc/httpd/conf.d",
    "/etc/httpd/conf",
    "/var/www/vhosts",
    "/var/lib/mysql/mysql.sock",
    "256000",
    "/usr/local/zon",
    "_MAX_POSSIBLE_ZON_CONF_VAR_VALUE",
};

namespace {

// The configuration reader's warnings go to the user facility.
const int kConfWarning = 12;  // LOG_USER | LOG_WARNING

// The product configuration, loaded on first use and kept for the life of
// the process, since callers hold pointers to its values.
std::unique_ptr<conf_t> g_zon_conf;
const char* g_value_cache[ZON_CONF_COUNT];

bool is_name_char(char c) {
  return isalnum(static_cast<unsigned char>(c)) || c == '_';
}

bool is_blank(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

// Adds the definition on `line` (without its newline) to `store`; blank,
// comment and malformed lines add nothing. -1 only when storing failed.
int add_definition(conf_t* store, const char* line) {
  const char* p = line;
  while (is_blank(*p))
    ++p;
  if (*p == '\0' || *p == '#')
    return 0;
  const char* name = p;
  while (is_name_char(*p))
    ++p;
  const char* name_end = p;
  if (*p != '\0' && !is_blank(*p)) {
    tavix_log(kConfWarning,
              "Invalid variable definition %s\n"
              "Expected a space after variable name\n",
              name);
    return 0;
  }
  while (is_blank(*p))
    ++p;
  const char* value_end = p + strcspn(p, "#");
  while (value_end > p && is_blank(value_end[-1]))
    --value_end;
  if (value_end == p) {
    tavix_log(kConfWarning,
              "Invalid variable definition %s\nExpected a value", name);
    return 0;
  }
  try {
    std::string name_text(name, name_end);
    std::string value_text(p, value_end);
    return conf_set_r(store, name_text.c_str(), value_text.c_str());
  } catch (const std::bad_alloc&) {
    tavix_log(3, "Unable to form configuration: %s", strerror(ENOMEM));
    return -1;
  }
}

// The buffer getline() grows, freed on every way out.
struct LineBuffer {
  char* data = nullptr;
  size_t capacity = 0;
  LineBuffer() = default;
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
  ~LineBuffer() { free(data); }
};

}  // namespace

bool cmp_conf(const conf_entry& a, const conf_entry& b) {
  return strcmp(a.name.c_str(), b.name.c_str()) < 0;
}

int conf_init_r(conf_t* store) {
  store->entries.clear();
  try {
    store->entries.reserve(ZON_CONF_COUNT);
  } catch (const std::bad_alloc&) {
    tavix_log(3, "Unable to read configuration: %s", strerror(ENOMEM));
    return -1;
  }
  return 0;
}

int conf_set_r(conf_t* store, const char* name, const char* value) {
  try {
    store->entries.push_back(conf_entry{name, value});
  } catch (const std::bad_alloc&) {
    tavix_log(3, "Unable to form configuration: %s", strerror(ENOMEM));
    return -1;
  }
  return 0;
}

int conf_finalize_r(conf_t* store) {
  std::vector<conf_entry>& entries = store->entries;
  // A stable sort keeps definitions of one name in file order, so keeping
  // the last of each run lets a later definition override an earlier one.
  std::stable_sort(entries.begin(), entries.end(), cmp_conf);
  size_t kept = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i + 1 < entries.size() && entries[i + 1].name == entries[i].name)
      continue;
    if (kept != i)
      entries[kept] = std::move(entries[i]);
    ++kept;
  }
  entries.resize(kept);
  return 0;
}

const char* conf_get_r(const char* name, const conf_t* store) {
  conf_entry key{name, ""};
  auto it = std::lower_bound(store->entries.begin(), store->entries.end(),
                             key, cmp_conf);
  if (it == store->entries.end() || it->name != name)
    return nullptr;
  return it->value.c_str();
}

int conf_read_file_r(const char* path, conf_t* store) {
  if (conf_init_r(store) != 0)
    return -1;
  tavix::UniqueFile file(fopen(path, "re"));
  if (!file) {
    int saved = errno;
    tavix_log(kConfWarning, "unable to open configuration file %s: %s\n",
              path, strerror(saved));
    errno = saved;
    return -1;
  }
  LineBuffer line;
  for (;;) {
    errno = 0;
    ssize_t length = getline(&line.data, &line.capacity, file.get());
    if (length < 0)
      break;
    if (length > 0 && line.data[length - 1] == '\n')
      line.data[length - 1] = '\0';
    if (add_definition(store, line.data) != 0) {
      conf_finalize_r(store);
      return -1;
    }
  }
  int read_error = ferror(file.get()) ? (errno ? errno : EIO) : 0;
  conf_finalize_r(store);
  if (read_error) {
    tavix_log(kConfWarning, "Unable to read configuration file: %s",
              strerror(read_error));
    errno = read_error;
    return -1;
  }
  return 0;
}

void conf_free_r(conf_t* store) {
  std::vector<conf_entry>().swap(store->entries);
}

int autoprepend() {
  if (g_zon_conf)
    return 0;
  std::fill(std::begin(g_value_cache), std::end(g_value_cache), nullptr);
  std::unique_ptr<conf_t> store(new (std::nothrow) conf_t);
  if (!store) {
    tavix_log(3,
              "Not enough memory to allocate Tavix runtime configuration "
              "structure");
    return -1;
  }
  // On failure the store is dropped, so that the next look-up reads the
  // file again.
  int rc = conf_read_file_r(kZonConfPath, store.get());
  if (rc != 0)
    return rc;
  g_zon_conf = std::move(store);
  return 0;
}

const char* zonConfGet(const char* name) {
  if (autoprepend() != 0)
    return nullptr;
  return conf_get_r(name, g_zon_conf.get());
}

const char* zonConfGetByIndex(int index) {
  if (index < 0 || index >= ZON_CONF_COUNT)
    return nullptr;
  if (!g_value_cache[index])
    g_value_cache[index] = zonConfGet(theZonConfNames[index]);
  return g_value_cache[index];
}

const char* zonConfGetDefaultByIndex(int index) {
  if (index < 0 || index >= ZON_CONF_COUNT)
    return nullptr;
  const char* value = zonConfGetByIndex(index);
  return value ? value : theZonConfDefauls[index];
}

const char* zonConfGetDefault(const char* name) {
  for (int i = ZON_CONF_MIN_INDEX; i < ZON_CONF_MAX_INDEX; ++i) {
    if (strcmp(name, theZonConfNames[i]) == 0)
      return zonConfGetDefaultByIndex(i);
  }
  tavix_log(3,
            "variable '%s' was found neither in %s, nor in compile-time "
            "defaults",
            name, kZonConfPath);
  return nullptr;
}
