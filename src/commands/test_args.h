// Command lines for the option parsing tests: argv[0] is the command word,
// as the dispatcher passes it.
#ifndef DRAVNIK_COMMANDS_TEST_ARGS_H_
#define DRAVNIK_COMMANDS_TEST_ARGS_H_

#include <string>
#include <vector>

class TestArgs {
 public:
  explicit TestArgs(std::vector<std::string> const& options) : strings_{"--command"} {
    strings_.insert(strings_.end(), options.begin(), options.end());
    for (std::string& s : strings_)
      pointers_.push_back(&s[0]);
    pointers_.push_back(nullptr);
  }
  TestArgs(TestArgs const&) = delete;
  TestArgs& operator=(TestArgs const&) = delete;

  int argc() const { return static_cast<int>(strings_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

#endif  // DRAVNIK_COMMANDS_TEST_ARGS_H_
