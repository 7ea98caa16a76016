#include <sys/stat.h>

#include "Tests/Support/Expect.h"
#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/PageCacheTrail.h"

namespace vellicor::testing {
namespace {

using Access = MorlenDirectoryAccess;

class ArtifactDirectory : public Test {
 protected:
  ArtifactDirectory() {
    writeFile(directory / "outside/secret", "secret");
    writeFile(root + "/a.bin", "12345678");
    writeFile(root + "/sub/tokenizer/b.bin", "b");
    writeFile(root + "/tokenizer/c.json", "c");
  }

  TemporaryDirectory directory;
  const std::string root = directory / "model.morlen";
};

TEST_F(ArtifactDirectory, OpensOnlyRegularFilesInside) {
  fs::create_symlink(directory / "outside", root + "/folderLink");
  fs::create_symlink(directory / "outside/secret", root + "/fileLink");
  ASSERT_EQ(::mkfifo((root + "/pipe").c_str(), 0600), 0);
  const Access access(root);
  const std::string invalid = "configuration invalid: ";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"a.bin", "no error"},
      {"sub/tokenizer/b.bin", "no error"},
      {"a/../b", invalid + "unsafe path a/../b: path.a/../b: non-canonical path"},
      {"/a.bin", invalid + "unsafe path /a.bin: path./a.bin: unsafe relative path"},
      {"none", "fstat(" + root + "/none) failed: errno 2"},
      {"none/x", "fstat(" + root + "/none/x) failed: errno 2"},
      {"a.bin/x", "open(" + root + "/a.bin/x) failed: errno 20"},
      {"sub", "fstat(" + root + "/sub) failed: errno 22"},
      {"pipe", "fstat(" + root + "/pipe) failed: errno 22"},
      {"fileLink", fmt::format("open({}/fileLink) failed: errno {}", root, ELOOP)},
  };
  for (const auto& [path, expected] : rows) {
    EXPECT_EQ(errorText([&, &name = path] { access.openFile(name); }), expected);
  }
  // A link where a directory should be is ELOOP on one platform and ENOTDIR on another.
  EXPECT_THAT(errorText([&] { access.openFile("folderLink/secret"); }),
              StartsWith("open(" + root + "/folderLink/secret) failed: errno "));
  EXPECT_EQ(errorText([&] { Access("/none/."); }), "open(/none) failed: errno 2");
}

TEST_F(ArtifactDirectory, KeepsTheDirectoryItOpened) {
  fs::create_symlink(root, directory / "link");
  const Access access(directory / "x/../link/");
  EXPECT_EQ(access.rootPath(), directory / "link");
  fs::rename(root, directory / "moved");
  fs::create_directory(root);

  EXPECT_EQ(access.readMetadata("a.bin", 8), "12345678");
  access.atomicWrite("new", "a.bin");
  EXPECT_EQ(readFile(directory / "moved/a.bin"), "new");
  EXPECT_TRUE(fs::is_empty(root));
}

TEST_F(ArtifactDirectory, ReadsAndHashesWholeFiles) {
  const Access access(root);
  EXPECT_EQ(access.readMetadata("a.bin", 8), "12345678");
  EXPECT_EQ(errorText([&] { access.readMetadata("a.bin", 7); }),
            "configuration invalid: a.bin size 8 exceeds metadata cap 7");

  std::string big(9 * 1024 * 1024 + 5, 'x');
  for (std::size_t i = 0; i < big.size(); i += 65521) big[i] = static_cast<char>('a' + i % 25);
  writeFile(root + "/big.bin", big);
  EXPECT_EQ(access.hash("big.bin", Access::PageCache::use), hashData(big));
  EXPECT_EQ(access.hash("big.bin", Access::PageCache::bypass), hashData(big));
  EXPECT_EQ(errorText([&] { access.hash(-1, "a.bin", Access::PageCache::bypass); }),
            "pread(" + root + "/a.bin) short: expected 65536, got 0, errno 9");
}

TEST_F(ArtifactDirectory, HashingLeavesThePageCacheAsItWas) {
  constexpr std::uint64_t step = PageCacheTrail::stepBytes, size = 3 * step + 5;
  writeFile(root + "/big.bin", std::string(size, 'x'));
  const Access access(root);
  const FileDescriptor file = access.openFile("big.bin");
  Posix::fsync(file.get(), "big.bin");
  const bool isTold = Posix::isCached(file.get(), 0, size);
  Posix::dropCachedPages(file.get(), 0, size);
  if (!isTold || Posix::isCached(file.get(), 0, size)) {
    GTEST_SKIP() << "this file system does not let go of a page, or does not tell";
  }
  std::string middle(step, '\0');
  Posix::preadAll(file.get(), "big.bin", middle.data(), step, step);
  Posix::dropCachedPages(file.get(), 2 * step, size);

  access.hash(file.get(), "big.bin", Access::PageCache::bypass);
  const std::vector<std::pair<std::uint64_t, bool>> rows = {{0, false}, {1, true}, {2, false}, {3, false}};
  for (const auto& [number, isCached] : rows) {
    EXPECT_EQ(Posix::isCached(file.get(), number * step, step), isCached) << number;
  }
  // The kernel may take a page back at any moment.
  bool staysCached = false;
  for (int attempt = 0; attempt < 5 && !staysCached; ++attempt) {
    access.hash(file.get(), "big.bin", Access::PageCache::use);
    staysCached = Posix::isCached(file.get(), 0, size);
  }
  EXPECT_TRUE(staysCached);
}

TEST_F(ArtifactDirectory, ListsTheTreeWithinItsBounds) {
  fs::create_symlink(directory / "outside", root + "/folderLink");
  writeFile(root + "/.morlen-X.tmp", "left over");
  const Access access(root);
  EXPECT_THAT(access.relativeEntries(), ElementsAre(".morlen-X.tmp", "a.bin", "folderLink", "sub",
                                                    "sub/tokenizer", "sub/tokenizer/b.bin", "tokenizer"));

  const std::string invalid = "configuration invalid: ";
  const std::vector<std::tuple<int, std::size_t, std::string>> rows = {
      {2, 7, "no error"},
      {2, 6, invalid + "artifact directory has too many entries"},
      {1, 7, invalid + "artifact directory nesting exceeds 1"},
      {0, 7, invalid + "artifact directory nesting exceeds 0"},
      {-1, 7, invalid + "invalid directory scan bounds"},
      {2, 0, invalid + "invalid directory scan bounds"}};
  for (const auto& [depth, entries, expected] : rows) {
    EXPECT_EQ(errorText([&, d = depth, n = entries] { access.relativeEntries(d, n); }), expected);
  }
  fs::remove_all(root + "/sub");
  EXPECT_EQ(access.relativeEntries(0).size(), 4U) << "the tokenizer directory is not entered";
}

TEST_F(ArtifactDirectory, WritesAtomicallyAtTheTopLevel) {
  const Access access(root);
  const std::vector<std::string> before = access.relativeEntries();
  EXPECT_EQ(errorText([&] { access.atomicWrite("x", "a/b"); }),
            "configuration invalid: unsafe output path a/b: output.a/b: expected basename");
  const std::string uuid = "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}";
  EXPECT_THAT(errorText([&] { access.atomicWrite("x", "sub"); }),
              ContainsRegex("/\\.morlen-" + uuid + "\\.tmp -> " + root + "/sub. failed: errno 21"));
  access.atomicWrite("replaced", "a.bin");
  EXPECT_EQ(access.relativeEntries(), before) << "a temporary was left behind";

  EXPECT_EQ(readFile(root + "/a.bin"), "replaced");
}

}  // namespace
}  // namespace vellicor::testing
