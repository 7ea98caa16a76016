#include "Tests/Format/Samples.h"
#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/JsonReading.h"

namespace vellicor::testing {
namespace {

using Layout = CanonicalJson::Layout;
using Slashes = CanonicalJson::Slashes;

std::string document(Layout layout, Slashes slashes) {
  CanonicalJson json(layout, slashes);
  json.beginObject().key("a").beginArray().endArray().key("b").beginObject().endObject();
  json.key("c").beginArray().value(std::int64_t{-1}).beginObject().member("d/e", true).endObject().endArray();
  json.member("f", "\"\\/\b\f\n\r\t\x01\x1F\x7F\xC3\xA9").member("g", ~std::uint64_t{0}).endObject();
  return std::move(json).take();
}

TEST(CanonicalJson, GoldenTexts) {
  EXPECT_EQ(document(Layout::pretty, Slashes::plain), goldenText("pretty.json"));
  EXPECT_EQ(document(Layout::compact, Slashes::escaped),
            R"({"a":[],"b":{},"c":[-1,{"d\/e":true}],"f":"\"\\\/\b\f\n\r\t\u0001\u001f)"
            "\x7F\xC3\xA9\",\"g\":18446744073709551615}");
}

TEST(CanonicalJson, TextThatIsNotUtf8IsRefused) {
  CanonicalJson json(Layout::compact, Slashes::plain);
  EXPECT_EQ(errorText([&] { json.value("mak\xFF"); }), "text is not UTF-8");
}

TEST(CanonicalJson, DoublesAreShortestAndReadBack) {
  const std::pair<double, const char*> rows[] = {{30, "30"},         {-0.0, "-0.0"},
                                                 {0.1, "0.1"},       {1e6, "1000000"},
                                                 {5e-324, "5e-324"}, {1.0 / 3, "0.3333333333333333"}};
  for (const auto& [number, expected] : rows) {
    CanonicalJson json(Layout::compact, Slashes::plain);
    const std::string text = std::move(json.value(number)).take();
    EXPECT_EQ(text, expected);
    EXPECT_EQ(parseJson(text).root.get<double>(), number);
  }
}

TEST(JsonReading, IntegersAreExact) {
  const std::vector<std::tuple<const char*, std::optional<std::int64_t>, std::optional<std::uint64_t>>> rows =
      {
          {"3.0", 3, 3},
          {"-20.50e1", -205, {}},
          {"0.0e-999999999999999999999", {}, {}},
          {"9007199254740991.0", 9007199254740991, 9007199254740991U},
          {"9007199254740993.0", {}, {}},
          {"4503599627370497.3", {}, {}},
          {"1.0000000000000000001", {}, {}},
          {"1e-400", {}, {}},
          {"2.5", {}, {}},
          {"true", {}, {}},
          {"\"3\"", {}, {}},
          {"9223372036854775807", std::numeric_limits<std::int64_t>::max(), 9223372036854775807U},
          {"9223372036854775808", {}, 9223372036854775808U},
          {"-9223372036854775808", std::numeric_limits<std::int64_t>::min(), {}},
          {"18446744073709551615", {}, 18446744073709551615U},
          {"18446744073709551616", {}, {}},
          {"-9223372036854775809", {}, {}},
          {"-1e300", {}, {}},
      };
  for (const auto& [text, asSigned, asUnsigned] : rows) {
    EXPECT_EQ(exactInteger(parseJson(text).root), asSigned) << text;
    EXPECT_EQ(exactUnsigned(parseJson(text).root), asUnsigned) << text;
  }
}

TEST(JsonReading, DepthIsBoundedOutsideStringsOnly) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(errorText([&] { parseJson(nested(512)); }), "no error");
  EXPECT_EQ(errorText([&] { parseJson(nested(513)); }), "JSON nested deeper than 512 levels");
  EXPECT_EQ(errorText([] { parseJson("[\"\\\"" + std::string(600, '[') + "\"]"); }), "no error");
}

TEST(JsonReading, HostileTextsEndAsTheCodecsOwnError) {
  const std::string manifest = goldenText("manifest.json");
  const std::pair<const char*, std::string> rows[] = {
      {"empty", ""},
      {"NUL", std::string(3, '\0')},
      {"NUL after it", manifest + std::string(1, '\0') + "{"},
      {"brackets", std::string(1 << 20, '[')},
      {"millions of values", "[" + std::string(1500001, ',') + "]"},
      {"no object", "[]"},
      {"cut short", manifest.substr(0, manifest.size() / 2)},
      {"something after it", manifest + "x"},
      {"ill-formed UTF-8", replaced(manifest, "maker", "mak\xFF")},
      {"number beyond doubles", replaced(manifest, ": 2816", ": 1e999")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    EXPECT_THAT(errorText([&] { MorlenManifestCodec::decode(row.second); }), StartsWith("manifest.json: "));
    EXPECT_THAT(errorText([&] { MorlenPackedExpertsLayoutCodec::decode(row.second); }),
                StartsWith("packed_experts/layout.json: "));
    EXPECT_THROW(MorlenManifestCodec::decode(row.second), MorlenFormatError);
  }
}

}  // namespace
}  // namespace vellicor::testing
