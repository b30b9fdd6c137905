#include "config_file.h"

#include <set>
#include <string_view>

#include "display_name.h"
#include "name_list.h"

namespace tool {
namespace {

constexpr const char *FORMAT = "expected 'OPTION', 'OPTION = VALUE' or 'root = /DIRECTORY', not ";

std::string quoted(const std::string &text) {
  return "'" + escaped_name(text) + "'";
}

std::string trimmed(std::string_view text) {
  constexpr const char *BLANKS = " \t";
  const size_t begin = text.find_first_not_of(BLANKS);
  return begin == std::string_view::npos
             ? std::string()
             : std::string(text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1));
}

// What the line stands for.
Argument read_line(const std::string &line, const OptionKinds &kind_of) {
  const size_t sign = line.find('=');
  const bool has_sign = sign != std::string::npos;
  const std::string name = trimmed(line.substr(0, sign));
  const std::string value = has_sign ? trimmed(line.substr(sign + 1)) : "";
  if (name == "root" && value.starts_with('/')) {
    return {{}, value};
  }
  if (name.empty() || name.starts_with('-') || name == "root") {
    throw UsageError(FORMAT + quoted(line));
  }
  const std::string option = "--" + name;
  const OptionKind kind = kind_of(option);
  if (kind == OptionKind::unknown || option == CONFIG || name == "help" || name == "version") {
    throw UsageError("unknown option " + quoted(name));
  }
  if (kind == OptionKind::flag ? has_sign : value.empty()) {
    throw UsageError(quoted(name) +
                     (kind == OptionKind::flag ? " takes no value" : " needs a value"));
  }
  return {option, value};
}

class ConfigFiles {
 public:
  ConfigFiles(const std::vector<Argument> &arguments, const OptionKinds &kind_of)
      : kind_of_(kind_of) {
    for (const Argument &argument : arguments) {
      on_command_line_.insert(argument.option);
    }
  }

  void add(const std::string &file, std::vector<Argument> &arguments) {
    std::vector<std::string> lines;
    if (!read_lines(file, lines)) {
      throw UsageError("cannot read the options in " + escaped_name(file));
    }
    size_t number = 0;
    for (const std::string &line : lines) {
      ++number;
      try {
        add_line(trimmed(line), arguments);
      } catch (const UsageError &error) {
        throw UsageError(escaped_name(file) + ", line " + std::to_string(number) + ": " +
                         error.what());
      }
    }
  }

 private:
  void add_line(const std::string &line, std::vector<Argument> &arguments) {
    if (line.empty() || line.starts_with('#')) {
      return;
    }
    const Argument argument = read_line(line, kind_of_);
    const bool is_single = kind_of_(argument.option) == OptionKind::value;
    if (is_single && !in_files_.insert(argument.option).second) {
      throw UsageError(quoted(argument.option.substr(2)) + " is given twice");
    }
    if (!is_single || !on_command_line_.contains(argument.option)) {
      arguments.push_back(argument);
    }
  }

  const OptionKinds &kind_of_;
  std::set<std::string> on_command_line_;
  std::set<std::string> in_files_;  // options with one value
};

}  // namespace

std::vector<Argument> expand_config(const std::vector<Argument> &arguments,
                                    const OptionKinds &kind_of) {
  ConfigFiles files(arguments, kind_of);
  std::vector<Argument> expanded;
  for (const Argument &argument : arguments) {
    if (argument.option == CONFIG) {
      files.add(argument.value, expanded);
    } else {
      expanded.push_back(argument);
    }
  }
  return expanded;
}

}  // namespace tool
