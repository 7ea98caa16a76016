#include "Tests/FaultInjection/SmallVolume.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/TemporaryDirectory.h"

namespace vellicor {

namespace {

constexpr std::size_t pageBytes = 4096;
constexpr int notPermitted = 77;

void mountOrThrow(const char* what, const std::string& directory, unsigned long flags,
                  const std::string& options = "") {
  if (::mount(what, directory.c_str(), "tmpfs", flags, options.c_str()) == 0) return;
  throw std::runtime_error(fmt::format("mounting {} ({}) failed: errno {}", directory, options, errno));
}

/// As whoever runs this process; without that right, as the only user of a name space of users.
bool enterOwnMounts() {
  const uid_t user = ::getuid();
  const gid_t group = ::getgid();
  if (::unshare(CLONE_NEWNS) != 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << fmt::format("0 {} 1", user);
    std::ofstream("/proc/self/gid_map") << fmt::format("0 {} 1", group);
  }
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  try {
    const TemporaryDirectory place;
    const SmallVolume probe(place.path(), "size=64k");
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

/// One line for each figure, "number text", and for each failure, "- text".
void writeReport(const TrialReport& report, const std::string& path) {
  std::ofstream file(path);
  for (const auto& [figure, number] : report.figures()) file << number << ' ' << figure << '\n';
  for (std::string failure : report.failures()) {
    for (char& c : failure) c = c == '\n' ? ' ' : c;
    file << "- " << failure << '\n';
  }
}

void readReport(const std::string& path, TrialReport& report) {
  std::ifstream file(path);
  std::string first, text;
  while (file >> first && std::getline(file >> std::ws, text)) {
    if (first == "-") {
      report.fail(text);
    } else {
      report.count(text, std::stoull(first));
    }
  }
}

/// An exception would lead the child into its parent's code, hence noexcept.
int runChild(const std::function<void(TrialReport&)>& work, const std::string& path) noexcept {
  if (!enterOwnMounts()) return notPermitted;
  TrialReport report;
  try {
    work(report);
  } catch (const std::exception& error) {
    report.fail(error.what());
  }
  writeReport(report, path);
  return 0;
}

}  // namespace

bool runWithOwnMounts(TrialReport& report, const std::function<void(TrialReport&)>& work) {
  const TemporaryDirectory place;
  const std::string path = place / "report";
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    endWithParent(parent);
    ::_exit(runChild(work, path));
  }
  const int status = waitForEnd(child);
  if (status == notPermitted) return false;
  if (status != 0) throw std::runtime_error(fmt::format("the child with own mounts ended with {}", status));
  readReport(path, report);
  return true;
}

SmallVolume::SmallVolume(std::string directory, const std::string& limits)
    : directory_(std::move(directory)) {
  mountOrThrow("none", directory_, 0, limits);
}

SmallVolume::~SmallVolume() { ::umount2(directory_.c_str(), MNT_DETACH); }

void SmallVolume::setLimits(const std::string& limits) const {
  mountOrThrow("none", directory_, MS_REMOUNT, limits);
}

void SmallVolume::setReadOnly() const { mountOrThrow("none", directory_, MS_REMOUNT | MS_RDONLY); }

void SmallVolume::fill(std::size_t sparePages) const {
  const std::string path = directory_ + "/filler";
  const std::array<char, pageBytes> page{};
  std::ofstream file(path, std::ios::binary);
  file.rdbuf()->pubsetbuf(nullptr, 0);
  while (file.write(page.data(), page.size())) {
  }
  file.close();
  const std::size_t pages = std::filesystem::file_size(path) / pageBytes;
  std::filesystem::resize_file(path, pages < sparePages ? 0 : (pages - sparePages) * pageBytes);
}

void SmallVolume::empty() const { std::filesystem::remove(directory_ + "/filler"); }

ReadOnlyDirectory::ReadOnlyDirectory(std::string directory) : directory_(std::move(directory)) {
  mountOrThrow(directory_.c_str(), directory_, MS_BIND);
  mountOrThrow("none", directory_, MS_REMOUNT | MS_BIND | MS_RDONLY);
}

ReadOnlyDirectory::~ReadOnlyDirectory() { ::umount2(directory_.c_str(), MNT_DETACH); }

}  // namespace vellicor
