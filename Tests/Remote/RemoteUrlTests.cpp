#include <vector>

#include <gtest/gtest.h>

#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {
namespace {

TEST(RemoteUrlTests, parsesAbsoluteUrls) {
  struct Row {
    std::string text;
    /// "scheme authority host redacted", or empty for a refusal.
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"https://h", "https h h https://h/"},
      {"HTTPS://Hub.Example:8443/a?b#c", "https Hub.Example:8443 Hub.Example https://Hub.Example:8443/a"},
      {"http://h:80/x", "http h:80 h http://h:80/x"},
      {"ftp://h/x", "ftp h h ftp://h/x"},
      {"weird+x://h/x", "weird+x h h weird+x://h/x"},
      {"https://[::1]:8/x?y", "https [::1]:8 [::1] https://[::1]:8/x"},
      {"https://h/a/../b%2Fc?%2f=%22&=?", "https h h https://h/a/../b%2Fc"},
      {"", ""},
      {"h/x", ""},
      {"/x", ""},
      {"//h/x", ""},
      {"https://", ""},
      {"file:///x", ""},
      {"mailto:a@h", ""},
      {"https://h:99999/", ""},
      {"https://h/a b", ""},
      {"https://h\\x/", ""},
      {"https://user:secret@h/", ""},
      {std::string("https://h/a\0b", 13), ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const auto url = RemoteUrl::parse(row.text);
    EXPECT_EQ(url ? url->scheme() + " " + url->authority() + " " + url->host() + " " +
                        url->withoutQueryAndFragment().value_or("-")
                  : "",
              row.expected);
  }
  EXPECT_EQ(RemoteUrl::parse("https://h/a/../b%2Fc?%2f=%22&=?#f")->string(),
            "https://h/a/../b%2Fc?%2f=%22&=?#f");
}

TEST(RemoteUrlTests, appendsOneEncodedSegment) {
  const std::vector<std::vector<std::string>> rows = {
      {"https://h:8", "a", "https://h:8/a"},
      {"https://h/p/", "a", "https://h/p/a"},
      {"https://h/p%2fq", "a/b", "https://h/p%2fq/a%2Fb"},
      {"https://h/p", "a?b#c%d e", "https://h/p/a%3Fb%23c%25d%20e"},
      {"https://h/p", "\xC3\xA9\x01", "https://h/p/%C3%A9%01"},
      {"https://h/p", "-._~!$&'()*+,;=:@", "https://h/p/-._~!$&'()*+,;=:@"},
      {"https://h/p", "..", "https://h/p/.."},
      {"https://h/p", std::string(1, '\0'), "https://h/p/%00"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row[2]);
    EXPECT_EQ(RemoteUrl::parse(row[0])->appendingPathComponent(row[1]).string(), row[2]);
  }
}

TEST(RemoteUrlTests, resolvesLocations) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"/p/q?%2Fo%2Fn=&etag=%22x%22", "https://h:8/p/q?%2Fo%2Fn=&etag=%22x%22"},
      {"//o/x", "https://o/x"},
      {"?x=/../y", "https://h:8/a/b/c?x=/../y"},
      {"../x", "https://h:8/a/x"},
      {"../../../x", "https://h:8/x"},
      {"x/../y", "https://h:8/a/b/y"},
      {"/a/./b/../c", "https://h:8/a/c"},
      {"", "https://h:8/a/b/c?q=1"},
      {"#g", "https://h:8/a/b/c?q=1#g"},
      {"http://z/y?X-Sig=%2b+", "http://z/y?X-Sig=%2b+"},
      {"https://h/a/../b?x=../y", "https://h/b?x=../y"},
      {"ftp://z/y", "ftp://z/y"},
      {"mailto:x", "none"},
      {"https://u:p@h/", "none"},
      {"https://h:x/", "none"},
  };
  const RemoteUrl base = RemoteUrl::parse("https://h:8/a/b/c?q=1#f").value();
  for (const auto& [location, expected] : rows) {
    SCOPED_TRACE(location);
    const auto resolved = base.resolving(location);
    EXPECT_EQ(resolved ? resolved->string() : "none", expected);
  }
}

}  // namespace
}  // namespace vellicor
