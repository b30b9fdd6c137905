#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include "config_file.h"
#include "display_name.h"
#include "exit_status.h"
#include "file_commands.h"
#include "message.h"
#include "size_text.h"

namespace tool {
namespace {

constexpr int MAX_DEPTH = 2047;
constexpr const char *SIZE_FORMAT = "a size such as 65536, 64K or 1.5M (units: K, M, G, T)";
constexpr const char *DURATION_FORMAT =
    "a time such as 90, 5m or 1h30m (units: d, h, m, s; at most 365d)";
constexpr const char *EXCLUDE = "--exclude";
constexpr const char *INCLUDE = "--include";
constexpr const char *GLOB_MARK = ":";
constexpr const char *VERSION = "velmarin " VELMARIN_VERSION;

// The value of a glob option may begin with any character, so it gets a mark, which `unmark_globs`
// removes. Returns whether the argument has such a value.
bool mark_glob(const std::vector<std::string> &before, std::string &argument) {
  for (const std::string option : {EXCLUDE, INCLUDE}) {
    if (!before.empty() && before.back() == option) {
      argument.insert(0, GLOB_MARK);
      return true;
    }
    if (argument.starts_with(option + "=")) {
      argument.insert(option.size() + 1, GLOB_MARK);
      return true;
    }
  }
  return false;
}

// The parser splits names in brackets and gives some other characters a meaning. No option starts
// with these, so an argument that does is a name, and so is everything after "--".
std::vector<std::string> plain_arguments(const std::vector<std::string> &given) {
  std::vector<std::string> arguments;
  bool only_names = false;
  for (std::string argument : given) {
    const bool is_glob = !only_names && mark_glob(arguments, argument);
    if (argument == "--" && !only_names) {
      only_names = true;
      continue;
    }
    const char first = argument.empty() ? '\0' : argument.front();
    const bool is_special = first == '[' || first == '{' || first == '%';
    const bool is_dashed_name = only_names && first == '-';
    arguments.push_back(!is_glob && (is_special || is_dashed_name) ? "./" + argument : argument);
  }
  return arguments;
}

std::string glob_error(const std::string &marked) {
  return marked.size() < 2 ? "an empty glob matches nothing" : "";
}

std::string include_error(const std::string &marked) {
  return marked.ends_with('/') ? "matches only files; for everything below a directory, use '" +
                                     escaped_name(marked.substr(1)) + "**'"
                               : glob_error(marked);
}

void unmark_globs(std::vector<std::string> &globs) {
  for (std::string &glob : globs) {
    glob.erase(0, 1);
  }
}

void add_filter_options(CLI::App *command, ScanOptions &scan) {
  command
      ->add_option(EXCLUDE, scan.filter.excludes, "Leave out entries that match (may be repeated)")
      ->type_name("GLOB")
      ->allow_extra_args(false)
      ->check(CLI::Validator(glob_error, ""));
  command->add_option(INCLUDE, scan.filter.includes, "Leave out files that match none of these")
      ->type_name("GLOB")
      ->allow_extra_args(false)
      ->check(CLI::Validator(include_error, ""));
  command
      ->add_option("--exclude-from", scan.exclude_lists,
                   "Leave out entries that match a glob in this file; '-' is standard input")
      ->type_name("FILE")
      ->allow_extra_args(false);
  command->add_flag("--no-hidden", scan.filter.no_hidden, "Leave out names that begin with a dot");
  command
      ->add_option("--roots-from", scan.roots_from,
                   "Also scan the directories listed in this file; '-' is standard input")
      ->type_name("FILE");
  command->add_flag("-0,--null", scan.ends_names_by_nul,
                    "Names in --roots-from end with a NUL byte, not a newline");
}

// Adds an option whose value `parse` reads; `accepted` describes valid values.
template <typename Value>
void add_value(CLI::App *command, const char *name, Value &target,
               std::optional<Value> (*parse)(std::string_view), const char *accepted,
               const char *type, const char *summary) {
  const auto value_error = [=](const std::string &text) {
    return parse(text) ? "" : "'" + escaped_name(text) + "' is not " + accepted;
  };
  command
      ->add_option_function<std::string>(
          name, [&target, parse](const std::string &text) { target = *parse(text); }, summary)
      ->type_name(type)
      ->check(CLI::Validator(value_error, ""));
}

std::optional<int> parse_depth(std::string_view text) {
  int depth = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), depth);
  const bool is_depth =
      error == std::errc() && end == text.data() + text.size() && depth >= 0 && depth <= MAX_DEPTH;
  return is_depth ? std::optional(depth) : std::nullopt;
}

void add_time_budget(CLI::App *command, unsigned &seconds) {
  add_value(command, "--time-budget", seconds, parse_duration, DURATION_FORMAT, "TIME",
            "Stop after this time, such as 90 (seconds), 5m or 1h30m");
}

void add_scan_limits(CLI::App *command, ScanOptions &scan) {
  add_value(command, "--min-size", scan.min_size, parse_size, SIZE_FORMAT, "SIZE",
            "Leave out smaller files (default 64K); 0 leaves out only empty files");
  add_value(command, "--max-size", scan.filter.max_size, parse_size, SIZE_FORMAT, "SIZE",
            "Leave out larger files (default: no limit)");
  add_value(command, "--max-depth", scan.max_depth, parse_depth, "a number from 0 to 2047", "N",
            "Do not read directories N or more levels below a root");
  command->add_flag("-x,--one-file-system", scan.one_file_system,
                    "Stay on the file systems of the roots");
  // Only for the help text: `apply_config` has already replaced it with the file's options.
  command->add_option("--config", "Read options and roots from this file")->type_name("FILE");
  command->add_flag("--idle", scan.idle, "Run at idle disk and processor priority");
  add_time_budget(command, scan.time_budget);
}

void add_scan(CLI::App &app, ScanOptions &scan) {
  CLI::App *const command =
      app.add_subcommand("scan", "Find identical files in directory trees; --apply merges them");
  command->add_flag("--apply", scan.apply, "Make identical files share one copy of their data");
  command->add_flag("-n,--dry-run", scan.dry_run, "Merge nothing (default)");
  command->add_option("--state", scan.state, "Keep digests for the next scan in this directory")
      ->type_name("DIR");
  command->add_option("--skip", scan.skips, "Leave out this file or directory (may be repeated)")
      ->type_name("PATH")
      ->allow_extra_args(false);
  add_filter_options(command, scan);
  add_scan_limits(command, scan);
  command->add_flag("--json", scan.json, "Print one JSON object");
  command->add_option("--html", scan.html, "Also write the findings to an HTML page")
      ->type_name("FILE");
  command->add_flag("-v,--verbose", scan.verbose, "Show the library's log on standard error");
  command->add_flag("-q,--quiet", scan.quiet, "Show no progress and no remarks");
  command->add_flag("--no-color", scan.no_color, "No colours");
  command->add_option("ROOT", scan.roots, "Directory to scan")->type_name("");
}

void add_apply(CLI::App &app, ApplyOptions &apply) {
  CLI::App *const command = app.add_subcommand("apply", "Merge the groups of a scan --json report");
  command->add_flag("-n,--dry-run", apply.dry_run, "Examine the files, but merge nothing");
  command->add_option("--state", apply.state, "Where scans keep digests and the history")
      ->type_name("DIR");
  add_time_budget(command, apply.time_budget);
  command->add_flag("--json", apply.json, "Print one JSON object");
  command->add_flag("-v,--verbose", apply.verbose, "Show the library's log on standard error");
  command->add_flag("-q,--quiet", apply.quiet, "Show no progress and no remarks");
  command->add_option("REPORT", apply.report, "The report; '-' is standard input")
      ->required()
      ->type_name("");
}

void add_history(CLI::App &app, HistoryOptions &history) {
  CLI::App *const command = app.add_subcommand("history", "Show what each merging run has freed");
  command->add_option("--state", history.state, "The state directory of the scans")
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
  add_apply(app, line.apply);
  add_history(app, line.history);
  for (const FileCommand &kind : file_commands()) {
    add_file_command(app, kind, line.file);
  }
  app.set_version_flag("--version", VERSION, "Print the version and exit");
  for (CLI::App *const command : app.get_subcommands({})) {
    command->set_version_flag("--version", VERSION, "Print the version and exit");
  }
}

void check_scan(ScanOptions &scan) {
  unmark_globs(scan.filter.excludes);
  unmark_globs(scan.filter.includes);
  const auto inputs = std::count(scan.exclude_lists.begin(), scan.exclude_lists.end(), "-") +
                      (scan.roots_from == "-" ? 1 : 0);
  if (scan.apply && scan.dry_run) {
    throw CLI::ValidationError("--apply and --dry-run cannot be combined");
  }
  if (inputs > 1) {
    throw CLI::ValidationError("standard input can be read only once");
  }
  if (scan.ends_names_by_nul && scan.roots_from.empty()) {
    throw CLI::ValidationError("--null requires --roots-from");
  }
  if (scan.filter.max_size < scan.min_size) {
    throw CLI::ValidationError("--max-size is below --min-size, which is 64K unless it is given");
  }
  if (scan.roots.empty() && scan.roots_from.empty()) {
    throw CLI::RequiredError("ROOT");
  }
}

// Returns false, after an error message, if a file has invalid options.
bool apply_config(std::vector<std::string> &given) {
  const bool is_scan = !given.empty() && given.front() == "scan";
  const std::string wrong = is_scan ? expand_config(given) : "";
  if (!wrong.empty()) {
    print_error(wrong);
  }
  return wrong.empty();
}

// Describes a usage error when no command was recognised.
std::string describe_command(int argc, char **argv) {
  if (argc < 2) {
    return "no command given";
  }
  const std::string first = escaped_name(argv[1]);
  return (first.starts_with('-') ? "unknown option '" : "unknown command '") + first + "'";
}

std::string describe(const CLI::App &app, const CLI::ParseError &error) {
  std::string text = error.what();
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

// Prints help, the version or the error. Returns the exit status.
int report(const CLI::App &app, int argc, char **argv, const CLI::ParseError &error) {
  if (error.get_exit_code() == 0) {
    return app.exit(error);
  }
  const auto commands = app.get_subcommands();
  const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
  print_error(command.empty() ? describe_command(argc, argv) : describe(app, error));
  std::fprintf(stderr, "Try 'velmarin%s --help'.\n", command.c_str());
  return BAD_USAGE;
}

}  // namespace

CommandLine parse_command_line(int argc, char **argv) {
  CommandLine line;
  CLI::App app("Finds files with identical content and has the file system keep one copy.");
  define(app, line);
  std::vector<std::string> given(argv + 1, argv + argc);
  if (!apply_config(given)) {
    line.exit_status = BAD_USAGE;
    return line;
  }
  std::vector<std::string> arguments = plain_arguments(given);
  std::reverse(arguments.begin(), arguments.end());  // the order that the parser expects
  try {
    app.parse(std::move(arguments));
    line.command = app.get_subcommands().front()->get_name();
    if (line.command == "scan") {
      check_scan(line.scan);
    }
  } catch (const CLI::ParseError &error) {
    line.command.clear();
    line.exit_status = report(app, argc, argv, error);
  }
  return line;
}

}  // namespace tool
