#include "Tests/FaultInjection/OwnProcess.h"

#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace vellicor {

namespace fs = std::filesystem;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool isSanitized = true;
#elif defined(__has_feature)
constexpr bool isSanitized = __has_feature(address_sanitizer);
#else
constexpr bool isSanitized = false;
#endif

#if defined(__APPLE__)
constexpr std::uint64_t memoryUnit = 1;
#else
constexpr std::uint64_t memoryUnit = 1024;
#endif

}  // namespace

std::optional<std::uint64_t> peakMemory() {
  if (isSanitized) return std::nullopt;
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<std::uint64_t>(usage.ru_maxrss) * memoryUnit;
}

std::size_t openDescriptors() {
  const fs::directory_iterator entries("/dev/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::vector<std::string> leftOpen(const std::string& directory, std::uint16_t port) {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator("/dev/fd")) {
    const int descriptor = std::stoi(entry.path().filename().string());
    sockaddr_in peer{};
    socklen_t size = sizeof(peer);
    const bool isSocket = ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    if (isSocket && peer.sin_family == AF_INET && ntohs(peer.sin_port) == port)
      found.emplace_back("a connection to the hub");
    std::error_code isNoLink;
    const std::string path = fs::read_symlink(entry.path(), isNoLink).string();
    if (path.starts_with(directory)) found.push_back(path);
  }
  return found;
}

ClosedPort::ClosedPort() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  const bool isBound = ::bind(socket_.get(), generic, size) == 0;
  if (!isBound || ::getsockname(socket_.get(), generic, &size) != 0) {
    throw std::runtime_error("no port could be had");
  }
  number_ = ntohs(address.sin_port);
}

}  // namespace vellicor
