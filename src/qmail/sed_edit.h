// Substitutions in a file through /bin/sed.
//
// The file is filtered by sed into "<path>.tmp", which takes a regular
// file's owner and mode, is put on disk and renamed over it in one step
// (util/atomic_file.h): readers never find it missing or short. No lock is
// taken.
#ifndef DRAVNIK_QMAIL_SED_EDIT_H_
#define DRAVNIK_QMAIL_SED_EDIT_H_

#include <string>

// Runs "sed -e <expression>" over `path`. 0, or -1 after reporting the
// failure; when sed itself fails the file is left as it was.
int run_sed_cmd(const char* expression, const char* path);
// The same with extended regular expressions ("sed -r -e <expression>").
int run_extended_sed_cmd(const char* expression, const char* path);

// Names are put into sed expressions through these two, so that sed takes
// them as plain text: a "." in a name matches only a dot, an "&" is written
// as "&", and nothing in a name can end the expression early or start
// another sed command. Both are for expressions delimited by "|" (an
// address is written "\|regex|").
//
// `text` as a basic regular expression that matches exactly `text`.
std::string sed_regex_literal(const std::string& text);
// `text` as the replacement of an "s" command, or as the text of an "a\"
// command, that writes exactly `text`.
std::string sed_replacement_literal(const std::string& text);

#endif  // DRAVNIK_QMAIL_SED_EDIT_H_
