#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include "arguments.h"
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
constexpr const char *VERSION = "velmarin " VELMARIN_VERSION;

std::string include_error(const std::string &marked) {
  return marked.ends_with('/') ? "matches only files; for everything below a directory, use '" +
                                     escaped_name(marked.substr(1)) + "**'"
                               : "";
}

void add_filter_options(CLI::App *command, ScanOptions &scan) {
  command
      ->add_option(EXCLUDE, scan.filter.excludes, "Leave out entries that match (may be repeated)")
      ->type_name("GLOB")
      ->allow_extra_args(false);
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
  // Only for the help text: `expand_config` has already replaced it with the file's options.
  command->add_option(CONFIG, "Read options and roots from this file")->type_name("FILE");
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
  command->add_flag("-v,--verbose", scan.verbose,
                    "Show the library's log, then what was left out, on standard error");
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

OptionKind kind_of(const CLI::App &command, const std::string &name) {
  const CLI::Option *const option =
      name.starts_with('-') ? command.get_option_no_throw(name) : nullptr;
  if (option == nullptr) {
    return OptionKind::unknown;
  }
  if (name == EXCLUDE || name == INCLUDE) {
    return OptionKind::globs;
  }
  const int most = option->get_items_expected_max();
  return most == 0 ? OptionKind::flag : most == 1 ? OptionKind::value : OptionKind::values;
}

// Returns the arguments in the form and the order that the parser expects.
std::vector<std::string> prepare(const CLI::App &app, std::vector<std::string> words) {
  const auto commands = app.get_subcommands([&words](const CLI::App *command) {
    return !words.empty() && command->get_name() == words.front();
  });
  if (!commands.empty()) {
    const OptionKinds kinds = [&commands](const std::string &option) {
      return kind_of(*commands.front(), option);
    };
    const std::string name = words.front();
    words.erase(words.begin());
    words = words_of(expand_config(read_arguments(words, kinds, CONFIG), kinds), kinds);
    words.insert(words.begin(), name);
  }
  std::reverse(words.begin(), words.end());
  return words;
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
  const std::string text = error.what();
  const auto extras = app.remaining(true);
  const std::string extra = extras.empty() ? "" : escaped_name(extras.front());
  if (extra.starts_with('-')) {
    return "unknown option '" + extra + "'";
  }
  if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr) {
    return text.substr(0, text.find(' ')) + " is missing";
  }
  const bool is_extra = dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr;
  return is_extra ? "unexpected argument '" + extra + "'" : text;
}

// Prints what is wrong with the use of a command, which is empty if there is none. Returns the exit
// status.
int report_usage(const std::string &command, const std::string &wrong) {
  print_error(wrong);
  std::fprintf(stderr, "Try 'velmarin%s%s --help'.\n", command.empty() ? "" : " ", command.c_str());
  return BAD_USAGE;
}

// Prints help, the version or the error. Returns the exit status.
int report(const CLI::App &app, int argc, char **argv, const CLI::ParseError &error) {
  if (error.get_exit_code() == 0) {
    return app.exit(error);
  }
  const auto commands = app.get_subcommands();
  return commands.empty() ? report_usage("", describe_command(argc, argv))
                          : report_usage(commands.front()->get_name(), describe(app, error));
}

}  // namespace

CommandLine parse_command_line(int argc, char **argv) {
  CommandLine line;
  CLI::App app("Finds files with identical content and has the file system keep one copy.");
  define(app, line);
  try {
    app.parse(prepare(app, {argv + 1, argv + argc}));
    line.command = app.get_subcommands().front()->get_name();
    if (line.command == "scan") {
      check_scan(line.scan);
    }
  } catch (const CLI::ParseError &error) {
    line.command.clear();
    line.exit_status = report(app, argc, argv, error);
  } catch (const UsageError &error) {
    line.exit_status = report_usage(argv[1], error.what());
  }
  return line;
}

}  // namespace tool
