#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

/// The most memory that this process has held so far, in bytes; nothing under a sanitizer, which keeps what
/// is freed.
std::optional<std::uint64_t> peakMemory();

/// How many descriptors this process has open.
std::size_t openDescriptors();

/// What an install left open: the client's ends of connections to the hub's port, and where the system tells,
/// files of the directory. Other threads' descriptors are neither.
std::vector<std::string> leftOpen(const std::string& directory, std::uint16_t port);

/// A port of the loopback that nobody else can take and nobody listens on. Throws `std::runtime_error`.
class ClosedPort {
 public:
  ClosedPort();
  std::uint16_t number() const { return number_; }

 private:
  FileDescriptor socket_;
  std::uint16_t number_ = 0;
};

}  // namespace vellicor
