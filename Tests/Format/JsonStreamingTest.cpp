#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Tests/Support/Expect.h"
#include "VellicorFormat/JsonStreaming.h"

namespace vellicor {

struct StreamedPart {
  std::uint64_t size = 0;
  std::optional<std::int64_t> rank;
  std::vector<std::uint32_t> shape;
};

struct StreamedWhole {
  std::string name;
  std::vector<StreamedPart> list;
  std::map<std::string, StreamedPart> byName;
};

template <>
constexpr auto jsonTable<StreamedPart> =
    std::array{jsonMember<&StreamedPart::size>("size"), jsonMember<&StreamedPart::rank>("rank"),
               jsonMember<&StreamedPart::shape>("shape")};

template <>
constexpr auto jsonTable<StreamedWhole> =
    std::array{jsonMember<&StreamedWhole::name>("name"), jsonMember<&StreamedWhole::list>("list"),
               jsonMember<&StreamedWhole::byName>("by")};

namespace {

std::string textOf(const StreamedPart& part) {
  return fmt::format("{}/{}/{}", part.size, part.rank.value_or(-1), fmt::join(part.shape, "x"));
}

/// What a text is read as, or the error that it is refused with.
std::string outcome(const std::string& text) {
  std::string read;
  const std::string error = testing::errorText([&] {
    const auto whole = readJson<StreamedWhole>(text);
    read = whole.name;
    for (const StreamedPart& part : whole.list) read += " " + textOf(part);
    for (const auto& [name, part] : whole.byName) read += " " + name + "=" + textOf(part);
  });
  return error == "no error" ? read : error.substr(0, error.find(" at line"));
}

TEST(JsonStreaming, ReadsAndRefusesAsATreeWould) {
  const std::string part = R"({"size":1,"shape":[]})";
  std::string faults;
  for (int i = 0; i < 101; ++i) faults += fmt::format(R"("{}":0,)", i);
  std::string mended = faults;
  for (std::size_t at = 0; (at = mended.find(":0,", at)) != std::string::npos;)
    mended.replace(at + 1, 1, part);
  const auto whole = [](const std::string& list, const std::string& byName, const std::string& rest = "") {
    return R"({"name":"n","list":)" + list + R"(,"by":)" + byName + rest + "}";
  };
  const std::string deep = std::string(511, '[') + std::string(511, ']');
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"all of it",
       whole(R"([{"shape":[2,3],"rank":7,"size":1.0}])", R"({"b":)" + part + R"(,"a":)" + part + "}"),
       "n 1/7/2x3 a=1/-1/ b=1/-1/"},
      {"null for an optional", whole(R"([{"size":1,"shape":[],"rank":null}])", "{}"), "n 1/-1/"},
      {"unknown keys", whole("[]", "{}", R"(,"x":{"list":[{"by":[]},{}],"name":1},"y":"z")"), "n"},
      {"keys with escapes", R"({"na\u006de":"n","list":[],"by":{}})", "n"},
      {"the last of a key counts", whole("[" + part + "]", "{}", R"(,"list":[])"), "n"},
      {"and forgets the earlier", whole(R"([{"size":1,"rank":7,"shape":[1],"shape":[2],"rank":null}])", "{}"),
       "n 1/-1/2"},
      {"mended by the last", whole("[0]", R"({"a":0,"a":)" + part + "}", R"(,"list":[])"), "n a=1/-1/"},
      {"spoilt by the last", whole("[]", "{}", R"(,"list":{})"), "list: expected an array"},
      {"another stays spoilt", whole("[]", R"({"a":{},"b":0,"a":)" + part + "}"), "by.b: expected an object"},
      {"too many to be mended", whole("[]", "{" + faults + mended + R"("z":)" + part + "}"),
       "by.0: expected an object"},
      {"no object", "[]", "document: expected an object"},
      {"a scalar", "7", "document: expected an object"},
      {"nothing in it", "{}", "name: missing"},
      {"the table's order, not the text's", R"({"by":1,"list":[{}],"name":2})", "name: expected a string"},
      {"missing before wrong", R"({"by":1,"name":"n"})", "list: missing"},
      {"the first element", whole("[" + part + R"(,{"size":-1,"shape":[]},0])", "{}"),
       "list[1].size: expected an unsigned integer"},
      {"the first name", whole("[]", R"({"b":0,"a":{"size":1,"shape":[-1]}})"),
       "by.a.shape: expected 32-bit dimensions"},
      {"null for a required", whole("null", "{}"), "list: expected an array"},
      {"an object in an array of numbers", whole("[]", R"({"a":{"size":1,"shape":[1,{}]}})"),
       "by.a.shape: expected an array of integers"},
      {"a rounded integer", whole(R"([{"size":9007199254740993.0,"shape":[]}])", "{}"),
       "list[0].size: expected an unsigned integer"},
      {"NUL after it", whole("[]", "{}") + std::string("\0 ", 2), "JSON with a NUL byte at 30"},
      {"a fraction", whole(R"([{"size":1.5,"shape":[]}])", "{}"),
       "list[0].size: expected an unsigned integer"},
      {"a container for a number", whole(R"([{"size":[1,[2]],"shape":[]}])", "{}"),
       "list[0].size: expected an unsigned integer"},
      {"malformed before wrong", R"({"name":1,"list":[}})", "[json.exception.parse_error.101] parse error"},
      {"something behind", whole("[]", "{}") + "x", "[json.exception.parse_error.101] parse error"},
      {"no number", whole("[]", "{}", R"(,"x":1e999)"),
       "[json.exception.out_of_range.406] number overflow parsing '1e999'"},
      {"deep, ignored", whole("[]", "{}", R"(,"x":)" + deep), "n"},
      {"too deep, ignored", whole("[]", "{}", R"(,"x":[)" + deep + "]"),
       "JSON nested deeper than 512 levels"},
      {"too deep, wrong", whole("[[" + deep + "]]", "{}"), "JSON nested deeper than 512 levels"},
  };
  for (const auto& [name, text, expected] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(outcome(text), expected);
  }
}

}  // namespace
}  // namespace vellicor
