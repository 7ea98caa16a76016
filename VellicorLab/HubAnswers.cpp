#include "VellicorLab/HubAnswers.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include <boost/crc.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor {

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr std::string_view hubHost = "localhost";
constexpr std::string_view storageHost = "127.0.0.1";
constexpr std::string_view fileNameKey = "&response-content-disposition=inline%3B%20filename%3D%22";
constexpr std::string_view fileNameEnd = "%22";

// A file as the hub's two kinds of addresses name it.
struct FileAddress {
  std::string owner;
  std::string name;
  std::string revision;
  std::string file;
  bool isCached = false;
};

// An empty range (count 0) lies beyond the file's end.
struct RequestedRange {
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

bool isUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::string percentEncoded(std::string_view text, std::string_view kept = "") {
  std::string encoded;
  for (const char c : text) {
    if (isUnreserved(c) || kept.find(c) != std::string_view::npos) {
      encoded += c;
    } else {
      encoded += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return encoded;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    const std::string_view digits = text.substr(i + 1, 2);
    const char* end = digits.data() + digits.size();
    if (text[i] == '%' && digits.size() == 2 && std::from_chars(digits.data(), end, value, 16).ptr == end) {
      decoded += static_cast<char>(value);
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

std::string quoted(const std::string& tag) { return "\"" + tag + "\""; }

std::string_view pathOf(std::string_view target) { return target.substr(0, target.find('?')); }

std::string_view queryOf(std::string_view target) {
  const std::size_t mark = target.find('?');
  return mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
}

std::vector<std::string> segmentsOf(std::string_view path) {
  std::vector<std::string> segments;
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::size_t end = std::min(path.find('/'), path.size());
    segments.push_back(percentDecoded(path.substr(0, end)));
    path.remove_prefix(end);
  }
  return segments;
}

std::string joined(const std::vector<std::string>& segments, std::size_t first) {
  return fmt::format("{}",
                     fmt::join(segments.begin() + static_cast<std::ptrdiff_t>(first), segments.end(), "/"));
}

std::optional<FileAddress> fileAddress(std::string_view path) {
  const std::vector<std::string> s = segmentsOf(path);
  if (s.size() >= 7 && s[0] == "api" && s[1] == "resolve-cache" && s[2] == "models") {
    return FileAddress{s[3], s[4], s[5], joined(s, 6), true};
  }
  if (s.size() >= 5 && s[2] == "resolve") return FileAddress{s[0], s[1], s[3], joined(s, 4), false};
  return std::nullopt;
}

std::optional<std::uint64_t> number(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Nothing for a header that is absent or asks for something else than one range: it is then ignored.
std::optional<RequestedRange> requestedRange(std::string_view header, std::uint64_t size) {
  constexpr std::string_view unit = "bytes=";
  const std::size_t dash = header.find('-');
  if (!header.starts_with(unit) || dash == std::string_view::npos) return std::nullopt;
  const auto first = number(header.substr(unit.size(), dash - unit.size()));
  const auto last = number(header.substr(dash + 1));
  const bool isSuffix = dash == unit.size();
  const bool isOpen = dash + 1 == header.size();
  if (isSuffix && last) return RequestedRange{size - std::min(size, *last), std::min(size, *last)};
  if (!first || (!isOpen && (!last || *last < *first))) return std::nullopt;
  if (*first >= size) return RequestedRange{};
  return RequestedRange{*first, (isOpen ? size - 1 : std::min(*last, size - 1)) - *first + 1};
}

HubAnswer textAnswer(int status, std::string body, Fields headers = {}) {
  HubAnswer answer{.status = status, .headers = std::move(headers), .body = HubBody::text(std::move(body))};
  answer.headers.emplace_back("content-type", "text/plain; charset=utf-8");
  answer.headers.emplace_back("content-length", std::to_string(answer.body.size));
  return answer;
}

HubAnswer refusal(int status, std::string code, std::string message, Fields headers = {}) {
  headers.emplace_back("x-error-code", std::move(code));
  headers.emplace_back("x-error-message", message);
  return textAnswer(status, std::move(message), std::move(headers));
}

HubAnswer redirect(int status, const std::string& location, Fields headers) {
  headers.emplace_back("location", location);
  HubAnswer answer =
      textAnswer(status, fmt::format("Temporary Redirect. Redirecting to {}", location), std::move(headers));
  answer.isFinalHop = false;
  return answer;
}

// The bytes asked for: the whole file, a range of it, or the news that the range lies beyond it.
HubAnswer fileAnswer(const std::shared_ptr<const HubFile>& file, const HubRequest& request, Fields headers) {
  const std::uint64_t size = file->size();
  const auto range = request.method == "HEAD" ? std::nullopt : requestedRange(request.range, size);
  if (range && range->count == 0) {
    return textAnswer(416, "", {{"content-range", fmt::format("bytes */{}", size)}});
  }
  headers.emplace_back("accept-ranges", "bytes");
  headers.emplace_back("content-type", "application/octet-stream");
  if (range) {
    headers.emplace_back("content-range", fmt::format("bytes {}-{}/{}", range->first,
                                                      range->first + (range->count - 1), size));
  }
  const RequestedRange sent = range.value_or(RequestedRange{0, size});
  headers.emplace_back("content-length", std::to_string(sent.count));
  return {.status = range ? 206 : 200,
          .headers = std::move(headers),
          .body = HubBody::slice(file, sent.first, sent.count)};
}

HubAnswer gzippedAnswer(const HubFile& file, Fields headers) {
  std::string content(file.size(), '\0');
  file.read(0, std::as_writable_bytes(std::span(content)));
  headers.emplace_back("etag", "W/" + quoted(file.contentTag()));
  headers.emplace_back("content-encoding", "gzip");
  headers.emplace_back("vary", "Accept-Encoding");
  return {.headers = std::move(headers), .body = HubBody::text(storedGzip(content)), .chunked = true};
}

Fields repositoryFields(const HubSite& site) { return {{"x-repo-commit", site.repository->commit()}}; }

std::string cacheQuery(const FileAddress& address, const std::string& revision, const std::string& tag) {
  const std::string asked =
      fmt::format("/{}/{}/resolve/{}/{}", address.owner, address.name, revision, address.file);
  return fmt::format("{}=&etag=%22{}%22", percentEncoded(asked), tag);
}

HubAnswer smallFileRedirect(const HubSite& site, const FileAddress& address, const HubFile& file) {
  Fields headers = repositoryFields(site);
  headers.emplace_back("x-linked-etag", quoted(file.contentTag()));
  headers.emplace_back("accept-ranges", "bytes");
  headers.emplace_back("vary", "Origin, Accept");
  headers.emplace_back("vary", "Accept-Encoding");
  headers.emplace_back("ratelimit", "\"resolvers\";r=2999;t=300");
  headers.emplace_back("ratelimit-policy", "\"fixed window\";\"resolvers\";q=3000;w=300");
  const std::string location =
      fmt::format("/api/resolve-cache/models/{}/{}/{}/{}?{}", percentEncoded(address.owner),
                  percentEncoded(address.name), site.repository->commit(), percentEncoded(address.file, "/"),
                  cacheQuery(address, address.revision, file.contentTag()));
  return redirect(307, location, std::move(headers));
}

// The address is only good with the query that the redirect gave it.
HubAnswer cachedAnswer(const HubSite& site, const HubRequest& request, const FileAddress& address,
                       const std::shared_ptr<const HubFile>& file) {
  const std::string tag = file->contentTag();
  const std::string_view query = queryOf(request.target);
  const bool isGiven = query == cacheQuery(address, "main", tag) ||
                       query == cacheQuery(address, site.repository->commit(), tag);
  if (!isGiven) return textAnswer(404, "Not Found");
  Fields headers = repositoryFields(site);
  if (request.acceptEncoding.find("gzip") != std::string::npos)
    return gzippedAnswer(*file, std::move(headers));
  headers.emplace_back("etag", quoted(tag));
  return fileAnswer(file, request, std::move(headers));
}

std::string signedQuery(const std::string& hash, const std::string& fileName) {
  const std::string signature = hashData(fmt::format("{} {}", hash, fileName));
  return fmt::format(
      "X-Amz-Signature={0}&X-Amz-Date=20260101T000000Z&X-Amz-Expires=3600&X-Amz-SignedHeaders=host{1}{2}{3}"
      "&Policy={0}{0}{0}{0}{0}{0}__&Key-Pair-Id=LAB",
      signature, fileNameKey, percentEncoded(fileName), fileNameEnd);
}

HubAnswer largeFileRedirect(const HubSite& site, const HubRequest& request, const FileAddress& address,
                            const HubFile& file, const std::string& hash) {
  Fields headers = repositoryFields(site);
  headers.emplace_back("x-linked-size", std::to_string(file.size()));
  headers.emplace_back("x-linked-etag", quoted(file.contentTag()));
  headers.emplace_back("x-xet-hash", hash);
  headers.emplace_back("accept-ranges", "bytes");
  headers.emplace_back(
      "link",
      fmt::format("<https://{}:{}/api/models/{}/{}/xet-read-token/{}>; rel=\"xet-auth\"", hubHost, site.port,
                  percentEncoded(address.owner), percentEncoded(address.name), site.repository->commit()));
  headers.emplace_back("cache-control", "no-store");
  HubAnswer answer = redirect(302,
                              fmt::format("https://{}:{}/xet-bridge/{}?{}", storageHost, site.port, hash,
                                          signedQuery(hash, address.file)),
                              std::move(headers));
  // Metadata clients stop here.
  answer.isFinalHop = request.method == "HEAD";
  return answer;
}

bool isAuthorized(const HubSite& site, const HubRequest& request) {
  return !site.requiredToken || request.authorization == "Bearer " + *site.requiredToken;
}

HubAnswer addressedAnswer(const HubSite& site, const HubRequest& request, const FileAddress& address) {
  if (!site.repoID.empty() && address.owner + "/" + address.name != site.repoID) {
    const bool hasToken = !request.authorization.empty();
    return refusal(hasToken ? 404 : 401, "RepoNotFound",
                   hasToken ? "Repository not found" : "Invalid username or password.");
  }
  if (address.revision != "main" && address.revision != site.repository->commit()) {
    return refusal(404, "RevisionNotFound", "Invalid rev id: " + percentEncoded(address.revision, "/"));
  }
  const std::shared_ptr<const HubFile> file = site.repository->file(address.file);
  if (!file) return refusal(404, "EntryNotFound", "Entry not found", repositoryFields(site));
  if (address.isCached) return cachedAnswer(site, request, address, file);
  if (const auto hash = file->xetHash()) return largeFileRedirect(site, request, address, *file, *hash);
  return smallFileRedirect(site, address, *file);
}

HubAnswer hubAnswer(const HubSite& site, const HubRequest& request) {
  if (!isAuthorized(site, request)) return textAnswer(401, "Invalid username or password.");
  const auto address = fileAddress(pathOf(request.target));
  if (!address) return textAnswer(404, "Not Found");
  HubAnswer answer = addressedAnswer(site, request, *address);
  answer.file = address->file;
  return answer;
}

// The file's name travels in the signed query, so that an address is good without any memory of its issue.
std::string signedFileName(std::string_view query) {
  const std::size_t key = query.find(fileNameKey);
  if (key == std::string_view::npos) return "";
  const std::string_view rest = query.substr(key + fileNameKey.size());
  return percentDecoded(rest.substr(0, rest.find(fileNameEnd)));
}

// "/xet-bridge/HASH", or on the way through more redirects "/xet-bridge/LEFT/HASH".
HubAnswer storageAnswer(const HubSite& site, const HubRequest& request) {
  if (!request.authorization.empty()) {
    return textAnswer(400, "Only one auth mechanism allowed");
  }
  const std::vector<std::string> s = segmentsOf(pathOf(request.target));
  if (s.size() < 2 || s.size() > 3 || s[0] != "xet-bridge") return textAnswer(404, "Not Found");
  const std::string& hash = s.back();
  const std::string_view query = queryOf(request.target);
  const std::string name = signedFileName(query);
  const std::shared_ptr<const HubFile> file = site.repository->file(name);
  if (!file || file->xetHash() != hash || query != signedQuery(hash, name)) {
    return textAnswer(403, "Access denied");
  }
  const std::uint64_t left = s.size() == 3 ? number(s[1]).value_or(0)
                                           : static_cast<std::uint64_t>(std::max(site.storageRedirects, 0));
  HubAnswer answer = left > 0 ? redirect(302,
                                         fmt::format("https://{}:{}/xet-bridge/{}/{}?{}", storageHost,
                                                     site.port, left - 1, hash, query),
                                         {})
                              : fileAnswer(file, request, {{"etag", quoted(hash)}});
  answer.file = name;
  return answer;
}

void appendLittleEndian(std::string& text, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) text += static_cast<char>((value >> (8 * i)) & 0xFF);
}

}  // namespace

HubBody HubBody::text(std::string content) {
  const std::uint64_t size = content.size();
  return {.size = size,
          .read = [content = std::move(content)](std::uint64_t offset, std::span<std::byte> bytes) {
            std::memcpy(bytes.data(), content.data() + offset, bytes.size());
          }};
}

HubBody HubBody::slice(std::shared_ptr<const HubFile> file, std::uint64_t first, std::uint64_t count) {
  return {.size = count,
          .read = [file = std::move(file), first](std::uint64_t offset, std::span<std::byte> bytes) {
            file->read(first + offset, bytes);
          }};
}

std::string storedGzip(std::string_view content) {
  constexpr std::size_t largestBlock = 65535;
  std::string gzip("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10);
  for (std::size_t offset = 0;; offset += largestBlock) {
    const std::string_view block = content.substr(offset, largestBlock);
    const bool isLast = content.size() - offset <= largestBlock;
    gzip += isLast ? '\1' : '\0';
    appendLittleEndian(gzip, block.size(), 2);
    appendLittleEndian(gzip, ~block.size(), 2);
    gzip += block;
    if (isLast) break;
  }
  boost::crc_32_type checksum;
  checksum.process_bytes(content.data(), content.size());
  appendLittleEndian(gzip, checksum.checksum(), 4);
  appendLittleEndian(gzip, content.size(), 4);
  return gzip;
}

HubAnswer normalAnswer(const HubSite& site, const HubRequest& request) {
  if (request.method != "GET" && request.method != "HEAD") {
    return textAnswer(405, "Method not allowed", {{"allow", "GET, HEAD"}});
  }
  if (request.host == hubHost) return hubAnswer(site, request);
  if (request.host == storageHost) return storageAnswer(site, request);
  return textAnswer(421, "Misdirected request");
}

}  // namespace vellicor
