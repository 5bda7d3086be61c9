// A handlers database of the test's own, in a temporary directory, and the
// ways the handler tests fill and read it.
#ifndef DRAVNIK_HANDLERS_MH_TEST_SUPPORT_H_
#define DRAVNIK_HANDLERS_MH_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "handlers/mail_handlers.h"
#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"

namespace tavix {
namespace test {

// Points mh_db_path at a fresh database with the schema while alive.
class HandlersDB {
 public:
  HandlersDB() {
    mh_db_path_set(path_.c_str());
    EXPECT_EQ(0, mh_db_create_no_set_permissions());
  }
  ~HandlersDB() { mh_db_path_set(saved_); }
  HandlersDB(const HandlersDB&) = delete;
  HandlersDB& operator=(const HandlersDB&) = delete;

  const std::string& path() const { return path_; }

  // Each row as "<address> <name> <enabled> <protected>", sorted.
  std::vector<std::string> Table() const {
    std::vector<std::string> rows;
    for (const Row& row :
         QueryRows(path_, "SELECT address || ' ' || name || ' ' || enabled || ' ' || protected "
                          "FROM handlers ORDER BY 1"))
      rows.push_back(row[0]);
    return rows;
  }

 private:
  TempDir dir_;
  std::string path_ = dir_.path("handlers/handlers.db");
  const char* const saved_ = mh_db_path;
};

}  // namespace test
}  // namespace tavix

#endif  // DRAVNIK_HANDLERS_MH_TEST_SUPPORT_H_
