#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "VellicorRepackCore/FileSystem/RemovedUnlessKept.h"

namespace vellicor {

/// A file that a person asked for. It is written under another name in the same directory, so that it is
/// there whole or not at all.
class OutputFile {
 public:
  enum class Existing { refuse, replace };

  /// Throws `configurationInvalid` when the path exists and may not be replaced; only a regular file may.
  /// Links on the way are followed.
  OutputFile(const std::string& path, Existing existing);

  /// This and `finish` throw `CancellationError` once a signal has asked the program to end.
  void append(std::span<const std::byte> bytes);
  void append(std::string_view text) { append(std::as_bytes(std::span(text))); }

  /// Syncs the file and gives it its name. Without it, nothing is left.
  void finish();

 private:
  void requireFree() const;

  std::string path_;
  Existing existing_;
  RemovedUnlessKept temporary_;
  FileDescriptor file_;
  std::uint64_t size_ = 0;
};

}  // namespace vellicor
