#include "config_file.h"

#include <string_view>

#include "display_name.h"
#include "name_list.h"

namespace tool {
namespace {

constexpr std::string_view OPTION = "--config";

std::string_view trimmed(std::string_view text) {
  constexpr const char *BLANKS = " \t\r";
  const size_t begin = text.find_first_not_of(BLANKS);
  return begin == std::string_view::npos
             ? std::string_view()
             : text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

// Appends the argument that the line stands for. Returns false if the line is invalid.
bool add_line(std::string_view line, std::vector<std::string> &arguments) {
  const size_t sign = line.find('=');
  const bool has_value = sign != std::string_view::npos;
  const std::string name(trimmed(line.substr(0, sign)));
  const std::string value(has_value ? trimmed(line.substr(sign + 1)) : "");
  if (name == "root") {
    arguments.push_back(value);
    return value.starts_with('/');
  }
  arguments.push_back("--" + name + (has_value ? "=" + value : ""));
  return !name.empty() && !name.starts_with('-') && "--" + name != OPTION &&
         has_value == !value.empty();
}

std::string add_file(const std::string &file, std::vector<std::string> &arguments) {
  std::vector<std::string> lines;
  if (!read_names(file, false, lines)) {
    return "cannot read the options in " + escaped_name(file);
  }
  for (const std::string &line : lines) {
    const std::string_view text = trimmed(line);
    if (!text.empty() && !text.starts_with('#') && !add_line(text, arguments)) {
      return "invalid line in " + escaped_name(file) +
             ", expected 'OPTION', 'OPTION = VALUE' or 'root = /DIRECTORY': " +
             escaped_name(std::string(text));
    }
  }
  return {};
}

}  // namespace

std::string expand_config(std::vector<std::string> &arguments) {
  std::vector<std::string> expanded;
  std::string wrong;
  size_t i = 0;
  for (; i < arguments.size() && arguments[i] != "--" && wrong.empty(); ++i) {
    const std::string &argument = arguments[i];
    if (argument == OPTION && i + 1 < arguments.size()) {
      wrong = add_file(arguments[++i], expanded);
    } else if (argument.starts_with(std::string(OPTION) + "=")) {
      wrong = add_file(argument.substr(OPTION.size() + 1), expanded);
    } else {
      expanded.push_back(argument);
    }
  }
  expanded.insert(expanded.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i),
                  arguments.end());
  arguments = std::move(expanded);
  return wrong;
}

}  // namespace tool
