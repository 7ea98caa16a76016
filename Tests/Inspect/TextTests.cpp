#include <limits>

#include <gtest/gtest.h>

#include "VellicorInspect/Text.h"

namespace vellicor {
namespace {

TEST(InspectText, ShowsEveryCharacterOrItsBytes) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"plain \\x41", "plain \\x41"},
      {std::string("a\0b\n\x7f", 5), "a\\x00b\\x0a\\x7f"},
      {"\u00e9\u4e2d\U0001f600", "\u00e9\u4e2d\U0001f600"},
      {"\u009b\u202e\u200b\u2028\u00a0", "\\xc2\\x9b\\xe2\\x80\\xae\\xe2\\x80\\x8b\\xe2\\x80\\xa8\\xc2\\xa0"},
      {"\xff\xc3", "\\xff\\xc3"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(printable(text), expected);
  EXPECT_EQ(printableJson("\"\u009b\u00e9\u00a0\x7f\xc2"), "\"\\u009b\u00e9\u00a0\\u007f\xc2");
  EXPECT_EQ(xmlText("<a b=\"&\x01\">"), "&lt;a b=&quot;&amp;\\x01&quot;&gt;");
}

TEST(InspectText, ShortensAndRounds) {
  EXPECT_EQ(elided("caf\u00e9s", 5), "caf\u00e9s");
  EXPECT_EQ(elided("caf\u00e9s", 4), "...s");
  EXPECT_EQ(elided("\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", 5), "...\u00e9\u00e9");
  const std::vector<std::pair<std::uint64_t, std::string>> rows = {
      {0, "0 B (0 bytes)"},
      {1023, "1023 B (1,023 bytes)"},
      {1024, "1.0 KiB (1,024 bytes)"},
      {1048575, "1.0 MiB (1,048,575 bytes)"},
      {std::numeric_limits<std::uint64_t>::max(), "16.0 EiB (18,446,744,073,709,551,615 bytes)"}};
  for (const auto& [bytes, expected] : rows) EXPECT_EQ(exactBytes(bytes), expected);
  EXPECT_EQ(percentage(0, 0), "0.0%");
}

}  // namespace
}  // namespace vellicor
