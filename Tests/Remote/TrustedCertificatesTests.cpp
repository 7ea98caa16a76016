#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Remote/TrustedCertificates.h"

namespace vellicor::testing {
namespace {

TEST(TrustedCertificates, ArePutInPlaceOnlyWhereLibcurlsOwnAreMissing) {
  const TemporaryDirectory directory;
  const std::string missing = directory / "missing", one = directory / "one", two = directory / "two";
  writeFile(one, "");
  writeFile(two, "");
  using File = std::optional<std::string>;
  // The file that the environment names, libcurl's own, and what is put in place.
  const std::vector<std::tuple<const char*, File, File, File>> rows = {
      {"a named file, readable or not", missing, missing, missing},
      {"libcurl's own", {}, two, {}},
      {"libcurl has none and asks the system", {}, {}, {}},
      {"libcurl's own is missing", {}, missing, one},
  };
  const std::array places = {missing.c_str(), one.c_str(), two.c_str()};
  for (const auto& [name, named, builtIn, expected] : rows)
    EXPECT_EQ(TrustedCertificates::file(named, builtIn, places), expected) << name;
  EXPECT_EQ(TrustedCertificates::file(std::nullopt, missing, std::span(places).first(1)), std::nullopt);
}

}  // namespace
}  // namespace vellicor::testing
