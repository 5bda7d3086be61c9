#include "qmail/paths.h"

#include "util/zon_conf.h"

namespace tavix {
namespace qmail {

const char* const kQmailRoot = "/var/qmail";

std::string qmail_file(const char* suffix) {
  return std::string(kQmailRoot) + suffix;
}

std::string mailnames_root() {
  const char* root = zonConfGetDefault("TAVIX_MAILNAMES_D");
  return root ? root : "/var/qmail/mailnames";
}

std::string domain_dir(const std::string& domain) {
  return mailnames_root() + "/" + domain;
}

std::string mailname_dir(const std::string& domain, const std::string& mailname) {
  return domain_dir(domain) + "/" + mailname;
}

std::string maildir_path(const std::string& domain, const std::string& mailname) {
  return mailname_dir(domain, mailname) + "/Maildir";
}

std::string dotqmail_file(const std::string& domain, const std::string& mailname) {
  return mailname_dir(domain, mailname) + "/.qmail";
}

}  // namespace qmail
}  // namespace tavix
