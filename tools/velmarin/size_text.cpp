#include "size_text.h"

#include <algorithm>
#include <cstdio>

namespace tool {
namespace {

constexpr std::string_view UNITS = "KMGT";
constexpr unsigned MAX_DURATION = 365 * 86400;

// Wide enough for a size with its fraction digits, before rounding down.
using Wide = unsigned __int128;
constexpr Wide WIDE_MAX = ~Wide{0};
constexpr size_t MAX_FRACTION_DIGITS = 9;
constexpr size_t MAX_DIGITS = 29;

// Removes and returns the digits at the start of the text.
std::string_view take_digits(std::string_view &text) {
  const size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::string_view digits = text.substr(0, count);
  text.remove_prefix(count);
  return digits;
}

std::optional<Wide> read_number(std::string_view digits) {
  if (digits.empty() || digits.size() > MAX_DIGITS) {
    return std::nullopt;
  }
  Wide number = 0;
  for (const char digit : digits) {
    number = number * 10 + static_cast<unsigned>(digit - '0');
  }
  return number;
}

// Removes a unit from the start of the text: "K" or "KiB", in either case. Returns its power of
// two, 0 if there is none.
unsigned take_unit(std::string_view &text) {
  const char letter = text.empty() ? '\0' : static_cast<char>(text.front() & ~0x20);
  const size_t index = UNITS.find(letter);
  if (index == std::string_view::npos) {
    return 0;
  }
  text.remove_prefix(1);
  if (text.size() == 2 && (text[0] & ~0x20) == 'I' && (text[1] & ~0x20) == 'B') {
    text.remove_prefix(2);
  }
  return 10 * (static_cast<unsigned>(index) + 1);
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
  const std::string_view whole = take_digits(text);
  const bool has_point = !whole.empty() && text.starts_with('.');
  text.remove_prefix(has_point ? 1 : 0);
  const std::string_view fraction = has_point ? take_digits(text) : "";
  const unsigned shift = take_unit(text);
  if (whole.empty() || !text.empty() || (has_point && (fraction.empty() || shift == 0))) {
    return std::nullopt;
  }
  const auto number = read_number(std::string(whole) + std::string(fraction));
  if (!number || fraction.size() > MAX_FRACTION_DIGITS || *number > (WIDE_MAX >> shift)) {
    return std::nullopt;
  }
  Wide bytes = *number << shift;
  for (size_t digit = 0; digit < fraction.size(); ++digit) {
    bytes /= 10;
  }
  return bytes > UINT64_MAX ? std::nullopt : std::optional(static_cast<uint64_t>(bytes));
}

std::optional<unsigned> parse_duration(std::string_view text) {
  static constexpr struct {
    char letter;
    unsigned seconds;
  } PARTS[] = {{'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};
  uint64_t sum = 0;
  size_t next = 0;  // the units come in this order, each once
  do {
    const auto number = read_number(take_digits(text));
    const bool is_plain = text.empty() && next == 0;
    while (!is_plain && next < std::size(PARTS) && !text.starts_with(PARTS[next].letter)) {
      ++next;
    }
    if (!number || *number > MAX_DURATION || (!is_plain && next == std::size(PARTS))) {
      return std::nullopt;
    }
    sum += static_cast<uint64_t>(*number) * (is_plain ? 1 : PARTS[next++].seconds);
    text.remove_prefix(is_plain ? 0 : 1);
  } while (!text.empty());
  return sum > MAX_DURATION ? std::nullopt : std::optional(static_cast<unsigned>(sum));
}

std::string format_size(uint64_t bytes) {
  if (bytes < 1024) {
    return std::to_string(bytes) + " B";
  }
  static constexpr const char *NAMES[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024;
  size_t name = 0;
  while (value >= 1023.95) {  // which would be printed as 1024.0
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
