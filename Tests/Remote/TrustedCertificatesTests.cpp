#include <array>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/Remote/TrustedCertificates.h"

namespace vellicor {
namespace {

TEST(TrustedCertificates, ArePutInPlaceOnlyWhereLibcurlsOwnAreMissing) {
  const TemporaryDirectory directory;
  const std::string missing = directory / "missing", one = directory / "one", two = directory / "two";
  writeFile(one, "");
  writeFile(two, "");
  struct Row {
    const char* name;
    std::optional<std::string> named, builtIn, expected;
  };
  const std::array<Row, 4> rows = {{
      {"a named file, readable or not", missing, missing, missing},
      {"libcurl's own", std::nullopt, two, std::nullopt},
      {"libcurl has none and asks the system", std::nullopt, std::nullopt, std::nullopt},
      {"libcurl's own is missing", std::nullopt, missing, one},
  }};
  const std::array places = {missing.c_str(), one.c_str(), two.c_str()};
  for (const Row& row : rows) {
    EXPECT_EQ(TrustedCertificates::file(row.named, row.builtIn, places), row.expected) << row.name;
  }
  EXPECT_EQ(TrustedCertificates::file(std::nullopt, missing, std::span(places).first(1)), std::nullopt);
}

}  // namespace
}  // namespace vellicor
