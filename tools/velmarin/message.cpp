#include "message.h"

#include <cstdio>

#include "display_name.h"

namespace tool {

std::string named(const std::string &name) {
  return name.empty() ? "''" : escaped_name(name);
}

void print_error(std::string_view text) {
  std::fprintf(stderr, "velmarin: %s\n", std::string(text).c_str());
}

void print_error(std::string_view what, std::string_view name) {
  print_error(std::string(what) + ' ' + named(std::string(name)));
}

void print_error(std::string_view what, std::string_view name, std::string_view reason) {
  print_error(std::string(what) + ' ' + named(std::string(name)) + ": " + std::string(reason));
}

}  // namespace tool
