#include "Tests/Support/Expect.h"
#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorFormat/Unicode.h"

namespace vellicor::testing {
namespace {

constexpr std::uint64_t maximum = ~std::uint64_t{0};

TEST(MorlenFormatV1, ArithmeticRefusesWhatDoesNotFit) {
  EXPECT_EQ(morlenCheckedAdd(maximum, 0, "f"), maximum);
  EXPECT_EQ(errorText([] { morlenCheckedAdd(maximum, 1, "f"); }), "f: arithmetic overflow");
  EXPECT_EQ(morlenCheckedMultiply(4294967296, 4294967295, "f"), 18446744069414584320U);
  EXPECT_EQ(morlenCheckedMultiply(0, maximum, "f"), 0U);
  EXPECT_EQ(errorText([] { morlenCheckedMultiply(4294967296, 4294967296, "g"); }), "g: arithmetic overflow");
  EXPECT_EQ(morlenRoundUpToAlignment(16385, "f"), 32768U);
  EXPECT_EQ(morlenRoundUpToAlignment(maximum - 16383, "f"), maximum - 16383);
  EXPECT_EQ(errorText([] { morlenRoundUpToAlignment(maximum - 16382, "h"); }), "h: arithmetic overflow");
}

TEST(MorlenFormatV1, PathRules) {
  const std::string fine = "no error";
  const std::string unsafe = "p: unsafe relative path";
  const std::string nonCanonical = "p: non-canonical path";
  struct PathRow {
    std::string_view path;
    std::string asPath, asBasename;
  };
  const PathRow rows[] = {
      {"a b\\\xC3\xA4", fine, fine},
      {"...", fine, fine},
      {"a/b", fine, "p: expected basename"},
      {"", unsafe, unsafe},
      {"/a", unsafe, unsafe},
      {std::string_view("a/\0b", 4), unsafe, unsafe},
      {"a//b", nonCanonical, nonCanonical},
      {"a/", nonCanonical, nonCanonical},
      {"./a", nonCanonical, nonCanonical},
      {"a/../b", nonCanonical, nonCanonical},
      {"..", nonCanonical, nonCanonical},
  };
  for (const PathRow& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(errorText([&] { MorlenPathValidator::validateRelativePath(row.path, "p"); }), row.asPath);
    EXPECT_EQ(errorText([&] { MorlenPathValidator::validateBasename(row.path, "p"); }), row.asBasename);
  }
}

TEST(MorlenFormatV1, FilesystemKeyIgnoresCaseAndComposition) {
  const auto key = MorlenPathValidator::appleFilesystemKey;
  EXPECT_EQ(key("E\xCC\x81"), key("\xC3\xA9"));
  // Lower-casing is full and of no one language: I keeps its dot, and a final sigma is a final one.
  EXPECT_EQ(key("I\xCE\xA3"), "i\xCF\x82");
}

TEST(Unicode, WellFormednessAndRepair) {
  const std::pair<std::string, std::string> rows[] = {
      {"a\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80", "a\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80"},
      {"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", "\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF"},
      {"stray tail \x80z", "stray tail \xEF\xBF\xBDz"},
      {"overlong \xC0\x80", "overlong \xEF\xBF\xBD\xEF\xBF\xBD"},
      {"surrogate \xED\xA0\x80", "surrogate \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"beyond Unicode \xF4\x90\x80", "beyond Unicode \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"cut short \xF0\x9F\x98", "cut short \xEF\xBF\xBD"},
  };
  for (const auto& [text, repaired] : rows) {
    SCOPED_TRACE(text);
    EXPECT_EQ(isWellFormedUtf8(text), text == repaired);
    EXPECT_EQ(repairedUtf8(text), repaired);
    EXPECT_EQ(canonicalComposition(text), canonicalComposition(repaired));
  }
}

TEST(Unicode, MarksOutOfOrderComposeAsInOrderHoweverMany) {
  EXPECT_EQ(canonicalComposition("a\xCC\x81\xCC\xA3/\xE1\xBB\x87"), "\xE1\xBA\xA1\xCC\x81/\xE1\xBB\x87");
  std::string marks = "a";
  for (int i = 0; i < 500000; ++i)
    marks += "\xCC\x80\xCC\x96";  // Quadratic time would take a quarter of an hour.
  EXPECT_EQ(canonicalComposition(marks).size(), marks.size() - 1);
}

}  // namespace
}  // namespace vellicor::testing
