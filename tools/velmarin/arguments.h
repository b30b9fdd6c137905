// The arguments of a command, read as far as is needed before they are parsed: which words are
// options, which are their values and which are names.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// The command line or a configuration file is wrong; the text says how.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What an option takes: nothing, one value, or globs or other values, one each time it is given.
enum class OptionKind { unknown, flag, value, values, globs };

// Tells the kind of an option: "--state" or "-x".
using OptionKinds = std::function<OptionKind(const std::string &option)>;

struct Argument {
  std::string option;  // empty: `value` is a name
  std::string value;   // not empty if the option takes one
};

// The words of a command line without the command. Throws `UsageError` if an option lacks its value
// or has one that it does not take, or if one that takes a single value is given twice.
// `repeatable` takes a value but may be repeated all the same.
std::vector<Argument> read_arguments(const std::vector<std::string> &words,
                                     const OptionKinds &kind_of, const std::string &repeatable);

// The words that the parser understands. Each glob is marked by a character before it, which
// `unmark_globs` removes.
std::vector<std::string> words_of(const std::vector<Argument> &arguments,
                                  const OptionKinds &kind_of);
void unmark_globs(std::vector<std::string> &globs);

}  // namespace tool
