#include <atomic>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/FileSystem/FileStamp.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor::testing {
namespace {

using Kind = Posix::EntryKind;
constexpr auto ownerOnly = Posix::FileMode::ownerOnly;

/// A file, a directory, a link, a dangling link and a named pipe.
class PosixEntries : public Test {
 protected:
  PosixEntries() {
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

TEST_F(PosixEntries, RefusalsNameTheCallThePathAndTheErrno) {
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
      {[&] { Posix::openCreateExclusive(file, ownerOnly); }, failed("open", file, EEXIST)},
      {[&] { Posix::openCreateExclusive(dangling, ownerOnly); }, failed("open", dangling, EEXIST)},
      {[&] { Posix::fileSize(-1, "f"); }, failed("fstat", "f", EBADF)},
      {[&] { Posix::entryKind(file + "/x"); }, failed("fstat", file + "/x", ENOTDIR)},
      {[&] { Posix::physicalPath(dangling); }, failed("fstat", dangling, ENOENT)},
      {[&] { Posix::descriptorMatchesPath(fd, missing); }, failed("fstat", missing, ENOENT)},
      {[&] { Posix::unlink(missing); }, failed("open", missing, ENOENT)},
      {[&] { Posix::rename(missing, missing + "2"); },
       failed("rename", fmt::format("{0} -> {0}2", missing), ENOENT)},
      {[&] { Posix::renameSwap(folder, missing); },
       fmt::format("atomic directory promotion is unsupported for {}: errno {}", folder, ENOENT)},
      {[&] { Posix::mkdir(folder); }, "no error"},
      {[&] { Posix::mkdir(missing + "/x"); }, failed("open", missing + "/x", ENOENT)},
      {[&] { Posix::listDirectory(file); }, failed("open", file, ENOTDIR)},
      {[&] { Posix::removeTree(missing); }, "no error"},
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
  EXPECT_THAT(errorText([&] { Posix::mkdirP(file + "/x"); }), HasSubstr(file));
  fs::create_directory_symlink(folder, directory / "linked");
  for (const std::string& path : {file, directory / "linked"}) {
    EXPECT_THAT(errorText([&] { Posix::mkdir(path); }), HasSubstr(path)) << "no directory itself";
  }
  EXPECT_EQ(readFile(file), "abc");
  EXPECT_EQ(Posix::entryKind(directory / "nowhere"), Kind::absent) << "a dangling link was followed";
}

TEST_F(PosixEntries, KindsAreThoseOfTheEntryItself) {
  const std::vector<std::pair<std::string, std::string_view>> rows = {
      {file, "regular"},     {folder, "directory"}, {link, "symlink"},
      {dangling, "symlink"}, {pipe, "other"},       {missing, "absent"}};
  for (const auto& [path, kind] : rows) EXPECT_EQ(Posix::name(Posix::entryKind(path)), kind) << path;
}

TEST_F(PosixEntries, ADescriptorMatchesOnlyItsOwnRegularFile) {
  const FileDescriptor open = Posix::openReadNoFollow(file);
  EXPECT_TRUE(Posix::descriptorMatchesPath(open.get(), file));
  EXPECT_FALSE(Posix::descriptorMatchesPath(open.get(), link)) << "a link to the same file";
  writeFile(missing, "abc");
  EXPECT_FALSE(Posix::descriptorMatchesPath(open.get(), missing)) << "another file";
}

TEST_F(PosixEntries, AMountPointIsNotAnyDirectory) {
  EXPECT_FALSE(Posix::isMountPoint(folder));
  EXPECT_TRUE(Posix::isMountPoint(fs::exists("/proc/self") ? "/proc" : "/dev"));
}

TEST_F(PosixEntries, NothingIsReachedThroughALinkedDirectory) {
  writeFile(folder + "/sub/entry", "abc");
  const std::string linked = directory / "linked";
  fs::create_directory_symlink(folder, linked);
  const std::string entry = linked + "/sub/entry", other = linked + "/sub/other";
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[&] { Posix::openReadNoFollow(entry); }, entry},
      {[&] { Posix::openExistingRW(entry); }, entry},
      {[&] { Posix::openCreateRWNoFollow(other); }, other},
      {[&] { Posix::openCreateExclusive(other, ownerOnly); }, other},
      {[&] { Posix::openDirectory(linked + "/sub"); }, linked + "/sub"},
      {[&] { Posix::mkdir(other); }, other},
      {[&] { Posix::listDirectory(linked + "/sub"); }, linked + "/sub"},
      {[&] { Posix::readBoundedData(entry, 3); }, entry},
      {[&] { Posix::unlink(entry); }, entry},
      {[&] { Posix::removeTree(entry); }, entry},
      {[&] { Posix::atomicWrite("new", other, linked + "/sub", ownerOnly); }, other + ".tmp"},
  };
  // Going from component to component, a system calls a link no directory.
  const auto isRefused = [](const std::string& operation) {
    return AnyOf(fmt::format("{} failed: errno {}", operation, ELOOP),
                 fmt::format("{} failed: errno {}", operation, ENOTDIR));
  };
  for (const auto& [action, path] : rows) {
    EXPECT_THAT(errorText(action), isRefused(fmt::format("open({})", path)));
  }
  EXPECT_THAT(errorText([&] { Posix::rename(entry, directory / "x"); }),
              isRefused(fmt::format("rename({} -> {})", entry, directory / "x")));
  EXPECT_THAT(errorText([&] { Posix::rename(file, other); }),
              isRefused(fmt::format("rename({} -> {})", file, other)));
  for (const auto& [a, b] : {std::pair(entry, file), std::pair(file, entry)}) {
    EXPECT_THAT(errorText([&, &from = a, &to = b] { Posix::renameSwap(from, to); }),
                StartsWith(fmt::format("atomic directory promotion is unsupported for {}: errno ", a)));
  }
  EXPECT_EQ(readFile(folder + "/sub/entry"), "abc");
  EXPECT_EQ(readFile(file), "abc");
  EXPECT_THAT(Posix::listDirectory(folder + "/sub"), ElementsAre("entry"));
}

TEST_F(PosixEntries, ATreeIsRemovedWhateverItsShape) {
  constexpr int levels = 300, files = 1500;
  FileDescriptor at = Posix::openDirectory(folder);
  for (int i = 0; i < levels; ++i) {
    ASSERT_EQ(::mkdirat(at.get(), "down", 0777), 0);
    at = FileDescriptor(::openat(at.get(), "down", O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(::symlinkat(directory.path().c_str(), at.get(), "out"), 0) << errno;
  }
  for (int i = 0; i < files; ++i) writeFile(fmt::format("{}/many/{}", folder, i), "");

  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const struct rlimit few { .rlim_cur = 100, .rlim_max = before.rlim_max };
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  const std::string error = errorText([&] { Posix::removeTree(folder); });
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(error, "no error");
  EXPECT_EQ(Posix::entryKind(folder), Kind::absent);
  EXPECT_EQ(readFile(file), "abc") << "a link was followed";
}

TEST_F(PosixEntries, ADirectoryThatBecomesALinkMeanwhileLeadsNowhere) {
  const std::string swapped = directory / "swapped", victim = directory / "victim/entry";
  writeFile(victim, "abc");
  fs::create_directory_symlink(directory / "victim", swapped);
  if (errorText([&] { Posix::renameSwap(folder, swapped); }).ends_with(fmt::format(" errno {}", EINVAL))) {
    GTEST_SKIP() << "this file system cannot exchange two names";
  }
  std::atomic<bool> ends = false;
  std::thread swapper([&] {
    while (!ends) Posix::renameSwap(folder, swapped);
  });
  constexpr int rounds = 3000;
  for (int i = 0; i < rounds; ++i) {
    errorText([&] { Posix::unlink(folder + "/entry"); });
    errorText([&] { Posix::removeTree(folder + "/entry"); });
    errorText([&] { Posix::mkdir(folder + "/new"); });
  }
  ends = true;
  swapper.join();
  EXPECT_THAT(Posix::listDirectory(directory / "victim"), ElementsAre("entry"));
}

TEST_F(PosixEntries, FollowsLinksWhereItIsToldTo) {
  Posix::writeWholeFile(link, "de");
  EXPECT_EQ(Posix::readWholeFile(file), "de");
  EXPECT_EQ(Posix::readBoundedData(link, 2, Posix::FinalLink::follow), "de");
}

TEST_F(PosixEntries, AtomicWriteLeavesTheOldOrTheNewFile) {
  const auto write = [&](const std::function<void()>& afterRename = nullptr) {
    return errorText([&] { Posix::atomicWrite("new", file, directory.path(), ownerOnly, afterRename); });
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

  EXPECT_EQ(errorText([&] { Posix::atomicWrite("new", folder, directory.path(), ownerOnly); }),
            fmt::format("rename({0}.tmp -> {0}) failed: errno {1}", folder, EISDIR));
  EXPECT_EQ(Posix::entryKind(folder + ".tmp"), Kind::absent);
}

TEST(PosixBlocks, AreRoomAndHolesAreNot) {
  if (::access("/dev/shm", W_OK) != 0) GTEST_SKIP() << "no file system that surely writes in place";
  const TemporaryDirectory memory("/dev/shm");
  const std::string file = memory / "file";
  writeFile(file, std::string(10000, 'x'));
  const FileDescriptor open = Posix::openExistingRW(file);
  EXPECT_EQ(Posix::bytesInPlace(open.get(), file), 10000U);
  constexpr std::uint64_t sparseBytes = 64 << 20;
  Posix::ftruncate(open.get(), file, sparseBytes);
  EXPECT_GE(Posix::bytesInPlace(open.get(), file), 10000U);
  EXPECT_LT(Posix::bytesInPlace(open.get(), file), sparseBytes);
}

TEST_F(PosixEntries, AStampProvesThatNothingHappenedToAFile) {
  const auto stamp = [&] { return FileStamp::of(Posix::openReadNoFollow(file).get(), file); };
  const auto setAge = [&](std::chrono::hours age) {
    fs::last_write_time(file, fs::file_time_type::clock::now() - age);
  };
  const std::vector<std::pair<std::string, std::function<void()>>> rows = {
      {"nothing", [] {}},
      {"written", [&] { writeFile(file, "abd"); }},
      {"written, and its time put back",
       [&] {
         const auto time = fs::last_write_time(file);
         const std::int64_t before = stamp().changedAt;
         while (stamp().changedAt == before) {
           writeFile(file, "abc");
           fs::last_write_time(file, time);
         }
       }},
      {"longer", [&] { fs::resize_file(file, 4); }},
      {"replaced", [&] { fs::rename(file, file + "~"), fs::copy_file(file + "~", file); }},
  };
  for (const auto& [change, perform] : rows) {
    setAge(std::chrono::hours(1));
    FileStamp before = stamp();
    before.isSettled = true;
    perform();
    EXPECT_EQ(before.provesUnchanged(stamp()), change == "nothing") << change;
    before.isSettled = false;
    EXPECT_FALSE(before.provesUnchanged(stamp())) << change;
  }
  setAge(std::chrono::hours(-1));
  EXPECT_FALSE(stamp().isSettled) << "changed after now";
}

}  // namespace
}  // namespace vellicor::testing
