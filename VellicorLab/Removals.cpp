#include "VellicorLab/Removals.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

namespace vellicor {

namespace fs = std::filesystem;

void awaitRemovals(const std::string& directory) {
  const auto isKept = [](const fs::directory_entry& entry) {
    return entry.path().filename().string().starts_with(".fuse_hidden");
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  const auto hasKept = [&] {
    return fs::is_directory(fs::symlink_status(directory)) &&
           std::ranges::any_of(fs::recursive_directory_iterator(directory), isKept);
  };
  while (hasKept() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void removeSettled(const std::string& path) {
  awaitRemovals(path);
  fs::remove_all(path);
}

}  // namespace vellicor
