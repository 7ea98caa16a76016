#include "Tests/Fuzz/Targets.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "VellicorArtifact/ArtifactMetadata.h"
#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorFormat/JsonReading.h"
#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorFormat/MorlenResidentIndexV1.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/Base/AsciiText.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"
#include "VellicorRepackCore/Remote/RemoteRangeTransfer.h"
#include "VellicorRepackCore/Remote/RemoteRetry.h"
#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"
#include "VellicorRepackCore/Source/Safetensors.h"

namespace vellicor::fuzz {
namespace {

void require(bool holds, const char* text) {
  if (holds) return;
  std::fprintf(stderr, "property violated: %s\n", text);
  std::abort();
}

std::string_view textOf(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

/// The result of `decode`, or nothing when it refuses with one of the documented exceptions.
template <typename... Documented, typename Decode>
auto unlessRefused(Decode&& decode) -> std::optional<decltype(decode())> {
  try {
    return decode();
  } catch (const std::exception& error) {
    if (!((dynamic_cast<const Documented*>(&error) != nullptr) || ...)) throw;
    return std::nullopt;
  }
}

/// Decoding, encoding and decoding again changes nothing any more.
template <typename Documented, typename Decode, typename Encode>
void requireStable(Bytes bytes, Decode decode, Encode encode) {
  const auto record = unlessRefused<Documented>([&] { return decode(textOf(bytes)); });
  if (!record) return;
  const std::string text = encode(*record);
  const auto again = decode(text);
  require(again == *record, "what was encoded decodes to another value");
  require(encode(again) == text, "the second encoding differs from the first");
}

template <typename Number>
Number numberAt(Bytes bytes, std::size_t at) {
  Number number = 0;
  std::memcpy(&number, bytes.subspan(at, sizeof(number)).data(), sizeof(number));
  return number;
}

void requireDisjointPayloads(const std::vector<MorlenResidentIndexEntryV1>& entries,
                             const MorlenResidentIndexHeaderV1& header) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  for (const auto& entry : entries) {
    require(entry.sizeBytes > 0, "an entry without weights");
    ranges.emplace_back(entry.fileOffset, entry.sizeBytes);
    if (entry.scaleSize > 0) ranges.emplace_back(entry.scaleOffset, entry.scaleSize);
    if (entry.biasSize > 0) ranges.emplace_back(entry.biasOffset, entry.biasSize);
  }
  std::sort(ranges.begin(), ranges.end());
  std::uint64_t end = header.indexSize;
  for (const auto& [offset, size] : ranges) {
    require(offset >= end, "payload ranges overlap each other or the index");
    require(size <= header.indexSize + header.residentSize - offset, "a payload range leaves the file");
    end = offset + size;
  }
}

/// A valid index and configuration, of which each target overwrites one.
struct Snapshot : TemporaryDirectory {
  const std::string index = *this / IndexLoader::indexFilename;
  const std::string config = *this / IndexLoader::configFilename;

  Snapshot() {
    Posix::writeWholeFile(index, R"({"weight_map":{"t":"s"}})");
    Posix::writeWholeFile(config, R"({"quantization":{}})");
  }
};

/// A directory with a file inside and one beside it, to which links lead.
struct Artifact : TemporaryDirectory {
  Artifact() {
    writeFile(*this / "outside", "outside");
    writeFile(*this / "root/a/b", "inside");
    std::filesystem::create_symlink("..", *this / "root/up");
    std::filesystem::create_symlink("../outside", *this / "root/link");
  }
};

void requireRedacted(const RemoteUrl& url) {
  const std::string text = redactRemoteURL(url);
  require(text.find_first_of("?#") == std::string::npos, "a redacted URL has a query or a fragment");
  const std::size_t host = text.find("//") + 2;
  require(text.substr(0, text.find('/', host)).find('@') == std::string::npos, "a redacted URL has a user");
}

/// Whether a walk along the names ever stands above its start, or begins at the top.
bool leavesRoot(std::string_view path) {
  std::int64_t depth = 0;
  for (std::size_t start = 0; start <= path.size() && depth >= 0;) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    depth += path.substr(start, end - start) == ".." ? -1 : 1;
    start = end + 1;
  }
  return depth < 0 || path.starts_with('/') || path.find('\0') != std::string_view::npos;
}

/// A Content-Range in its shortest spelling that is read alike.
std::string shortestRange(std::string_view text) {
  const auto isDigit = [&](std::size_t i) { return i < text.size() && text[i] >= '0' && text[i] <= '9'; };
  std::string range;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isLeadingZero =
        text[i] == '0' && isDigit(i + 1) && (range.empty() || range.back() < '0' || range.back() > '9');
    const bool isDropped = range == "bytes " && (text[i] == '/' || text[i] == '-');
    if (!isLeadingZero && !isDropped && text[i] != '+') range += text[i];
  }
  return range;
}

void fuzzManifest(Bytes bytes) {
  requireStable<MorlenFormatError>(bytes, MorlenManifestCodec::decode, MorlenManifestCodec::encode);
}

void fuzzLayout(Bytes bytes) {
  using Codec = MorlenPackedExpertsLayoutCodec;
  requireStable<MorlenFormatError>(bytes, Codec::decode, Codec::encode);
  constexpr std::size_t smallTree = 65536;
  if (bytes.size() > smallTree || unlessRefused<JsonDecodingError>([&] { return parseJson(textOf(bytes)); }))
    return;
  require(!unlessRefused<MorlenFormatError>([&] { return Codec::decode(textOf(bytes)); }),
          "what is no JSON was decoded");
}

void fuzzResident(Bytes bytes) {
  using Codec = MorlenResidentIndexCodec;
  const auto header = unlessRefused<MorlenFormatError>([&] { return Codec::decodeHeader(bytes); });
  if (!header) return;
  // The zeros at the end of a small region need not be guessed.
  std::vector<std::byte> region(bytes.begin(), bytes.end());
  if (header->indexSize <= 2 * MorlenFormatV1::alignmentBytes && header->indexSize > region.size())
    region.resize(header->indexSize);
  const auto entries = unlessRefused<MorlenFormatError>([&] { return Codec::decodeRegion(region, *header); });
  if (!entries) return;
  require(entries->size() == header->entryCount, "the entries are not as many as announced");
  requireDisjointPayloads(*entries, *header);

  std::vector<std::byte> written = region;
  Codec::writeHeader(written, *header);
  std::size_t at = MorlenFormatV1::residentHeaderBytes;
  const std::size_t tableEnd = at + entries->size() * MorlenFormatV1::residentEntryBytes;
  for (const auto& entry : *entries) {
    const auto nameOffset = numberAt<std::uint32_t>(region, at);
    require(nameOffset >= tableEnd && nameOffset + entry.name.size() <= header->indexSize,
            "a name leaves the string table");
    require(textOf(Bytes(region).subspan(nameOffset, entry.name.size())) == entry.name, "a name of others");
    Codec::writeEntry(std::span(written).subspan(at), entry, nameOffset);
    at += MorlenFormatV1::residentEntryBytes;
  }
  require(written == region, "written back, the region differs");
}

/// The first eight bytes are the size of the shard, the others its header.
void fuzzSafetensors(Bytes bytes) {
  constexpr std::size_t prefix = Safetensors::lengthPrefixBytes;
  if (bytes.size() < prefix) return;
  const std::uint64_t fileSize = numberAt<std::uint64_t>(bytes, 0);
  const auto header = unlessRefused<RepackError, JsonDecodingError>(
      [&] { return Safetensors::parseHeaderBytes("shard", fileSize, textOf(bytes.subspan(prefix))); });
  if (!header) return;
  std::set<std::string_view> names;
  for (const SourceTensor& tensor : header->tensors) {
    require(names.insert(tensor.name).second, "a tensor is listed twice");
    require(tensor.absoluteOffset >= bytes.size(), "a tensor begins inside the header");
    require(tensor.absoluteOffset <= fileSize && tensor.sizeBytes <= fileSize - tensor.absoluteOffset,
            "a tensor leaves the shard");
  }
}

void fuzzIndex(Bytes bytes) {
  static const Snapshot snapshot;
  Posix::writeWholeFile(snapshot.index, textOf(bytes));
  const auto metadata = unlessRefused<RepackError>([] { return IndexLoader::load(snapshot.path()); });
  if (!metadata) return;
  std::set<std::string> shards;
  for (const auto& [tensor, shard] : metadata->weightMap) shards.insert(shard);
  const auto& listed = metadata->shardFilenames;
  require(listed.size() == shards.size() && std::set(listed.begin(), listed.end()) == shards,
          "the shards are not those of the map, each once");
}

void fuzzConfig(Bytes bytes) {
  static const Snapshot snapshot;
  Posix::writeWholeFile(snapshot.config, textOf(bytes));
  const auto metadata = unlessRefused<RepackError>([] { return IndexLoader::load(snapshot.path()); });
  require(!metadata || !metadata->bitsOverrides.contains("bits"), "a base setting became an override");
  const auto arch =
      unlessRefused<RepackError, JsonDecodingError>([] { return ArchInfo::load(snapshot.config); });
  require(!arch || std::ranges::all_of(arch->fullAttentionLayerMask, [](auto entry) { return entry <= 1; }),
          "a mask of other numbers than 0 and 1");
}

void fuzzCheckpoint(Bytes bytes) {
  const auto decode = [](std::string_view text) { return RemoteInstallCheckpoint::decode(text, "path"); };
  requireStable<RepackError>(bytes, decode, std::mem_fn(&RemoteInstallCheckpoint::encoded));
}

void fuzzRetryAfter(Bytes bytes) {
  const RemoteRetryPolicy policy;
  const auto now = std::chrono::system_clock::from_time_t(784111777);
  const auto answer =
      RepackError(RemoteHTTPResponse{.url = "url", .status = 503, .retryAfter = std::string(textOf(bytes))});
  const auto delay = unlessRefused<RepackError>([&] { return policy.retryDelayNs(answer, 7, now); });
  require(!delay || (*delay >= 7 && *delay <= policy.maxServerDelayNs), "not between back-off and cap");
}

void fuzzContentRange(Bytes bytes) {
  static const RemoteUrl url = RemoteUrl::parse("https://hub/file").value();
  static const std::vector<std::pair<RemoteRangeExpectation, std::string>> rows = {
      {{"file", 10, 90, 1000, {}}, "bytes 10-99/1000"},
      {{"file", ~0ULL - 10, 10, ~0ULL, {}},
       "bytes 18446744073709551605-18446744073709551614/18446744073709551615"}};
  for (const auto& [expected, range] : rows) {
    HttpResponseHead head{.url = url, .status = 206, .headers = {}};
    head.headers.set("Content-Length", std::to_string(expected.length));
    head.headers.set("Content-Range", textOf(bytes));
    RemoteRangeTransferDelegate transfer("path", expected, -1, nullptr);
    const bool isAccepted =
        unlessRefused<RepackError>([&] { return transfer.onResponse(head), true; }).has_value();
    require(!isAccepted || shortestRange(textOf(bytes)) == range, "another range was accepted");
  }
}

void fuzzEntityTag(Bytes bytes) {
  const std::string value(textOf(bytes));
  const auto tag = normalizedStrongETag(value);
  require(tag == normalizedStrongETag(" " + asciiLowercased(value) + "\r\n"), "case or space decides");
  require(!tag || normalizedStrongETag('"' + *tag + '"') == tag, "quoting a tag changes it");
  require(!tag || !value.starts_with("W/"), "a weak tag counts as strong");
}

/// A URL, a line feed, and a reference to resolve against it.
void fuzzUrl(Bytes bytes) {
  const std::string_view text = textOf(bytes);
  const std::size_t line = std::min(text.find('\n'), text.size());
  const std::string_view reference = text.substr(std::min(line + 1, text.size()));
  const auto url = RemoteUrl::parse(text.substr(0, line));
  if (!url) return;
  requireRedacted(url->appendingPathComponent(reference));
  for (const auto& reached : {url, url->resolving(reference)}) {
    if (!reached) continue;
    requireRedacted(*reached);
    require(RemoteUrl::parse(reached->string()) == reached, "a URL written out reads as another");
  }
}

void fuzzPath(Bytes bytes) {
  static const Artifact artifact;
  static const MorlenDirectoryAccess directory(artifact / "root");
  const std::string path(textOf(bytes));
  const auto passes = [&](auto validate) {
    return unlessRefused<MorlenFormatError>([&] { return validate(path, "path"), true; }).has_value();
  };
  const bool isSafe = passes(MorlenPathValidator::validateRelativePath);
  require(!isSafe || !leavesRoot(path), "an accepted path leaves its root");
  const bool isName = passes(MorlenPathValidator::validateBasename);
  require(isName == (isSafe && path.find('/') == std::string::npos), "a base name is a path of one name");
  MorlenPathValidator::appleFilesystemKey(path);
  const auto content = unlessRefused<RepackError>([&] { return directory.readMetadata(path, 64); });
  require(!content || (isSafe && *content == "inside"), "a file outside the root was read");
}

/// As the transport bounds a header block.
constexpr std::size_t maximumHeaderLineBytes = 262144;

}  // namespace

constinit const std::array<Target, 12> targets{{
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
