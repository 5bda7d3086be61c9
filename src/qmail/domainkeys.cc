#include "qmail/domainkeys.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "qmail/file_copy.h"
#include "util/account.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/strings.h"
#include "util/unique_free.h"

const char* const kDomainKeysDir = "/etc/domainkeys";

namespace {

const char kKeyName[] = "default";
const char kMailUser[] = "popuser";
// Longest path these functions form, as the C library allows.
const size_t kMaxPath = 4095;

struct ArrayDeleter {
  void operator()(char** array) const { free_array(array); }
};
using UniqueArray = std::unique_ptr<char*, ArrayDeleter>;

// A lower-cased heap copy; null after logging when memory runs out.
tavix::unique_free<char> lower_copy(const char* name) {
  tavix::unique_free<char> copy(strdup(name));
  if (!copy)
    tavix_log(LOG_ERR, "cannot convert %s to lower case", name);
  strtolower(copy.get());
  return copy;
}

// printf into a string that must not exceed kMaxPath characters; false
// when it does (or formatting fails).
bool format_path(std::string* out, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
bool format_path(std::string* out, const char* format, ...) {
  char buffer[kMaxPath + 1];
  va_list ap;
  va_start(ap, format);
  int length = vsnprintf(buffer, sizeof(buffer), format, ap);
  va_end(ap);
  if (length < 0 || static_cast<size_t>(length) > kMaxPath)
    return false;
  out->assign(buffer, length);
  return true;
}

bool domain_key_dir(std::string* dir, const char* domain) {
  if (format_path(dir, "%s/%s", kDomainKeysDir, domain))
    return true;
  tavix_log(LOG_ERR, "Domain name '%s' is too long to be stored in %s", domain, kDomainKeysDir);
  return false;
}

bool domain_key_file(std::string* file, const char* domain) {
  if (format_path(file, "%s/%s/%s", kDomainKeysDir, domain, kKeyName))
    return true;
  tavix_log(LOG_ERR, "File name '%s' is too long to be stored in %s/%s", kKeyName, kDomainKeysDir,
            domain);
  return false;
}

// The key directory is named by the domain alone: a name that is not one
// path component would reach outside the store (rm_tree of "" is the whole
// store). Empty fields are what a trailing comma leaves and name nothing.
bool is_component(const char* name) {
  return strchr(name, '/') == nullptr && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// Calls `action` with each lower-cased name of the comma-separated list.
// Every name is tried; 0 when all succeeded, else -1.
template <typename Action>
int for_each_domain(const char* domains, Action action) {
  UniqueArray names(domains ? string_split(domains, ",") : nullptr);
  if (!names) {
    tavix_log(LOG_ERR, "cannot split domains list '%s'\n", domains ? domains : "(null)");
    return -1;
  }
  int result = 0;
  for (char** name = names.get(); *name; ++name) {
    if (**name == '\0')
      continue;
    tavix::unique_free<char> lower = lower_copy(*name);
    if (!lower) {
      result = -1;
      continue;
    }
    if (!is_component(lower.get())) {
      tavix_log(LOG_ERR, "Domain name '%s' is not a valid name in %s", lower.get(),
                kDomainKeysDir);
      result = -1;
      continue;
    }
    if (!action(lower.get()))
      result = -1;
  }
  return result;
}

}  // namespace

char* get_domainkeys_file(const char* domain) {
  if (domain == nullptr)
    return nullptr;
  tavix::unique_free<char> lower = lower_copy(domain);
  std::string file;
  if (!lower || !domain_key_file(&file, lower.get()))
    return nullptr;
  return strdup(file.c_str());
}

int domainkeys_enabled(const char* domain) {
  tavix::unique_free<char> file(get_domainkeys_file(domain));
  struct stat info;
  return file && stat(file.get(), &info) == 0 && S_ISREG(info.st_mode) ? 1 : 0;
}

int set_domain_key(const char* domains, const char* key_file) {
  struct stat info;
  if (key_file == nullptr || stat(key_file, &info) != 0) {
    tavix_log(LOG_ERR, "No source file '%s': %s", key_file ? key_file : "(null)",
              strerror(key_file ? errno : EINVAL));
    return -1;
  }
  // The mail system signs as popuser; root keeps the key to itself otherwise.
  gid_t gid = tavix_ugid(kMailUser, 1);
  return for_each_domain(domains, [&](const char* domain) {
    std::string dir, file;
    if (!domain_key_dir(&dir, domain))
      return false;
    make_dir_p(dir.c_str(), 0, 0, 0755);
    if (!domain_key_file(&file, domain))
      return false;
    copy_file_atomic(key_file, file.c_str(), 0, gid, 0440);
    return true;
  });
}

int clone_domain_key(const char* domain, const char* domains) {
  if (!domainkeys_enabled(domain))
    return 0;
  tavix::unique_free<char> file(get_domainkeys_file(domain));
  if (!file) {
    tavix_log(LOG_ERR, "Cannot get domainkeys key file for %s", domain);
    return -1;
  }
  return set_domain_key(domains, file.get());
}

int remove_domain_key(const char* domains) {
  return for_each_domain(domains, [](const char* domain) {
    std::string dir;
    if (!domain_key_dir(&dir, domain))
      return false;
    rm_tree(dir.c_str(), 1);
    return true;
  });
}
