// Checks of mail names (local parts), domain names and full addresses.
// Each returns 1 for a valid name and 0 otherwise.
#ifndef DRAVNIK_UTIL_NAMES_H_
#define DRAVNIK_UTIL_NAMES_H_

int is_mailname_valid(const char* name);
int is_domain_name_valid(const char* domain);
int is_full_mailname_valid(const char* address);

#endif  // DRAVNIK_UTIL_NAMES_H_
