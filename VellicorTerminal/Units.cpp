#include "VellicorTerminal/Units.h"

#include <array>
#include <cstddef>
#include <string_view>

#include <fmt/format.h>

namespace vellicor {

namespace {

struct Unit {
  double bytes;
  std::string_view name;
};
constexpr std::array units = {Unit{1, "B"},     Unit{1e3, "kB"},  Unit{1e6, "MB"}, Unit{1e9, "GB"},
                              Unit{1e12, "TB"}, Unit{1e15, "PB"}, Unit{1e18, "EB"}};

/// The unit in which the rounded number stays below a thousand.
const Unit& unitFor(double bytes) {
  std::size_t unit = 0;
  while (unit + 1 < units.size() && bytes / units[unit].bytes >= 999.5) ++unit;
  return units[unit];
}

/// Decimal places that give three significant digits.
int digitsFor(const Unit& unit, double bytes) {
  const double number = bytes / unit.bytes;
  if (unit.bytes == 1 || number >= 99.95) return 0;
  return number < 9.995 ? 2 : 1;
}

std::string numberIn(const Unit& unit, int digits, double bytes) {
  return fmt::format("{:.{}f}", bytes / unit.bytes, digits);
}

std::string groupedDigits(std::uint64_t number) {
  std::string digits = fmt::format("{}", number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

}  // namespace

std::string bytesText(double bytes) {
  const Unit& unit = unitFor(bytes);
  return fmt::format("{} {}", numberIn(unit, digitsFor(unit, bytes), bytes), unit.name);
}

std::string bytesText(std::uint64_t bytes) { return bytesText(static_cast<double>(bytes)); }

std::string bytesOfText(std::uint64_t part, std::uint64_t whole) {
  const auto total = static_cast<double>(whole);
  const Unit& unit = unitFor(total);
  const int digits = digitsFor(unit, total);
  return fmt::format("{}/{} {}", numberIn(unit, digits, static_cast<double>(part)),
                     numberIn(unit, digits, total), unit.name);
}

std::string exactBytesText(std::uint64_t bytes) {
  return fmt::format("{} ({} bytes)", bytesText(bytes), groupedDigits(bytes));
}

std::string percentText(std::uint64_t part, std::uint64_t whole) {
  return fmt::format("{:.1f}%",
                     whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string durationText(std::chrono::nanoseconds duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  if (seconds < 9.95) return fmt::format("{:.1f} s", seconds);
  const auto whole = std::chrono::round<std::chrono::seconds>(duration);
  return whole.count() < 60 ? fmt::format("{} s", whole.count()) : clockText(whole);
}

std::string clockText(std::chrono::seconds duration) {
  const std::int64_t seconds = duration.count();
  if (duration >= std::chrono::hours(100)) return ">99 h";
  if (seconds < 3600) return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

}  // namespace vellicor
