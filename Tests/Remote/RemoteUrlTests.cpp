#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor::testing {
namespace {

TEST(RemoteUrl, ParsesAbsoluteUrls) {
  // "scheme authority redacted", or empty for a refusal.
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"https://h", "https h https://h/"},
      {"HTTPS://Hub.Example:8443/a?b#c", "https Hub.Example:8443 https://Hub.Example:8443/a"},
      {"ftp://h/x", "ftp h ftp://h/x"},
      {"weird+x://h/x", "weird+x h weird+x://h/x"},
      {"https://[::1]:8/x?y", "https [::1]:8 https://[::1]:8/x"},
      {"https://h/a/../b%2Fc?%2f=%22&=?", "https h https://h/a/../b%2Fc"},
      {"/x", ""},
      {"//h/x", ""},
      {"file:///x", ""},
      {"mailto:a@h", ""},
      {"https://h:99999/", ""},
      {"https://h/a b", ""},
      {"https://user:secret@h/", ""},
      {std::string("https://h/a\0b", 13), ""},
  };
  for (const auto& [text, expected] : rows) {
    const auto url = RemoteUrl::parse(text);
    EXPECT_EQ(url ? url->scheme() + " " + url->authority() + " " + *url->withoutQueryAndFragment() : "",
              expected);
  }
  const std::string awkward = "https://h/a/../b%2Fc?%2f=%22&=?#f";
  EXPECT_EQ(RemoteUrl::parse(awkward)->string(), awkward);
  EXPECT_EQ(RemoteUrl::parse("https://[::1]:8/x")->host(), "[::1]");
  // Some versions of libcurl write an encoded number out as the address that it is.
  const auto number = RemoteUrl::parse("https://%39/");
  EXPECT_TRUE(!number || number->string() == "https://0.0.0.9/");
}

TEST(RemoteUrl, AppendsOneEncodedSegment) {
  const std::vector<std::vector<std::string>> rows = {
      {"https://h:8", "a", "https://h:8/a"},
      {"https://h/p%2fq", "a/b", "https://h/p%2fq/a%2Fb"},
      {"https://h/p", "a?b#c%d e", "https://h/p/a%3Fb%23c%25d%20e"},
      {"https://h/p", "\xC3\xA9\x01", "https://h/p/%C3%A9%01"},
      {"https://h/p", "-._~!$&'()*+,;=:@", "https://h/p/-._~!$&'()*+,;=:@"},
      {"https://h/p", "..", "https://h/p/.."},
      {"https://h/p", std::string(1, '\0'), "https://h/p/%00"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(RemoteUrl::parse(row[0])->appendingPathComponent(row[1]).string(), row[2]);
}

TEST(RemoteUrl, ResolvesLocations) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"/p/q?%2Fo%2Fn=&etag=%22x%22", "https://h:8/p/q?%2Fo%2Fn=&etag=%22x%22"},
      {"//o/x", "https://o/x"},
      {"../x", "https://h:8/a/x"},
      {"x/../y", "https://h:8/a/b/y"},
      {"/a/./b/../c", "https://h:8/a/c"},
      {"", "https://h:8/a/b/c?q=1"},
      {"#g", "https://h:8/a/b/c?q=1#g"},
      {"http://z/y?X-Sig=%2b+", "http://z/y?X-Sig=%2b+"},
      {"https://h/a/../b?x=../y", "https://h/b?x=../y"},
      {"mailto:x", "none"},
      {"https://u:p@h/", "none"},
  };
  const RemoteUrl base = RemoteUrl::parse("https://h:8/a/b/c?q=1#f").value();
  for (const auto& [location, expected] : rows) {
    const auto resolved = base.resolving(location);
    EXPECT_EQ(resolved ? resolved->string() : "none", expected) << location;
  }
}

}  // namespace
}  // namespace vellicor::testing
