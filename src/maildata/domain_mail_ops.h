// Keeping a domain's authentication records in step with its domain aliases.
//
// Mail for a domain alias is authenticated like mail for the domain itself,
// so every mail name and mail alias has one record under the domain and one
// under each domain alias, all with the same password. The session mail
// data (session_mail_data.h) says which names and aliases a domain has; the
// operations here answer from it and apply a change to every copy.
//
// Walks return -1 on failure (logged), 1 after walking a list and 0 when
// there was no list to walk. They stop at the first failure; what was
// written before it stays.
#ifndef DRAVNIK_MAILDATA_DOMAIN_MAIL_OPS_H_
#define DRAVNIK_MAILDATA_DOMAIN_MAIL_OPS_H_

#include <cstdint>
#include <string>
#include <vector>

// Look-ups in the session mail data. `context` is ignored. The answer goes
// to the out-parameter as a heap string or a null-terminated heap string
// array (free()/free_array()); null when nothing is known: another domain
// than the session's, an unknown mail name or alias, an empty list or an
// allocation failure. 0, or -1 when no session object exists (logged as
// the programming error it is).
int get_domain_by_domainalias(void* context, char** domain, const char* alias);
int get_mailnames_by_domain(void* context, char*** mailnames, const char* domain);
int get_aliases_by_mailname(void* context, char*** aliases, const char* mailname,
                            const char* domain);
int get_domaliases_by_domain(void* context, char*** dom_aliases, const char* domain);
int get_maillists_by_domain(void* context, char*** maillists, const char* domain);

// Sets (or, with a null or empty password, removes) mailname's record in
// the domain and in each domain alias. `flags` as for mailAuthSet().
int set_passwd_for_domains(const char* mailname, const char* domain, const char* password,
                           uint8_t flags);
// The same for the mail name and then for each of its mail aliases.
int set_mass_postbox_passwd(const char* mailname, const char* domain, const char* password,
                            uint8_t flags);
// Removes mailname's record from the domain and each domain alias.
int rm_mname_from_domains(const char* mailname, const char* domain);
// The same for the mail name and then for each of its mail aliases.
int rm_mails_from_domains(const char* mailname, const char* domain);
// Copies the records of every mail name of `domain` and of its mail
// aliases to `alias_domain`. Names without a record are skipped.
int add_domain_auth_alias(const char* domain, const char* alias_domain);
// Removes `alias_domain` with its records. 0 or -1.
int rm_domain_auth_alias(const char* alias_domain);

// An operation on one domain of the authentication database, such as
// mailAuthEnableDomain(); 0 on success.
typedef int (*domain_auth_action_fn)(const char* domain);
// Applies `action` to the domain and then to each domain alias.
// `action_name` completes the failure messages ("Unable to %s for ...").
int domain_auth_action(const char* domain, domain_auth_action_fn action,
                       const char* action_name);

namespace tavix {
namespace mail {

// Append the session's domain aliases, or its mailing lists, of `domain`
// to `out`. Without session data nothing is appended (the look-up has
// logged why).
void append_domainaliases_by_domain(std::vector<std::string>& out, const std::string& domain);
void append_maillists_by_domain(std::vector<std::string>& out, const std::string& domain);
// The session data does not say which domain aliases are active; always
// throws std::runtime_error.
void append_active_domaliases_by_domain(std::vector<std::string>& out,
                                        const std::string& domain);

}  // namespace mail

// Owns a null-terminated heap string array as the look-ups hand it out and
// frees it with free_array() on every path. Null is the empty array.
class StringArray {
 public:
  StringArray() = default;
  explicit StringArray(char** items) : items_(items) {}
  ~StringArray();
  StringArray(const StringArray&) = delete;
  StringArray& operator=(const StringArray&) = delete;

  // For an out-parameter: what was held is freed first.
  char*** out();
  char** get() const { return items_; }
  char** release();
  bool empty() const { return items_ == nullptr || items_[0] == nullptr; }

  char* const* begin() const { return items_; }
  char* const* end() const;

 private:
  char** items_ = nullptr;
};

}  // namespace tavix

#endif  // DRAVNIK_MAILDATA_DOMAIN_MAIL_OPS_H_
