// The command-line host of the library: does at a shell what a daemon does on a device.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

#include "apply_command.h"
#include "exit_status.h"
#include "file_commands.h"
#include "history_command.h"
#include "message.h"
#include "options.h"
#include "scan_command.h"

namespace {

using tool::DONE;
using tool::FAILED;

bool run_file_command(const std::string &name, const tool::FileOptions &options) {
  tool::LogLines log(options.verbose);
  const auto &commands = tool::file_commands();
  const auto command = std::ranges::find(commands, name, &tool::FileCommand::name);
  return command->run(options.files, log);  // the parser accepts only these names
}

int run_named(const tool::CommandLine &line) {
  if (line.command == "scan") {
    return tool::run_scan(line.scan);
  }
  if (line.command == "apply") {
    return tool::run_apply(line.apply);
  }
  if (line.command == "history") {
    return tool::run_history(line.history) ? DONE : FAILED;
  }
  return run_file_command(line.command, line.file) ? DONE : FAILED;
}

int run_command(const tool::CommandLine &line) {
  const int status = run_named(line);
  std::fflush(stdout);
  if (std::ferror(stdout) != 0) {
    tool::print_error("cannot write to standard output");
    return FAILED;
  }
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    const tool::CommandLine line = tool::parse_command_line(argc, argv);
    if (line.command.empty()) {
      return line.exit_status;
    }
    return run_command(line);
  } catch (const std::exception &error) {
    tool::print_error(error.what());
    return FAILED;
  }
}
