#include <filesystem>

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "Tests/Support/Expect.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Kind = Posix::EntryKind;

/// A file, a directory, a link, a dangling link and a named pipe.
class PosixTest : public ::testing::Test {
 protected:
  PosixTest() {
    writeFile(file, "abc");
    fs::create_directory(folder);
    fs::create_symlink(file, link);
    fs::create_symlink(directory / "nowhere", dangling);
    EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  }

  TemporaryDirectory directory;
  const std::string file = directory / "file", folder = directory / "folder", link = directory / "link",
                    dangling = directory / "dangling", pipe = directory / "pipe",
                    missing = directory / "missing";
};

TEST_F(PosixTest, RefusalsNameTheCallThePathAndTheErrno) {
  char buffer[8] = {};
  const FileDescriptor own = Posix::openExistingRW(file);
  const int fd = own.get();
  const auto failed = [](std::string_view call, const std::string& path, int code) {
    return fmt::format("{}({}) failed: errno {}", call, path, code);
  };
  const std::string invalid = "configuration invalid: ";
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[&] { Posix::openReadNoFollow(link); }, failed("open", link, ELOOP)},
      {[&] { Posix::openExistingRW(link); }, failed("open", link, ELOOP)},
      {[&] { Posix::openExistingRW(missing); }, failed("open", missing, ENOENT)},
      {[&] { Posix::openDirectory(file); }, failed("open", file, ENOTDIR)},
      {[&] { Posix::openLock(dangling); }, failed("open", dangling, ELOOP)},
      {[&] { Posix::openCreateExclusive(file, 0600); }, failed("open", file, EEXIST)},
      {[&] { Posix::openCreateExclusive(dangling, 0600); }, failed("open", dangling, EEXIST)},
      {[&] { Posix::fileSize(-1, "f"); }, failed("fstat", "f", EBADF)},
      {[&] { Posix::entryKind(file + "/x"); }, failed("fstat", file + "/x", ENOTDIR)},
      {[&] { Posix::physicalPath(dangling); }, failed("fstat", dangling, ENOENT)},
      {[&] { Posix::descriptorMatchesPath(fd, missing); }, failed("fstat", missing, ENOENT)},
      {[&] { Posix::unlink(missing); }, failed("open", missing, ENOENT)},
      {[&] { Posix::rename(missing, "/x"); }, failed("rename", missing + " -> /x", ENOENT)},
      {[&] { Posix::renameSwap(folder, missing); },
       fmt::format("atomic directory promotion is unsupported for {}: errno {}", folder, ENOENT)},
      {[&] { Posix::fsync(-1, "f"); }, failed("fsync", "f", EBADF)},
      {[&] { Posix::fsyncDirectory(missing); }, failed("open", missing, ENOENT)},
      {[&] { Posix::ftruncate(-1, "f", 1); }, failed("ftruncate", "f", EBADF)},
      {[&] { Posix::ftruncate(fd, "f", 9223372036854775808U); },
       invalid + "ftruncate value 9223372036854775808 is not representable for f"},
      {[&] { Posix::preadAll(-1, "f", buffer, 4, 0); }, "pread(f) short: expected 4, got 0, errno 9"},
      {[&] { Posix::preadAll(fd, "f", buffer, 8, 1); }, "pread(f) short: expected 8, got 2, errno 0"},
      {[&] { Posix::preadAll(fd, "f", buffer, 1, 9223372036854775807U); },
       invalid + "pread range 9223372036854775807+1 is not representable for f"},
      {[&] { Posix::pwriteAll(fd, "f", buffer, 1, 18446744073709551615U); },
       invalid + "pwrite range 18446744073709551615+1 is not representable for f"},
      {[&] { Posix::pwriteAll(fd, "f", buffer, -1, 0); }, invalid + "pwrite count -1 is invalid for f"},
      {[&] { Posix::pwriteAll(-1, "f", buffer, 0, 0); }, "no error"},
      {[&] { Posix::readBoundedData(file, 2); },
       fmt::format("install state at {} is corrupt: size 3 exceeds 2-byte cap", file)},
      {[&] { Posix::readBoundedData(link, 3); }, failed("open", link, ELOOP)},
      {[&] { Posix::readBoundedData(folder, 3); }, failed("fstat", folder, EINVAL)},
      {[&] { Posix::readBoundedData(pipe, 3); }, failed("fstat", pipe, EINVAL)},
  };
  for (const auto& [action, expected] : rows) EXPECT_EQ(errorText(action), expected);
  EXPECT_THAT(errorText([&] { Posix::mkdirP(file + "/x"); }), ::testing::HasSubstr(file));
  EXPECT_EQ(readFile(file), "abc");
  EXPECT_EQ(Posix::entryKind(directory / "nowhere"), Kind::absent) << "a dangling link was followed";
}

TEST_F(PosixTest, KindsAreThoseOfTheEntryItself) {
  const std::vector<std::pair<std::string, std::string_view>> rows = {
      {file, "regular"},     {folder, "directory"}, {link, "symlink"},
      {dangling, "symlink"}, {pipe, "other"},       {missing, "absent"}};
  for (const auto& [path, kind] : rows) EXPECT_EQ(Posix::name(Posix::entryKind(path)), kind) << path;
}

TEST_F(PosixTest, ADescriptorMatchesOnlyItsOwnRegularFile) {
  const FileDescriptor open = Posix::openReadNoFollow(file);
  EXPECT_TRUE(Posix::descriptorMatchesPath(open.get(), file));
  EXPECT_FALSE(Posix::descriptorMatchesPath(open.get(), link)) << "a link to the same file";
  writeFile(missing, "abc");
  EXPECT_FALSE(Posix::descriptorMatchesPath(open.get(), missing)) << "another file";
}

TEST_F(PosixTest, NothingIsReachedThroughALinkedDirectory) {
  writeFile(folder + "/sub/entry", "abc");
  const std::string linked = directory / "linked";
  fs::create_directory_symlink(folder, linked);
  const std::string entry = linked + "/sub/entry", other = linked + "/sub/other";
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[&] { Posix::openReadNoFollow(entry); }, entry},
      {[&] { Posix::openExistingRW(entry); }, entry},
      {[&] { Posix::openCreateRWNoFollow(other); }, other},
      {[&] { Posix::openCreateExclusive(other, 0600); }, other},
      {[&] { Posix::openDirectory(linked + "/sub"); }, linked + "/sub"},
      {[&] { Posix::readBoundedData(entry, 3); }, entry},
      {[&] { Posix::unlink(entry); }, entry},
      {[&] { Posix::removeTree(entry); }, entry},
      {[&] { Posix::atomicWrite("new", other, linked + "/sub"); }, other + ".tmp"},
  };
  // Going from component to component, a system calls a link no directory.
  const auto isRefused = [](const std::string& operation) {
    return ::testing::AnyOf(fmt::format("{} failed: errno {}", operation, ELOOP),
                            fmt::format("{} failed: errno {}", operation, ENOTDIR));
  };
  for (const auto& [action, path] : rows) {
    EXPECT_THAT(errorText(action), isRefused(fmt::format("open({})", path)));
  }
  EXPECT_THAT(errorText([&] { Posix::rename(entry, directory / "x"); }),
              isRefused(fmt::format("rename({} -> {})", entry, directory / "x")));
  EXPECT_THAT(errorText([&] { Posix::rename(file, other); }),
              isRefused(fmt::format("rename({} -> {})", file, other)));
  EXPECT_EQ(readFile(folder + "/sub/entry"), "abc");
  EXPECT_EQ(readFile(file), "abc");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder + "/sub"), fs::directory_iterator()), 1);
}

TEST_F(PosixTest, FollowsLinksWhereItIsToldTo) {
  Posix::writeWholeFile(link, "de");
  EXPECT_EQ(Posix::readWholeFile(file), "de");
  EXPECT_EQ(Posix::readBoundedData(link, 2, Posix::FinalLink::follow), "de");
}

TEST_F(PosixTest, AtomicWriteLeavesTheOldOrTheNewFile) {
  const auto write = [&](const std::function<void()>& afterRename = nullptr) {
    return errorText([&] { Posix::atomicWrite("new", file, directory.path(), afterRename); });
  };
  const std::string temporary = file + ".tmp";
  const auto isRefusedFor = [&](Kind kind) {
    EXPECT_EQ(write(),
              fmt::format("unsafe installer path {}: atomic-write temporary has the wrong type", temporary));
    EXPECT_EQ(Posix::entryKind(temporary), kind);
    EXPECT_EQ(readFile(file), "abc");
    fs::remove(temporary);
  };
  fs::create_symlink(folder, temporary);
  isRefusedFor(Kind::symlink);
  fs::create_directory(temporary);
  isRefusedFor(Kind::directory);

  writeFile(temporary, "left over, and longer than the new content");
  EXPECT_EQ(write([] { throw std::runtime_error("after"); }), "after");
  EXPECT_EQ(readFile(file), "new");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

  EXPECT_EQ(errorText([&] { Posix::atomicWrite("new", folder, directory.path()); }),
            fmt::format("rename({0}.tmp -> {0}) failed: errno {1}", folder, EISDIR));
  EXPECT_EQ(Posix::entryKind(folder + ".tmp"), Kind::absent);
}

TEST(Paths, AreStandardizedLexically) {
  const std::string here = fs::current_path().string();
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"/a/../..", "/"},        {"/a//b/", "/a/b"}, {"/a/./b/../c", "/a/c"},
      {"/..a/...", "/..a/..."}, {"", here},         {"x/.", here + "/x"}};
  for (const auto& [path, expected] : rows) EXPECT_EQ(standardizedPath(path), expected) << path;
}

}  // namespace
}  // namespace vellicor
