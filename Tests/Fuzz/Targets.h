#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "VellicorArtifact/ArtifactMetadata.h"
#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"
#include "VellicorRepackCore/Source/Safetensors.h"

namespace vellicor::fuzz {

using Bytes = std::span<const std::byte>;

// Every decoder of bytes that others choose. Each function hands the bytes to one of them and aborts with a
// text when what comes back is wrong; an exception that the decoder does not document leaves it.

void fuzzManifest(Bytes bytes);
void fuzzLayout(Bytes bytes);
void fuzzResident(Bytes bytes);
/// The first eight bytes are the size of the shard, the others its header.
void fuzzSafetensors(Bytes bytes);
void fuzzIndex(Bytes bytes);
void fuzzConfig(Bytes bytes);
void fuzzCheckpoint(Bytes bytes);
void fuzzRetryAfter(Bytes bytes);
void fuzzContentRange(Bytes bytes);
void fuzzEntityTag(Bytes bytes);
/// A URL, a line feed, and a reference to resolve against it.
void fuzzUrl(Bytes bytes);
void fuzzPath(Bytes bytes);

struct Target {
  std::string_view name;
  void (*run)(Bytes bytes);
  /// The cap that the system applies before it decodes.
  std::size_t maximumBytes;
};

/// As the transport bounds a header block.
inline constexpr std::size_t maximumHeaderLineBytes = 262144;

inline constexpr std::array<Target, 12> targets{{
    {"manifest", fuzzManifest, MorlenFormatV1::manifestMaxBytes},
    {"layout", fuzzLayout, MorlenFormatV1::layoutMaxBytes},
    {"resident", fuzzResident, MorlenFormatV1::residentIndexMaxBytes},
    {"safetensors", fuzzSafetensors, Safetensors::lengthPrefixBytes + Safetensors::maximumHeaderBytes},
    {"index", fuzzIndex, RemoteSnapshotLoader::maximumIndexBytes},
    {"config", fuzzConfig, RemoteSnapshotLoader::maximumConfigBytes},
    {"checkpoint", fuzzCheckpoint, RemoteInstallCheckpoint::maximumBytes},
    {"retry_after", fuzzRetryAfter, maximumHeaderLineBytes},
    {"content_range", fuzzContentRange, maximumHeaderLineBytes},
    {"entity_tag", fuzzEntityTag, maximumHeaderLineBytes},
    {"url", fuzzUrl, maximumHeaderLineBytes},
    {"path", fuzzPath, MorlenFormatV1::manifestMaxBytes},
}};

}  // namespace vellicor::fuzz
