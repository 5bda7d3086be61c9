// What a mail server needs before dravnik can run there: the lock
// directory, the qmail files it edits, the mail names root and the two
// databases with the authentication key.
#ifndef DRAVNIK_SETUP_HOST_ITEMS_H_
#define DRAVNIK_SETUP_HOST_ITEMS_H_

#include <vector>

#include "setup/setup.h"

namespace tavix {
namespace setup {

// The host's items in the order they are prepared, owned by the accounts
// as they exist now (an item of a missing account has no known owner).
std::vector<Item> HostItems();

}  // namespace setup
}  // namespace tavix

#endif  // DRAVNIK_SETUP_HOST_ITEMS_H_
