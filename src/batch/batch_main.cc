// dravnik-batch [--stop-on-error] [--checkpoint N] FILE|-
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "batch/batch.h"
#include "commands/password.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/version.h"

namespace {

const char kUsage[] =
    "Usage: dravnik-batch [--stop-on-error] [--checkpoint N] FILE|-\n"
    "       dravnik-batch -h|--help|--version\n"
    "Applies the dravnik commands of FILE (JSON Lines; - for standard input), one per line,\n"
    "with the effects of running them one after the other. See dravnik-batch(8).\n";

int usage_error(const std::string& message) {
  std::cerr << "dravnik-batch: " << message << "\n" << kUsage;
  return 1;
}

bool parse_count(const char* text, long* count) {
  char* end = nullptr;
  errno = 0;
  long value = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 1)
    return false;
  *count = value;
  return true;
}

// 0 when the options are right, else the exit status.
int parse_options(int argc, char** argv, tavix::batch::Options* options) {
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::string const word = argv[i];
    if (word == "-h" || word == "--help") {
      std::cout << kUsage;
      exit(0);
    } else if (word == "--version") {
      std::cout << "dravnik-batch " << tavix::kVersion << "\n";
      exit(0);
    } else if (word == "--stop-on-error") {
      options->stop_on_error = true;
    } else if (word == "--checkpoint" || word.rfind("--checkpoint=", 0) == 0) {
      const char* value = word == "--checkpoint" ? (i + 1 < argc ? argv[++i] : "")
                                                 : argv[i] + strlen("--checkpoint=");
      if (!parse_count(value, &options->checkpoint))
        return usage_error("--checkpoint needs a whole number from 1 up");
    } else if (word.size() > 1 && word[0] == '-') {
      return usage_error("unknown option " + word);
    } else {
      inputs.push_back(word);
    }
  }
  if (inputs.size() != 1)
    return usage_error("give one input file, or - for standard input");
  options->input = inputs[0];
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The batch's own environment must hand no password to any child.
  take_env_passwords();
  const char* password = nullptr;
  int crypted = 0;
  (void)get_env_password(&password, &crypted);
  use_program_umask();

  tavix::batch::Options options;
  if (int status = parse_options(argc, argv, &options))
    return status;
  std::vector<std::string> lines;
  std::string error;
  if (!tavix::batch::read_input(options.input, &lines, &error)) {
    std::cerr << "dravnik-batch: " << error << std::endl;
    return 1;
  }
  // The commands log as dravnik does when run alone.
  tavix_log_init(NULL, 6, 16, 32, "dravnik");
  try {
    return tavix::batch::run_batch(options, lines);
  } catch (std::exception const& e) {
    std::cerr << "dravnik-batch: internal error: " << e.what() << std::endl;
    return 2;
  }
}
