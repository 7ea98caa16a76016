#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"
#include "VellicorRepackCore/FileSystem/InstallLock.h"
#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"

namespace vellicor::testing {
namespace {

TEST(RemoteInstallPaths, AreDerivedFromTheResolvedParent) {
  const TemporaryDirectory directory;
  const std::string output = directory / "vol/data/m.morlen";
  const RemoteInstallPaths paths(output);
  EXPECT_THAT(
      (std::vector{paths.parentDirectory, paths.finalDirectory, paths.partialDirectory, paths.lockFile,
                   paths.checkpointFile, paths.rangeTemporaryFile, paths.metadataDirectory}),
      ElementsAre(directory / "vol/data", output, output + ".partial", output + ".install.lock",
                  output + ".resume.json", output + ".partial/.range.tmp",
                  output + ".partial/.remote-metadata"));

  fs::create_symlink(directory / "vol/data", directory / "data");
  for (const char* spelling : {"vol/data/m.morlen/", "vol/./data//m.morlen", "data/m.morlen",
                               "data/x/../m.morlen", "vol/data/m.morlen/x/.."}) {
    EXPECT_EQ(RemoteInstallPaths(directory / spelling), paths) << spelling;
  }
  EXPECT_EQ(RemoteInstallPaths(directory / "e\u0301").finalDirectory, directory / "\u00e9");
}

TEST(RemoteInstallPaths, RefusesNamesThatAreNone) {
  const TemporaryDirectory directory;
  for (const std::string& output : {std::string("/"), std::string("/x/.."), directory / "new/bad\xff"}) {
    EXPECT_EQ(errorText([&] { RemoteInstallPaths{output}; }),
              fmt::format("unsafe installer path {}: invalid output basename", output));
  }
  EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST(InstallLock, RefusesEntriesOfTheWrongKind) {
  const TemporaryDirectory directory;
  const std::string output = directory / "m";
  const std::map<std::string, std::string_view> allowedKinds = {{"", "directory"},
                                                                {".partial", "directory"},
                                                                {".resume.json", "regular"},
                                                                {".install.lock", "regular"}};
  for (const auto& [suffix, allowed] : allowedKinds) {
    for (const std::string_view kind : {"regular", "directory", "symlink"}) {
      const std::string path = output + suffix;
      if (kind == allowed) continue;
      if (kind == "regular") writeFile(path, "");
      if (kind == "directory") fs::create_directory(path);
      if (kind == "symlink") fs::create_symlink(directory / "target", path);
      EXPECT_EQ(errorText([&] { InstallLock::acquire(output); }),
                fmt::format("unsafe installer path {}: unexpected {} entry", path, kind));
      fs::remove(path);
      EXPECT_TRUE(fs::is_empty(directory.path())) << "something was created before the check";
    }
  }
}

TEST(InstallLock, IsHeldUntilItGoes) {
  const TemporaryDirectory directory;
  const std::string output = directory / "m";
  const std::string busy = fmt::format("another installer holds {}.install.lock", output);
  const auto attempt = [&] { return errorText([&] { InstallLock::acquire(output); }); };
  {
    InstallLock first = InstallLock::acquire(output);
    EXPECT_EQ(attempt(), busy);
    const InstallLock moved = std::move(first);
    EXPECT_EQ(attempt(), busy) << "a refused attempt or a move must not release the lock";
  }
  EXPECT_EQ(attempt(), "no error");
  EXPECT_EQ(Posix::entryKind(output + ".install.lock"), Posix::EntryKind::regular);
}

TEST(InstallLock, HoldsThePartialDirectoryItself) {
  const TemporaryDirectory directory;
  const std::string output = directory / "m", partial = output + ".partial";
  InstallLock first = InstallLock::acquire(output);
  first.holdPartialDirectory();
  first.requirePartialDirectory();
  fs::remove(output + ".install.lock");
  EXPECT_EQ(errorText([&] { InstallLock::acquire(output); }),
            fmt::format("another installer holds {}.install.lock", output));

  fs::rename(partial, directory / "moved");
  fs::create_directory(partial);
  EXPECT_EQ(
      errorText([&] { first.requirePartialDirectory(); }),
      fmt::format("unsafe installer path {}: partial directory was replaced during the install", partial));
  fs::remove(partial);
  fs::create_directory_symlink(directory / "moved", partial);
  EXPECT_EQ(errorText([&] { first.requirePartialDirectory(); }),
            fmt::format("unsafe installer path {}: unexpected symlink entry", partial));
}

TEST(DiskSpaceChecker, MeasuresWhereTheOutputWillLand) {
  const TemporaryDirectory directory;
  const std::uint64_t most = 18446744073709551615U;
  EXPECT_EQ(errorText([&] { DiskSpaceChecker::requirement(directory.path(), most, 1); }),
            "configuration invalid: disk-space requirement overflows UInt64");
  EXPECT_EQ(errorText([&] { DiskSpaceChecker::requirement("/none", most, 1); }),
            "fstat(/none) failed: errno 2");

  const DiskSpaceRequirement assessed = DiskSpaceChecker::assess(directory / "a/b/m.morlen", most - 1, 1);
  EXPECT_EQ(assessed.path, directory.path());
  EXPECT_EQ(assessed.shortfallBytes(), most - assessed.availableBytes);
  EXPECT_TRUE(fs::is_empty(directory.path())) << "assess creates nothing";

  EXPECT_TRUE(DiskSpaceChecker::requireAvailable(directory / "a/b/m.morlen", 0, 1).canInstall());
  EXPECT_TRUE((DiskSpaceRequirement{.path = "/", .requiredBytes = 5, .availableBytes = 5}.canInstall()));
  EXPECT_THAT(errorText([&] { DiskSpaceChecker::requireAvailable(directory / "c.d/models", most, 0); }),
              StartsWith(fmt::format("insufficient disk space for {}: required {}, available ",
                                     directory / "c.d/models", most)));
  // A volume of its own that holds nothing.
  const std::string volume = directory / "volume.d";
  fs::create_directory_symlink(fs::exists("/proc/self") ? "/proc" : "/dev", volume);
  EXPECT_EQ(errorText([&] { DiskSpaceChecker::requireAvailable(volume, 1, 0); }),
            fmt::format("insufficient disk space for {}: required 1, available 0", volume));
}

}  // namespace
}  // namespace vellicor::testing
