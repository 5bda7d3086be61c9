// Where qmail's files and the mailbox tree are. Every module of the qmail
// back end forms its paths here, so that the roots are spelled once.
#ifndef DRAVNIK_QMAIL_PATHS_H_
#define DRAVNIK_QMAIL_PATHS_H_

#include <string>

namespace tavix {
namespace qmail {

// qmail's own root; fixed, qmail looks nowhere else.
extern const char* const kQmailRoot;  // "/var/qmail"

// A file under the qmail root, from its suffix: qmail_file("/control/rcpthosts").
std::string qmail_file(const char* suffix);

// The mail names root: TAVIX_MAILNAMES_D from the product configuration,
// "/var/qmail/mailnames" by default.
std::string mailnames_root();

// <mail names root>/<domain>; the caller passes the domain in the form that
// is to appear on disk (lower-case ASCII).
std::string domain_dir(const std::string& domain);
// <mail names root>/<domain>/<mailname>
std::string mailname_dir(const std::string& domain, const std::string& mailname);
// <mail names root>/<domain>/<mailname>/Maildir
std::string maildir_path(const std::string& domain, const std::string& mailname);
// <mail names root>/<domain>/<mailname>/.qmail, the mail name's delivery file
std::string dotqmail_file(const std::string& domain, const std::string& mailname);

}  // namespace qmail
}  // namespace tavix

#endif  // DRAVNIK_QMAIL_PATHS_H_
