#include "maildata/session_mail_data.h"

#include <sys/select.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>

#include "util/fs.h"
#include "util/log.h"
#include "util/names.h"
#include "util/strings.h"
#include "util/unique_free.h"

const size_unit_t SizeUnitsTextConversionTable[5] = {
    {"B", INT64_C(1)},
    {"KB", INT64_C(1024)},
    {"MB", INT64_C(1048576)},
    {"GB", INT64_C(1073741824)},
    {"TB", INT64_C(1099511627776)},
};

mail_db_data_t* session_mail_db_info = nullptr;

namespace {

const int kLogError = 3;
const int kLogWarning = 4;

// The document text the session object's strings point into.
tavix::unique_free<char> session_mail_db_text;

// Texts of the failed value checks, shown in the parser's error message.
struct QuotaChecks {
  const char* value_invalid;
  const char* unit_invalid;
};
const QuotaChecks kDomainQuotaChecks = {"Domain quota value is out of bounds",
                                        "Domain quota unit value is invalid"};
const QuotaChecks kMailboxQuotaChecks = {
    "Mailbox quota value is out of bounds",
    "Mailbox quota unit value is invalid"};

bool key_is(const char* key, const char* name) { return strcmp(key, name) == 0; }

const char* or_null(const char* text) { return text ? text : "(null)"; }

template <typename Array, typename Visit>
void for_each(const Array& array, Visit visit) {
  for (size_t i = 0; i < array.count; ++i)
    visit(array.values[i]);
}

void release(const sj_util_funcs& funcs, void* block) {
  if (block)
    funcs.release(funcs.user, block);
}

void release_fields(const sj_util_funcs& funcs, mail_db_data_t& object) {
  for_each(object.mails, [&funcs](const mail_db_mail_t& mail) {
    release(funcs, mail.aliases.values);
  });
  release(funcs, object.mails.values);
  release(funcs, object.dom_aliases.values);
  release(funcs, object.maillists.values);
  object.mails = mail_db_mail_array{};
  object.dom_aliases = sj_string_array{};
  object.maillists = sj_string_array{};
}

void release_object(const sj_util_funcs& funcs, mail_db_data_t* object) {
  if (object == nullptr)
    return;
  release_fields(funcs, *object);
  release(funcs, object);
}

struct ParserDeleter {
  void operator()(sj_parser* parser) const { sj_free_parser(parser); }
};
using UniqueParser = std::unique_ptr<sj_parser, ParserDeleter>;

// Remembers the allocator the object was made with, which may outlive the
// parser that made it.
struct ObjectDeleter {
  sj_util_funcs funcs;
  void operator()(mail_db_data_t* object) const {
    release_object(funcs, object);
  }
};
using UniqueObject = std::unique_ptr<mail_db_data_t, ObjectDeleter>;

// The session object is only ever made with the default allocators: by the
// reader's parser, by get_session_mail_db_info(), or with malloc() by the
// command-line side that fills it.
sj_util_funcs session_funcs() {
  sj_util_funcs funcs;
  sj_set_default_util_funcs(&funcs);
  return funcs;
}

int constraint_failed(sj_parser* p, const char* text) {
  p->detail = text;
  p->error = SJ_CONSTRAINT_FAILED;
  return p->error;
}

// Grows `array` by exactly one zeroed element and counts it at once, so that
// a walk stopped half-way still leaves every block accounted for.
template <typename Array>
auto append_slot(sj_parser* p, Array& array) -> decltype(array.values) {
  using Element = std::remove_pointer_t<decltype(array.values)>;
  void* grown = p->funcs.reallocate(p->funcs.user, array.values,
                                    (array.count + 1) * sizeof(Element));
  if (grown == nullptr) {
    p->error = SJ_OUT_OF_MEMORY;
    return nullptr;
  }
  array.values = static_cast<Element*>(grown);
  array.capacity = array.count + 1;
  Element* slot = &array.values[array.count++];
  *slot = Element{};
  return slot;
}

// Calls member(key) for every member of an object. Every object of the
// document has required members, so an empty one is refused outright.
template <typename Member>
void walk_object(sj_parser* p, Member member) {
  if (sj_parse_object_start(p) != 0)
    return;
  if (sj_parse_object_end_if_empty(p)) {
    p->error = SJ_REQUIRED_FIELDS_MISSING;
    return;
  }
  do {
    const char* key = sj_parse_object_key(p);
    if (p->error)
      return;
    member(key);
    if (p->error)
      return;
  } while (sj_parse_object_next(p) == 0);
}

template <typename Element>
void walk_array(sj_parser* p, Element element) {
  if (sj_parse_array_start(p) != 0 || sj_parse_array_end_if_empty(p))
    return;
  do {
    element();
    if (p->error)
      return;
  } while (sj_parse_array_next(p) == 0);
}

char* read_checked_string(sj_parser* p, int (*valid)(const char*),
                          const char* failure) {
  char* text = sj_parse_string(p);
  if (text && !valid(text)) {
    constraint_failed(p, failure);
    return nullptr;
  }
  return text;
}

// Appends the strings of an array value; a repeated member extends the list.
void read_string_array(sj_parser* p, sj_string_array& array,
                       int (*valid)(const char*), const char* failure) {
  walk_array(p, [&] {
    char* text = read_checked_string(p, valid, failure);
    char** slot = text ? append_slot(p, array) : nullptr;
    if (slot)
      *slot = text;
  });
}

void read_quota(sj_parser* p, int64_t& quota, const QuotaChecks& checks) {
  int64_t value = sj_parse_int64(p);
  if (p->error)
    return;
  if (!is_mbox_quota_valid(value))
    constraint_failed(p, checks.value_invalid);
  else
    quota = value;
}

void read_unit(sj_parser* p, const char*& unit, const QuotaChecks& checks) {
  char* text = sj_parse_string(p);
  if (text == nullptr)
    return;
  if (!is_valid_size_unit(text))
    constraint_failed(p, checks.unit_invalid);
  else
    unit = text;
}

void read_mail(sj_parser* p, mail_db_mail_t& mail) {
  mail.mbox_quota = -1;
  mail.mbox_quota_unit = "B";
  bool has_name = false;
  bool has_aliases = false;
  walk_object(p, [&](const char* key) {
    if (key_is(key, "name")) {
      mail.name = read_checked_string(p, is_mailname_valid,
                                      "Mailname is not valid");
      has_name = true;
    } else if (key_is(key, "mbox_quota")) {
      read_quota(p, mail.mbox_quota, kMailboxQuotaChecks);
    } else if (key_is(key, "mbox_quota_unit")) {
      read_unit(p, mail.mbox_quota_unit, kMailboxQuotaChecks);
    } else if (key_is(key, "aliases")) {
      read_string_array(p, mail.aliases, is_mailname_valid,
                        "Mail alias is not valid");
      has_aliases = true;
    } else {
      sj_skip_value(p);
    }
  });
  if (!p->error && !(has_name && has_aliases))
    p->error = SJ_REQUIRED_FIELDS_MISSING;
}

void read_domain(sj_parser* p, mail_db_data_t& domain) {
  domain.mbox_quota = -1;
  domain.mbox_quota_unit = "B";
  bool has_name = false;
  bool has_aliases = false;
  bool has_maillists = false;
  bool has_mails = false;
  walk_object(p, [&](const char* key) {
    if (key_is(key, "name")) {
      domain.name = read_checked_string(p, is_domain_name_valid,
                                        "Domain name is not valid");
      has_name = true;
    } else if (key_is(key, "mbox_quota")) {
      read_quota(p, domain.mbox_quota, kDomainQuotaChecks);
    } else if (key_is(key, "mbox_quota_unit")) {
      read_unit(p, domain.mbox_quota_unit, kDomainQuotaChecks);
    } else if (key_is(key, "dom_aliases")) {
      read_string_array(p, domain.dom_aliases, is_domain_name_valid,
                        "Domain alias is not valid");
      has_aliases = true;
    } else if (key_is(key, "maillists")) {
      read_string_array(p, domain.maillists, is_mailname_valid,
                        "Maillist is not valid");
      has_maillists = true;
    } else if (key_is(key, "mails")) {
      walk_array(p, [&] {
        if (mail_db_mail_t* mail = append_slot(p, domain.mails))
          read_mail(p, *mail);
      });
      has_mails = true;
    } else {
      sj_skip_value(p);
    }
  });
  if (!p->error && !(has_name && has_aliases && has_maillists && has_mails))
    p->error = SJ_REQUIRED_FIELDS_MISSING;
}

// Names are compared in lower case everywhere else in the program; mailing
// list names are passed on as the panel wrote them.
void lower_case_names(mail_db_data_t& object) {
  strtolower(object.name);
  for_each(object.dom_aliases, strtolower);
  for_each(object.mails, [](const mail_db_mail_t& mail) {
    strtolower(mail.name);
    for_each(mail.aliases, strtolower);
  });
}

// 0 and -1 carry no size, so no unit applies to them.
void quota_to_bytes(int64_t& quota, const char* unit) {
  if (quota <= 0)
    return;
  quota = get_value_in_bytes(quota, unit);
  if (!is_mbox_quota_valid(quota))
    tavix_log(kLogWarning,
              "Resulting quota value in session mail DB info is not valid: "
              "got %ld, source size unit was '%s'",
              static_cast<long>(quota), or_null(unit));
}

// A zero timeout with one microsecond: a look, not a wait. The count of 1
// means only descriptor 0 is watched; standard input is the only stream the
// program ever probes.
bool input_ready(FILE* stream) {
  int fd = fileno(stream);
  if (fd < 0 || fd >= FD_SETSIZE)
    return false;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout = {0, 1};
  // A failing select() counts as "not ready": the caller then reads
  // without probing, which still works.
  return select(1, &readable, nullptr, nullptr, &timeout) > 0;
}

void print_mail(FILE* out, const mail_db_mail_t& mail, bool last) {
  fputs("      {\n", out);
  fprintf(out, "        \"name\": \"%s\",\n", or_null(mail.name));
  fprintf(out, "        \"mbox_quota\": %ld,\n",
          static_cast<long>(mail.mbox_quota));
  fputs("        \"aliases\": ", out);
  debug_print_sj_string_array(out, &mail.aliases);
  fprintf(out, "      }%s\n", last ? "" : ",\n");
}

}  // namespace

int64_t get_size_unit(const char* unit) {
  if (unit == nullptr)
    return 0;
  for (const size_unit_t& row : SizeUnitsTextConversionTable) {
    if (strcmp(row.name, unit) == 0)
      return row.multiplier;
  }
  return 0;
}

int is_valid_size_unit(const char* unit) { return get_size_unit(unit) != 0; }

int64_t get_value_in_bytes(int64_t value, const char* unit) {
  // Unsigned arithmetic wraps where signed overflow would be undefined.
  uint64_t product = static_cast<uint64_t>(value) *
                     static_cast<uint64_t>(get_size_unit(unit));
  return static_cast<int64_t>(product);
}

int is_mbox_quota_valid(int64_t quota) { return quota >= -1; }

mail_db_data_t* create_mail_db_data_object(sj_parser* parser) {
  if (parser == nullptr)
    return nullptr;
  void* memory = parser->funcs.allocate(parser->funcs.user,
                                        sizeof(mail_db_data_t));
  if (memory == nullptr)
    return nullptr;
  mail_db_data_t* object = static_cast<mail_db_data_t*>(memory);
  *object = mail_db_data_t{};
  return object;
}

void free_mail_db_data_object_fields(sj_parser* parser,
                                     mail_db_data_t* object) {
  if (object)
    release_fields(parser->funcs, *object);
}

void free_mail_db_data_object(sj_parser* parser, mail_db_data_t* object) {
  release_object(parser->funcs, object);
}

int parse_mail_db_data_object(sj_parser* parser, mail_db_data_t* object) {
  bool has_domain = false;
  walk_object(parser, [&](const char* key) {
    if (key_is(key, "domain")) {
      read_domain(parser, *object);
      has_domain = true;
    } else {
      sj_skip_value(parser);
    }
  });
  if (!parser->error && !has_domain)
    parser->error = SJ_REQUIRED_FIELDS_MISSING;
  return parser->error;
}

int read_session_mail_db_info(FILE* stream, int check_ready) {
  if (session_mail_db_info || session_mail_db_text) {
    tavix_log(kLogError,
              "Session mail DB info have already been initialized. Probably "
              "a programming error.");
    return -2;
  }
  if (check_ready && !input_ready(stream))
    return -1;

  tavix::unique_free<char> text(get_stream_contents_cstr(stream));
  if (!text) {
    int error = errno;
    tavix_log(kLogError,
              "Failed to read session mail DB info from input stream "
              "(fd=%d): %s [%d]",
              fileno(stream), strerror(error), error);
    return -3;
  }

  // errno is cleared so that the parser's message only shows a system
  // error that arose while reading this document.
  errno = 0;
  UniqueParser parser(sj_create_parser(text.get(), nullptr));
  UniqueObject object(nullptr, ObjectDeleter{session_funcs()});
  if (parser)
    object.reset(create_mail_db_data_object(parser.get()));
  if (!object) {
    int error = errno;
    tavix_log(kLogError,
              "Failed to allocate session mail DB info object: %s [%d]",
              strerror(error), error);
    return -3;
  }

  int code = parse_mail_db_data_object(parser.get(), object.get());
  if (code != 0) {
    tavix_log(kLogError, "Session mail DB info parsing error: %s",
              sj_parser_strerror(parser.get()));
    return code;
  }

  lower_case_names(*object);
  quota_to_bytes(object->mbox_quota, object->mbox_quota_unit);
  for_each(object->mails, [](mail_db_mail_t& mail) {
    quota_to_bytes(mail.mbox_quota, mail.mbox_quota_unit);
  });
  session_mail_db_text = std::move(text);
  session_mail_db_info = object.release();
  return 0;
}

mail_db_data_t* get_session_mail_db_info() {
  if (session_mail_db_info)
    return session_mail_db_info;
  mail_db_data_t* object =
      create_mail_db_data_object(sj_get_dummy_parser(nullptr));
  if (object == nullptr) {
    int error = errno;
    tavix_log(kLogError,
              "Failed to allocate session mail DB info object: %s [%d]",
              strerror(error), error);
    return nullptr;
  }
  // Without data the domain's default mailbox quota is unlimited.
  object->mbox_quota = -1;
  session_mail_db_info = object;
  return object;
}

void free_session_mail_db_info() {
  release_object(session_funcs(), session_mail_db_info);
  session_mail_db_info = nullptr;
  session_mail_db_text.reset();
}

void debug_print_sj_string_array(FILE* out, const sj_string_array* array) {
  fputs("[ ", out);
  for (size_t i = 0; i < array->count; ++i)
    fprintf(out, "\"%s\"%s", or_null(array->values[i]),
            i + 1 < array->count ? ", " : "");
  fputs(" ]", out);
}

void debug_print_session_mail_db_info(FILE* out) {
  const mail_db_data_t* object = session_mail_db_info;
  if (object == nullptr) {
    fputs("mail_db_data_t = (null)\n", out);
    return;
  }
  fputs("mail_db_data_t = {\n", out);
  fputs("  \"domain\": {\n", out);
  fprintf(out, "    \"name\": \"%s\",\n", or_null(object->name));
  fprintf(out, "    \"mbox_quota\": %ld,\n",
          static_cast<long>(object->mbox_quota));
  fputs("    \"dom_aliases\": ", out);
  debug_print_sj_string_array(out, &object->dom_aliases);
  fputs("    \"mails\": [\n", out);
  for (size_t i = 0; i < object->mails.count; ++i)
    print_mail(out, object->mails.values[i], i + 1 == object->mails.count);
  fputs("    ]\n", out);
  fputs("  }\n", out);
  fputs("}\n", out);
}
