#include "size_text.h"

#include <charconv>
#include <cstdio>

namespace tool {
namespace {

constexpr std::string_view UNITS = "KMGT";

// The power of 1024 that a unit letter stands for, 0 when it is none.
unsigned unit_power(char letter) {
  const char upper =
      letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
  const size_t place = UNITS.find(upper);
  return place == std::string_view::npos ? 0 : static_cast<unsigned>(place) + 1;
}

std::string one_decimal(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

std::string two_digits(long long value) {
  return (value < 10 ? "0" : "") + std::to_string(value);
}

}  // namespace

std::optional<uint64_t> parse_size(std::string_view text) {
  uint64_t number = 0;
  const char *const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || end - rest > 1) {
    return std::nullopt;
  }
  if (rest == end) {
    return number;
  }
  const unsigned shift = 10 * unit_power(*rest);
  if (shift == 0 || number > (UINT64_MAX >> shift)) {
    return std::nullopt;
  }
  return number << shift;
}

std::string format_size(uint64_t bytes) {
  if (bytes < 1024) {
    return std::to_string(bytes) + " B";
  }
  static constexpr const char *NAMES[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024;
  size_t name = 0;
  // 1023.95 would be printed as 1024.0.
  while (value >= 1023.95 && name + 1 < std::size(NAMES)) {
    value /= 1024;
    ++name;
  }
  std::string text = one_decimal(value);
  if (text.ends_with(".0")) {
    text.resize(text.size() - 2);
  }
  return text + ' ' + NAMES[name];
}

std::string format_duration(std::chrono::milliseconds duration) {
  const long long tenths = duration.count() / 100;
  const long long seconds = tenths / 10;
  if (seconds < 60) {
    return std::to_string(seconds) + '.' + std::to_string(tenths % 10) + " s";
  }
  if (seconds < 3600) {
    return std::to_string(seconds / 60) + " min " + two_digits(seconds % 60) + " s";
  }
  return std::to_string(seconds / 3600) + " h " + two_digits(seconds / 60 % 60) + " min";
}

std::string format_count(uint64_t count, std::string_view noun) {
  return std::to_string(count) + ' ' + std::string(noun) + (count == 1 ? "" : "s");
}

}  // namespace tool
