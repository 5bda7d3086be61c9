#include "maildata/domain_mail_ops.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <stdexcept>

#include "mailauth/auth_records.h"
#include "maildata/session_mail_data.h"
#include "util/log.h"
#include "util/strings.h"
#include "util/unique_free.h"

namespace {

using tavix::StringArray;

// The session object, or null after logging that `caller` ran before the
// front end made one.
const mail_db_data_t* session_for(const char* caller) {
  if (session_mail_db_info == nullptr)
    tavix_log(LOG_ERR,
              "Session mail DB info is not filled in call to %s(). Probably a programming error.",
              caller);
  return session_mail_db_info;
}

// The session describes one domain; the names it knows belong to that
// domain only, so questions about any other domain get no answer.
bool is_session_domain(const mail_db_data_t& session, const char* domain) {
  return session.name != nullptr && domain != nullptr && strcmp(session.name, domain) == 0;
}

bool contains(const sj_string_array& list, const char* name) {
  for (size_t i = 0; i < list.count; ++i) {
    if (strcmp(list.values[i], name) == 0)
      return true;
  }
  return false;
}

const mail_db_mail_t* find_mail(const mail_db_data_t& session, const char* mailname) {
  for (size_t i = 0; i < session.mails.count; ++i) {
    if (strcmp(session.mails.values[i].name, mailname) == 0)
      return &session.mails.values[i];
  }
  return nullptr;
}

// Heap copies of the names of `array`'s elements; null for an empty array
// or when memory runs out (string_to_mas() has then logged and freed).
template <typename Array, typename Name>
char** copy_names(const Array& array, Name name) {
  char** copy = nullptr;
  for (size_t i = 0; i < array.count; ++i) {
    copy = string_to_mas(copy, name(array.values[i]));
    if (copy == nullptr)
      return nullptr;
  }
  return copy;
}

char** copy_list(const sj_string_array& list) {
  return copy_names(list, [](const char* s) { return s; });
}

// The frame every look-up shares: the out-parameter is always set, and a
// missing session is the only failure.
template <typename Out, typename Answer>
int look_up(const char* caller, Out* out, Answer answer) {
  *out = nullptr;
  const mail_db_data_t* session = session_for(caller);
  if (session == nullptr)
    return -1;
  *out = answer(*session);
  return 0;
}

// Runs `apply` (domain, is_alias) -> bool on `domain` and then on each of
// its domain aliases; `apply` logs its own failure. `lookup_failure` is
// logged with the domain when the aliases cannot be looked up.
template <typename Apply>
int apply_to_domain_and_aliases(const char* domain, const char* lookup_failure, Apply apply) {
  if (!apply(domain, false))
    return -1;
  StringArray dom_aliases;
  if (get_domaliases_by_domain(nullptr, dom_aliases.out(), domain) != 0) {
    tavix_log(LOG_ERR, lookup_failure, domain);
    return -1;
  }
  if (dom_aliases.empty())
    return 0;
  for (const char* dom_alias : dom_aliases) {
    if (!apply(dom_alias, true))
      return -1;
  }
  return 1;
}

const char kDomainAliasesLookupFailure[] = "Unable to get domain aliases for domain %s";

// Runs `walk` (name), which gives -1 on failure, on `mailname` and then on
// each of its mail aliases. `lookup_failure` is logged with mail name and
// domain when the aliases cannot be looked up. 1 after walking aliases,
// otherwise what `walk` gave for the mail name.
template <typename Walk>
int walk_mailname_and_aliases(const char* mailname, const char* domain,
                              const char* lookup_failure, Walk walk) {
  int result = walk(mailname);
  if (result == -1)
    return -1;
  StringArray aliases;
  if (get_aliases_by_mailname(nullptr, aliases.out(), mailname, domain) != 0) {
    tavix_log(LOG_ERR, lookup_failure, mailname, domain);
    return -1;
  }
  if (aliases.empty())
    return result;
  for (const char* alias : aliases) {
    if (walk(alias) == -1)
      return -1;
  }
  return 1;
}

typedef int (*list_lookup_fn)(void* context, char*** list, const char* domain);

// Appends the list `lookup` answers for `domain`. The session is optional
// for the callers (commands may run without data), so a failed look-up,
// which has logged itself, leaves `out` as it was.
void appender(list_lookup_fn lookup, std::vector<std::string>& out, const std::string& domain) {
  StringArray list;
  if (lookup(nullptr, list.out(), domain.c_str()) != 0)
    return;
  for (const char* name : list)
    out.push_back(name);
}

}  // namespace

int get_domain_by_domainalias(void*, char** domain, const char* alias) {
  return look_up(__func__, domain, [alias](const mail_db_data_t& session) -> char* {
    if (session.name == nullptr || alias == nullptr || !contains(session.dom_aliases, alias))
      return nullptr;
    char* copy = strdup(session.name);
    if (copy == nullptr)
      tavix_log(LOG_ERR, "System error: %s\n", strerror(errno));
    return copy;
  });
}

int get_mailnames_by_domain(void*, char*** mailnames, const char* domain) {
  return look_up(__func__, mailnames, [domain](const mail_db_data_t& session) -> char** {
    if (!is_session_domain(session, domain))
      return nullptr;
    return copy_names(session.mails, [](const mail_db_mail_t& mail) { return mail.name; });
  });
}

int get_aliases_by_mailname(void*, char*** aliases, const char* mailname, const char* domain) {
  return look_up(__func__, aliases, [mailname, domain](const mail_db_data_t& session) -> char** {
    if (!is_session_domain(session, domain) || mailname == nullptr)
      return nullptr;
    const mail_db_mail_t* mail = find_mail(session, mailname);
    return mail ? copy_list(mail->aliases) : nullptr;
  });
}

int get_domaliases_by_domain(void*, char*** dom_aliases, const char* domain) {
  return look_up(__func__, dom_aliases, [domain](const mail_db_data_t& session) -> char** {
    return is_session_domain(session, domain) ? copy_list(session.dom_aliases) : nullptr;
  });
}

int get_maillists_by_domain(void*, char*** maillists, const char* domain) {
  return look_up(__func__, maillists, [domain](const mail_db_data_t& session) -> char** {
    return is_session_domain(session, domain) ? copy_list(session.maillists) : nullptr;
  });
}

int set_passwd_for_domains(const char* mailname, const char* domain, const char* password,
                           uint8_t flags) {
  return apply_to_domain_and_aliases(
      domain, kDomainAliasesLookupFailure, [&](const char* target, bool) {
        if (set_postbox_passwd(mailname, target, password, flags) == 0)
          return true;
        tavix_log(LOG_ERR, "Unable to set password for mailname %s@%s", mailname, target);
        return false;
      });
}

int set_mass_postbox_passwd(const char* mailname, const char* domain, const char* password,
                            uint8_t flags) {
  return walk_mailname_and_aliases(mailname, domain, "Unable to get mail aliases for %s@%s",
                                   [&](const char* name) {
                                     return set_passwd_for_domains(name, domain, password, flags);
                                   });
}

int rm_mname_from_domains(const char* mailname, const char* domain) {
  return apply_to_domain_and_aliases(
      domain, kDomainAliasesLookupFailure, [mailname](const char* target, bool) {
        if (mailAuthRemove(mailname, target) == 0)
          return true;
        tavix_log(LOG_ERR, "Unable to remove mailname %s@%s", mailname, target);
        return false;
      });
}

int rm_mails_from_domains(const char* mailname, const char* domain) {
  if (mailAuthRemove(mailname, domain) != 0) {
    tavix_log(LOG_ERR, "Unable to remove mailname %s@%s", mailname, domain);
    return -1;
  }
  // This look-up failure has always been logged with name and domain
  // joined without "@"; the text stays as it is known.
  return walk_mailname_and_aliases(mailname, domain, "Unable to get mail aliases for mailname %s%s",
                                   [domain](const char* name) {
                                     int result = rm_mname_from_domains(name, domain);
                                     if (result == -1)
                                       tavix_log(LOG_ERR,
                                                 "Unable to remove mailname from domain aliases");
                                     return result;
                                   });
}

int add_domain_auth_alias(const char* domain, const char* alias_domain) {
  StringArray mailnames;
  if (get_mailnames_by_domain(nullptr, mailnames.out(), domain) != 0) {
    tavix_log(LOG_ERR, "Unable to get mailnames from domain %s", domain);
    return -1;
  }
  if (mailnames.empty())
    return 0;
  auto clone = [domain, alias_domain](const char* name) {
    if (mailAuthClone(name, domain, name, alias_domain) == 0)
      return true;
    tavix_log(LOG_ERR, "Unable to clone auth record for %s@%s", name, alias_domain);
    return false;
  };
  for (const char* mailname : mailnames) {
    StringArray aliases;
    if (get_aliases_by_mailname(nullptr, aliases.out(), mailname, domain) != 0) {
      tavix_log(LOG_ERR, "Unable to get mail aliases for %s@%s", mailname, domain);
      return -1;
    }
    for (const char* alias : aliases) {
      if (!clone(alias))
        return -1;
    }
    if (!clone(mailname))
      return -1;
  }
  return 1;
}

int rm_domain_auth_alias(const char* alias_domain) {
  if (mailAuthRemoveDomain(alias_domain) != 0) {
    tavix_log(LOG_ERR, "Unable to remove domain %s from auth database", alias_domain);
    return -1;
  }
  char* owner_text = nullptr;
  if (get_domain_by_domainalias(nullptr, &owner_text, alias_domain) != 0) {
    tavix_log(LOG_ERR, "Unable to get domain by domain alias %s", alias_domain);
    return -1;
  }
  tavix::unique_free<char> domain(owner_text);
  if (!domain)
    return 0;
  StringArray mailnames;
  if (get_mailnames_by_domain(nullptr, mailnames.out(), domain.get()) != 0) {
    tavix_log(LOG_ERR, "Unable to get mailnames from domain %s", domain.get());
    return -1;
  }
  // The schema's trigger has taken the alias domain's users along; the
  // mail aliases are removed by name as well so that none is left behind
  // should the domain row have been missing or kept.
  for (const char* mailname : mailnames) {
    StringArray aliases;
    if (get_aliases_by_mailname(nullptr, aliases.out(), mailname, domain.get()) != 0) {
      tavix_log(LOG_ERR, "Unable to get aliases for mailname %s@%s", mailname, domain.get());
      return -1;
    }
    for (const char* alias : aliases) {
      if (mailAuthRemove(alias, alias_domain) != 0) {
        tavix_log(LOG_ERR, "Unable to remove mail alias %s@%s", alias, alias_domain);
        return -1;
      }
    }
  }
  return 0;
}

int domain_auth_action(const char* domain, domain_auth_action_fn action,
                       const char* action_name) {
  return apply_to_domain_and_aliases(
      domain, "Unable to get aliases for domain %s", [&](const char* target, bool is_alias) {
        if (action(target) == 0)
          return true;
        if (is_alias)
          tavix_log(LOG_ERR, "Unable to %s for domain alias %s", action_name, target);
        else
          tavix_log(LOG_ERR, "Unable to %s for domain %s", action_name, target);
        return false;
      });
}

namespace tavix {
namespace mail {

void append_domainaliases_by_domain(std::vector<std::string>& out, const std::string& domain) {
  appender(get_domaliases_by_domain, out, domain);
}

void append_maillists_by_domain(std::vector<std::string>& out, const std::string& domain) {
  appender(get_maillists_by_domain, out, domain);
}

void append_active_domaliases_by_domain(std::vector<std::string>&, const std::string&) {
  // No blank between the name and "is": the text is matched as it is.
  throw std::runtime_error(std::string("Function ") + "append_active_domaliases_by_domain" +
                           "is not implemented for JSON/STDIN");
}

}  // namespace mail

StringArray::~StringArray() { free_array(items_); }

char*** StringArray::out() {
  free_array(items_);
  items_ = nullptr;
  return &items_;
}

char** StringArray::release() {
  char** items = items_;
  items_ = nullptr;
  return items;
}

char* const* StringArray::end() const {
  char* const* p = items_;
  while (p != nullptr && *p != nullptr)
    ++p;
  return p;
}

}  // namespace tavix
