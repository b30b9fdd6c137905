#include "arguments.h"

#include <set>

namespace tool {
namespace {

// A value may begin with any character if it is a glob. Another that begins with a dash is more
// likely the next option, and can be given as "--state=-x".
bool can_be_value(const std::string &word, OptionKind kind) {
  return kind == OptionKind::globs || word == "-" || !word.starts_with('-');
}

// Reads an option that takes a value, and the value from the next word if it is there.
Argument read_option(const std::vector<std::string> &words, size_t &index, OptionKind kind) {
  const std::string &word = words[index];
  const size_t sign = word.find('=');
  Argument argument = {word.substr(0, sign), {}};
  if (sign != std::string::npos) {
    argument.value = word.substr(sign + 1);
  } else if (index + 1 < words.size() && can_be_value(words[index + 1], kind)) {
    argument.value = words[++index];
  } else {
    throw UsageError(argument.option + " needs a value");
  }
  if (argument.value.empty()) {
    throw UsageError(argument.option + " needs a value that is not empty");
  }
  return argument;
}

Argument read_argument(const std::vector<std::string> &words, size_t &index,
                       const OptionKinds &kind_of) {
  const std::string &word = words[index];
  if (!word.starts_with('-') || word == "-") {
    return {{}, word};
  }
  const std::string option = word.substr(0, word.find('='));
  const OptionKind kind = kind_of(option);
  if (kind == OptionKind::flag && option != word) {
    throw UsageError(option + " takes no value");
  }
  if (kind == OptionKind::flag || kind == OptionKind::unknown) {
    return {word, {}};
  }
  return read_option(words, index, kind);
}

// The parser splits names in brackets and gives some other characters a meaning. No option and no
// number starts with these.
std::string plain_name(const std::string &name) {
  const char first = name.empty() ? '\0' : name.front();
  return (first == '[' || first == '{' || first == '%' ? "./" : "") + name;
}

}  // namespace

std::vector<Argument> read_arguments(const std::vector<std::string> &words,
                                     const OptionKinds &kind_of, const std::string &repeatable) {
  std::vector<Argument> arguments;
  std::set<std::string> single;
  size_t index = 0;
  for (; index < words.size() && words[index] != "--"; ++index) {
    arguments.push_back(read_argument(words, index, kind_of));
    const std::string &option = arguments.back().option;
    if (kind_of(option) == OptionKind::value && option != repeatable &&
        !single.insert(option).second) {
      throw UsageError(option + " is given twice");
    }
  }
  for (++index; index < words.size(); ++index) {
    arguments.push_back({{}, (words[index].starts_with('-') ? "./" : "") + words[index]});
  }
  return arguments;
}

std::vector<std::string> words_of(const std::vector<Argument> &arguments,
                                  const OptionKinds &kind_of) {
  std::vector<std::string> words;
  for (const auto &[option, value] : arguments) {
    if (option.empty() || value.empty()) {
      words.push_back(option + plain_name(value));
    } else {
      words.push_back(option + '=' +
                      (kind_of(option) == OptionKind::globs ? ':' + value : plain_name(value)));
    }
  }
  return words;
}

void unmark_globs(std::vector<std::string> &globs) {
  for (std::string &glob : globs) {
    glob.erase(0, 1);
  }
}

}  // namespace tool
