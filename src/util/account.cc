#include "util/account.h"

#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "util/exec.h"
#include "util/log.h"

namespace {

struct AddrinfoDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

int report_fqdn_failure() {
  tavix_log(3,
            "It is impossible to detect the FQDN of the host.\n"
            "Please make sure that the host name is correctly specified in "
            "/etc/hosts and goes right after the host's IP address.\n"
            "Depending on your OS, you might need to set the host name in "
            "/etc/HOSTNAME or /etc/hostname.");
  return -1;
}

bool all_digits(const char* text) {
  if (!*text)
    return false;
  for (; *text; ++text) {
    if (*text < '0' || *text > '9')
      return false;
  }
  return true;
}

}  // namespace

int tavix_getpw(const char* user, uid_t* uid, gid_t* gid, char** home) {
  uid_t found_uid;
  gid_t found_gid;
  if (!home && tavix_account_ids(user, &found_uid, &found_gid)) {
    if (uid)
      *uid = found_uid;
    if (gid)
      *gid = found_gid;
    return 0;
  }
  errno = 0;
  struct passwd* pw = getpwnam(user);
  char* home_copy = nullptr;
  if (pw && home) {
    home_copy = strdup(pw->pw_dir);
    if (!home_copy)
      pw = nullptr;
  }
  if (!pw) {
    messlog2(0, 0, "Unable to getpwnam for user %s", user);
    return -1;
  }
  if (uid)
    *uid = pw->pw_uid;
  if (gid)
    *gid = pw->pw_gid;
  if (home)
    *home = home_copy;
  return 0;
}

bool tavix_account_ids(const char* user, uid_t* uid, gid_t* gid) {
  static std::map<std::string, std::pair<uid_t, gid_t>> found;
  auto known = found.find(user);
  if (known == found.end()) {
    const struct passwd* pw = getpwnam(user);
    if (!pw)
      return false;
    known = found.emplace(user, std::make_pair(pw->pw_uid, pw->pw_gid)).first;
  }
  *uid = known->second.first;
  *gid = known->second.second;
  return true;
}

uid_t tavix_ugid(const char* user, int want_gid) {
  uid_t uid = 0;
  gid_t gid = 0;
  if (!tavix_account_ids(user, &uid, &gid))
    return 0;
  // gid_t and uid_t are the same type on Linux.
  return want_gid ? gid : uid;
}

gid_t get_group_id(const char* group) {
  errno = 0;
  struct group* found = nullptr;
  if (all_digits(group)) {
    unsigned long number = strtoul(group, nullptr, 10);
    if (errno == 0 && number <= UINT_MAX)
      found = getgrgid(static_cast<gid_t>(number));
    else if (errno == 0)
      errno = ERANGE;
    if (!found) {
      int saved = errno;
      messlog2(0, 0, "getgrgid(%d): %s", static_cast<int>(number),
               strerror(saved));
      errno = saved;
      return 0;
    }
  } else {
    found = getgrnam(group);
    if (!found) {
      int saved = errno;
      messlog2(0, 0, "getgrnam(%s): %s", group, strerror(saved));
      errno = saved;
      return 0;
    }
  }
  return found->gr_gid;
}

int get_hostname_fqdn(char* buffer, size_t length) {
  char host[65];
  if (gethostname(host, sizeof(host) - 1) != 0) {
    tavix_log(3, "Unable to get hostname: %s", strerror(errno));
    return report_fqdn_failure();
  }
  host[sizeof(host) - 1] = '\0';

  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_flags = AI_CANONNAME;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = nullptr;
  int rc = getaddrinfo(host, nullptr, &hints, &list);
  std::unique_ptr<addrinfo, AddrinfoDeleter> owner(list);
  if (rc != 0) {
    tavix_log(3, "Unable to resolve fqdn: %s",
              rc == EAI_SYSTEM ? strerror(errno) : gai_strerror(rc));
    return report_fqdn_failure();
  }
  if (!list || !list->ai_canonname) {
    tavix_log(3, "Unable to resolve fqdn");
    return report_fqdn_failure();
  }
  const char* canonical = list->ai_canonname;
  if (!strchr(canonical, '.')) {
    tavix_log(3, "Canonname is not correct fqdn");
    return report_fqdn_failure();
  }
  size_t name_length = strlen(canonical);
  if (length == 0 || name_length > length - 1) {
    tavix_log(3, "Buffer size is not enough to hold hostname");
    return -1;
  }
  memcpy(buffer, canonical, name_length + 1);
  return 0;
}

int send_sig(const char* name, int sig) { return send_sig(name, sig, nullptr); }

int send_sig(const char* name, int sig, std::string* failure) {
  char option[16];
  snprintf(option, sizeof(option), "-%d", sig);
  const char* const argv[] = {"/usr/bin/killall", option, name, nullptr};
  return tavix::run_reporting(argv[0], const_cast<char* const*>(argv), false, failure);
}
