#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "file_commands.h"
#include "size_text.h"

namespace tool {
namespace {

constexpr int BAD_USAGE = 2;
constexpr const char *VERSION = "velmarin " VELMARIN_VERSION;

// The parser takes a name in brackets apart and gives some other marks a meaning. No option starts
// with them, so such an argument is a name, and so is all that follows "--".
std::vector<std::string> plain_arguments(int argc, char **argv) {
  std::vector<std::string> arguments;
  bool only_names = false;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--" && !only_names) {
      only_names = true;
      continue;
    }
    const char first = argument.empty() ? '\0' : argument.front();
    const bool is_special = first == '[' || first == '{' || first == '%';
    const bool is_dashed_name = only_names && first == '-';
    arguments.push_back(is_special || is_dashed_name ? "./" + argument : argument);
  }
  return arguments;
}

std::string size_error(const std::string &text) {
  return parse_size(text) ? ""
                          : "not a size: " + text + " (a number, with K, M, G or T if you like)";
}

void add_scan_limits(CLI::App *command, ScanOptions &scan) {
  command
      ->add_option_function<std::string>(
          "--min-size", [&scan](const std::string &text) { scan.min_size = *parse_size(text); },
          "Smallest file looked at; 0 means every file that is not empty (default 64K)")
      ->type_name("SIZE")
      ->check(CLI::Validator(size_error, ""));
  command
      ->add_option("--max-depth", scan.max_depth, "Do not read directories N levels below a root")
      ->type_name("N")
      ->check(CLI::Range(0, 2047));
  command->add_flag("-x,--one-file-system", scan.one_file_system,
                    "Stay on the file systems of the roots");
  command->add_option("--time-budget", scan.time_budget, "End the scan early after this time")
      ->type_name("SECONDS")
      ->check(CLI::Range(0U, 31536000U));
}

void add_scan(CLI::App &app, ScanOptions &scan) {
  CLI::App *const command = app.add_subcommand(
      "scan", "Find identical files in directory trees, and merge them if asked");
  command->add_flag("--apply", scan.apply, "Make identical files share one copy of their data");
  command->add_option("--state", scan.state, "Where digests are kept for the next scan")
      ->type_name("DIR");
  command->add_option("--skip", scan.skips, "Leave out this file or directory (may be repeated)")
      ->type_name("PATH")
      ->allow_extra_args(false);
  add_scan_limits(command, scan);
  command->add_flag("--json", scan.json, "Print one JSON object");
  command->add_option("--html", scan.html, "Write a page with a picture of the findings")
      ->type_name("FILE");
  command->add_flag("--verbose", scan.verbose, "Show the library's log on standard error");
  command->add_flag("--quiet", scan.quiet, "No progress display and no remarks");
  command->add_flag("--no-color", scan.no_color, "No colours");
  command->add_option("ROOT", scan.roots, "Directory to scan")->required()->type_name("");
}

void add_history(CLI::App &app, HistoryOptions &history) {
  CLI::App *const command =
      app.add_subcommand("history", "Show what each scan with --apply has freed");
  command->add_option("--state", history.state, "Where the scans keep their digests")
      ->type_name("DIR");
  command->add_flag("--json", history.json, "Print one JSON object");
}

void add_file_command(CLI::App &app, const FileCommand &kind, FileOptions &file) {
  CLI::App *const command = app.add_subcommand(kind.name, kind.summary);
  command->add_flag("--verbose", file.verbose, "Show the library's log on standard error");
  if (kind.operands.size() == 1) {
    command->add_option(kind.operands[0], file.files)->required()->type_name("");
    return;
  }
  for (const char *const operand : kind.operands) {
    command
        ->add_option_function<std::string>(
            operand, [&file](const std::string &name) { file.files.push_back(name); })
        ->required()
        ->type_name("");
  }
}

void define(CLI::App &app, CommandLine &line) {
  app.name("velmarin");
  app.require_subcommand(1);
  add_scan(app, line.scan);
  add_history(app, line.history);
  for (const FileCommand &kind : file_commands()) {
    add_file_command(app, kind, line.file);
  }
  app.set_version_flag("--version", VERSION, "Print the version and exit");
  for (CLI::App *const command : app.get_subcommands({})) {
    command->set_version_flag("--version", VERSION, "Print the version and exit");
  }
}

}  // namespace

CommandLine parse_command_line(int argc, char **argv) {
  CommandLine line;
  CLI::App app("Finds files with identical content and has the file system keep one copy.");
  define(app, line);
  std::vector<std::string> arguments = plain_arguments(argc, argv);
  std::reverse(arguments.begin(), arguments.end());  // as the parser wants them
  try {
    app.parse(std::move(arguments));
    line.command = app.get_subcommands().front()->get_name();
  } catch (const CLI::ParseError &error) {
    line.exit_status = app.exit(error) == 0 ? 0 : BAD_USAGE;
  }
  return line;
}

}  // namespace tool
