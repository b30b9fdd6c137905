#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include "display_name.h"
#include "file_commands.h"
#include "message.h"
#include "size_text.h"

namespace tool {
namespace {

constexpr int BAD_USAGE = 2;
constexpr int DEEPEST = 2047;
constexpr const char *A_SIZE = "a size: a number, or one with K, M, G or T, as 64K or 1.5M";
constexpr const char *A_DURATION = "a time: seconds, or d, h, m and s, as 5m or 1h30m, up to 365d";
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

// An option whose value `parse` reads; `accepted` says what that is.
template <typename Value>
void add_value(CLI::App *command, const char *name, Value &target,
               std::optional<Value> (*parse)(std::string_view), const char *accepted,
               const char *type, const char *summary) {
  const auto complain = [=](const std::string &text) {
    return parse(text) ? "" : "'" + escaped_name(text) + "' is not " + accepted;
  };
  command
      ->add_option_function<std::string>(
          name, [&target, parse](const std::string &text) { target = *parse(text); }, summary)
      ->type_name(type)
      ->check(CLI::Validator(complain, ""));
}

std::optional<int> parse_depth(std::string_view text) {
  int depth = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), depth);
  const bool is_depth =
      error == std::errc() && end == text.data() + text.size() && depth >= 0 && depth <= DEEPEST;
  return is_depth ? std::optional(depth) : std::nullopt;
}

void add_scan_limits(CLI::App *command, ScanOptions &scan) {
  add_value(command, "--min-size", scan.min_size, parse_size, A_SIZE, "SIZE",
            "Smallest file looked at; 0 means every file that is not empty (default 64K)");
  add_value(command, "--max-depth", scan.max_depth, parse_depth, "a number from 0 to 2047", "N",
            "Do not read directories N levels below a root");
  command->add_flag("-x,--one-file-system", scan.one_file_system,
                    "Stay on the file systems of the roots");
  add_value(command, "--time-budget", scan.time_budget, parse_duration, A_DURATION, "TIME",
            "End the scan early after this time: 90 (seconds), 5m, 1h30m");
}

void add_scan(CLI::App &app, ScanOptions &scan) {
  CLI::App *const command = app.add_subcommand(
      "scan", "Find identical files in directory trees, and merge them if asked");
  command->add_flag("--apply", scan.apply, "Make identical files share one copy of their data");
  command->add_flag("-n,--dry-run", scan.dry_run, "Merge nothing, which is the default");
  command->add_option("--state", scan.state, "Where digests are kept for the next scan")
      ->type_name("DIR");
  command->add_option("--skip", scan.skips, "Leave out this file or directory (may be repeated)")
      ->type_name("PATH")
      ->allow_extra_args(false);
  add_scan_limits(command, scan);
  command->add_flag("--json", scan.json, "Print one JSON object");
  command->add_option("--html", scan.html, "Write a page with a picture of the findings")
      ->type_name("FILE");
  command->add_flag("-v,--verbose", scan.verbose, "Show the library's log on standard error");
  command->add_flag("-q,--quiet", scan.quiet, "No progress display and no remarks");
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
  command->add_flag("-v,--verbose", file.verbose, "Show the library's log on standard error");
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

// What is wrong with the command line, in words. No command was understood.
std::string describe_command(int argc, char **argv) {
  if (argc < 2) {
    return "no command is given";
  }
  const std::string first = escaped_name(argv[1]);
  return (first.starts_with('-') ? "unknown option '" : "unknown command '") + first + "'";
}

std::string describe(const CLI::App &app, const CLI::ParseError &error) {
  const std::string text = error.what();
  if (dynamic_cast<const CLI::ArgumentMismatch *>(&error) != nullptr) {
    return text.substr(0, text.find(':')) + " needs a value";
  }
  if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr) {
    return text.substr(0, text.find(' ')) + " is missing";
  }
  if (dynamic_cast<const CLI::ExtrasError *>(&error) == nullptr) {
    return text;
  }
  const std::string extra = escaped_name(app.remaining(true).front());
  return (extra.starts_with('-') ? "unknown option '" : "unexpected argument '") + extra + "'";
}

// Prints help, version or what is wrong. Returns the exit status.
int report(const CLI::App &app, int argc, char **argv, const CLI::ParseError &error) {
  if (error.get_exit_code() == 0) {
    return app.exit(error);
  }
  const auto commands = app.get_subcommands();
  const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
  print_error(command.empty() ? describe_command(argc, argv) : describe(app, error));
  std::fprintf(stderr, "'velmarin%s --help' lists what there is.\n", command.c_str());
  return BAD_USAGE;
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
    if (line.scan.apply && line.scan.dry_run) {
      throw CLI::ValidationError("--apply and --dry-run exclude each other");
    }
    line.command = app.get_subcommands().front()->get_name();
  } catch (const CLI::ParseError &error) {
    line.exit_status = report(app, argc, argv, error);
  }
  return line;
}

}  // namespace tool
