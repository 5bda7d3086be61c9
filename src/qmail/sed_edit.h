// Substitutions in a file through /bin/sed.
//
// The file is filtered by sed into "<path>.tmp", which then replaces it; a
// regular file gets its owner and mode back. No lock is taken, and for a
// moment between the unlink and the rename the file does not exist.
#ifndef DRAVNIK_QMAIL_SED_EDIT_H_
#define DRAVNIK_QMAIL_SED_EDIT_H_

// Runs "sed -e <expression>" over `path`. 0, or -1 after reporting the
// failure; when sed itself fails the file is left as it was.
int run_sed_cmd(const char* expression, const char* path);
// The same with extended regular expressions ("sed -r -e <expression>").
int run_extended_sed_cmd(const char* expression, const char* path);

#endif  // DRAVNIK_QMAIL_SED_EDIT_H_
