// Joins two network namespaces of its own by a line that has a round-trip time and, from the server to the
// client, a rate. The kernel's own TCP runs over it, so it starts slowly, loses packets to a full queue and
// restarts after a pause as on a real line. As network cards do, the line takes segments of one connection
// that follow each other in one piece; each of them counts with its header.
//
// The first line of standard output names the two namespaces, in each of which the line ends in a device
// "wire" that is still to be given an address. When standard input closes, or on SIGTERM, the second line is
// the account of what went over the line. Times are nanoseconds since 1970, as other tools print them. The
// namespaces end with this program.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

namespace {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::nanoseconds;

/// A longer pause of the payload is kept in the account.
constexpr nanoseconds longGap = std::chrono::milliseconds(1);
constexpr nanoseconds shortestQueue = std::chrono::milliseconds(10);
constexpr int batchPieces = 64;
constexpr std::int64_t perSecond = 1'000'000'000;

/// The header that the device puts before each packet (virtio), whose own declaration is not valid C++.
struct DeviceHeader {
  std::uint8_t flags = 0;
  /// 0 for a packet of its own.
  std::uint8_t segmentKind = 0;
  std::uint16_t headerBytes = 0;
  std::uint16_t segmentBytes = 0;
  std::uint16_t checksumStart = 0;
  std::uint16_t checksumOffset = 0;
};
static_assert(sizeof(DeviceHeader) == 10);
constexpr std::size_t largestPieceBytes = sizeof(DeviceHeader) + 65536;

struct LineOptions {
  std::uint64_t roundTripMilliseconds = 0;
  std::uint64_t bytesPerSecond = 0;
};

template <typename Result>
Result checked(Result result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

/// One end of the line, in a network namespace that has nothing else.
struct LineEnd {
  FileDescriptor network;
  FileDescriptor device;
};

/// Moves this process into the new namespace; what has been opened before stays where it is.
LineEnd openLineEnd() {
  checked(::unshare(CLONE_NEWNET), "a network namespace cannot be made");
  LineEnd end;
  end.network =
      FileDescriptor(checked(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC), "/proc/self/ns/net"));
  end.device =
      FileDescriptor(checked(::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC), "/dev/net/tun"));
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
  std::strncpy(request.ifr_name, "wire", IFNAMSIZ - 1);
  checked(::ioctl(end.device.get(), TUNSETIFF, &request), "the device cannot be made");
  checked(::ioctl(end.device.get(), TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4), "TUNSETOFFLOAD");
  return end;
}

/// One or more segments of a TCP connection, or any other packet. Addresses are in the host's byte order.
struct Piece {
  /// With the headers that each segment has on a line.
  std::size_t wireBytes = 0;
  std::size_t payloadBytes = 0;
  std::uint32_t source = 0;
  std::uint32_t destination = 0;
};

std::uint64_t bigEndian(std::span<const std::byte> bytes) {
  std::uint64_t value = 0;
  for (const std::byte byte : bytes) value = value << 8U | std::to_integer<std::uint64_t>(byte);
  return value;
}

/// The length of the headers of TCP over IPv4; nothing for any other packet.
std::optional<std::size_t> tcpHeaderBytes(std::span<const std::byte> packet) {
  constexpr std::size_t smallest = 20, wordBytes = 4;
  if (packet.size() < smallest || bigEndian(packet.first(1)) >> 4U != 4) return std::nullopt;
  if (bigEndian(packet.subspan(9, 1)) != IPPROTO_TCP) return std::nullopt;
  const std::size_t ipBytes = (bigEndian(packet.first(1)) & 15U) * wordBytes;
  if (packet.size() < ipBytes || packet.size() - ipBytes < smallest) return std::nullopt;
  const std::size_t tcpBytes = (bigEndian(packet.subspan(ipBytes + 12, 1)) >> 4U) * wordBytes;
  return std::min(ipBytes + tcpBytes, packet.size());
}

/// `bytes` as the device gave them.
Piece pieceOf(std::span<const std::byte> bytes) {
  DeviceHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  const auto packet = bytes.subspan(sizeof header);
  const auto headerBytes = tcpHeaderBytes(packet);
  if (!headerBytes) return {.wireBytes = packet.size()};
  const std::size_t payload = packet.size() - *headerBytes;
  const std::size_t segmentBytes = std::max<std::size_t>(header.segmentBytes, 1);
  const std::size_t segments = header.segmentKind == 0 ? 1 : (payload + segmentBytes - 1) / segmentBytes;
  return {.wireBytes = payload + segments * *headerBytes,
          .payloadBytes = payload,
          .source = static_cast<std::uint32_t>(bigEndian(packet.subspan(12, 4))),
          .destination = static_cast<std::uint32_t>(bigEndian(packet.subspan(16, 4)))};
}

std::string addressText(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24U, address >> 16U & 255U, address >> 8U & 255U,
                     address & 255U);
}

/// Something the client said and what the same host answered to it.
struct Exchange {
  std::uint32_t host = 0;
  Time asked;
  /// From the first to the last byte of the answer's payload, as the rate lets them onto the line.
  Time answered{};
  Time ended{};
  nanoseconds busy{};
  std::uint64_t payloadBytes = 0;
};

/// The traffic of the line, counted where it enters.
class Account {
 public:
  void asked(Time now, const Piece& piece) {
    upstreamBytes_ += piece.wireBytes;
    if (piece.payloadBytes == 0) return;
    const bool continues = !exchanges_.empty() && exchanges_.back().host == piece.destination &&
                           exchanges_.back().payloadBytes == 0;
    if (!continues) exchanges_.push_back({.host = piece.destination, .asked = now});
  }

  void answered(Time start, Time end, const Piece& piece) {
    downstreamBytes_ += piece.wireBytes;
    busy_ += end - start;
    if (piece.payloadBytes == 0) return;
    if (lastPayload_ && start - *lastPayload_ >= longGap)
      gaps_.emplace_back(*lastPayload_, start - *lastPayload_);
    lastPayload_ = end;
    const auto exchange = std::find_if(exchanges_.rbegin(), exchanges_.rend(),
                                       [&](const Exchange& e) { return e.host == piece.source; });
    if (exchange == exchanges_.rend()) return;
    if (exchange->payloadBytes == 0) exchange->answered = start;
    exchange->ended = end;
    exchange->busy += end - start;
    exchange->payloadBytes += piece.payloadBytes;
  }

  void dropped() { ++droppedPieces_; }

  void delivered(nanoseconds late) {
    ++deliveredPieces_;
    late_ += late;
    latest_ = std::max(latest_, late);
  }

  std::string json() const;

 private:
  static std::uint64_t count(nanoseconds time) { return static_cast<std::uint64_t>(time.count()); }
  std::uint64_t sinceEpoch(Time time) const { return count(time.time_since_epoch() + epoch_); }

  nanoseconds epoch_ = std::chrono::duration_cast<nanoseconds>(
      std::chrono::system_clock::now().time_since_epoch() - Clock::now().time_since_epoch());
  std::uint64_t upstreamBytes_ = 0;
  std::uint64_t downstreamBytes_ = 0;
  std::uint64_t droppedPieces_ = 0;
  std::uint64_t deliveredPieces_ = 0;
  nanoseconds busy_{};
  nanoseconds late_{};
  nanoseconds latest_{};
  std::optional<Time> lastPayload_;
  std::vector<std::pair<Time, nanoseconds>> gaps_;
  std::vector<Exchange> exchanges_;
};

std::string Account::json() const {
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::plain);
  json.beginObject()
      .member("busy", count(busy_))
      .member("downstreamBytes", downstreamBytes_)
      .member("droppedPieces", droppedPieces_)
      .key("exchanges")
      .beginArray();
  for (const Exchange& exchange : exchanges_) {
    if (exchange.payloadBytes == 0) continue;
    const std::string host = addressText(exchange.host);
    json.beginObject()
        .member("answered", sinceEpoch(exchange.answered))
        .member("asked", sinceEpoch(exchange.asked))
        .member("busy", count(exchange.busy))
        .member("ended", sinceEpoch(exchange.ended))
        .member("host", std::string_view(host))
        .member("payloadBytes", exchange.payloadBytes)
        .endObject();
  }
  json.endArray().key("gaps").beginArray();
  for (const auto& [start, length] : gaps_) {
    json.beginObject().member("length", count(length)).member("start", sinceEpoch(start)).endObject();
  }
  const std::uint64_t pieces = std::max<std::uint64_t>(deliveredPieces_, 1);
  json.endArray()
      .member("lateAtMost", count(latest_))
      .member("lateOnAverage", count(late_) / pieces)
      .member("upstreamBytes", upstreamBytes_)
      .endObject();
  return std::move(json).take() + "\n";
}

/// Packets under way, in the order in which they arrive.
class PiecesUnderWay {
 public:
  explicit PiecesUnderWay(int device) : device_(device) {}

  /// For the next piece; valid until the next call of a member.
  std::span<std::byte> space() {
    if (spare_.empty()) spare_.emplace_back(largestPieceBytes);
    return spare_.back();
  }

  /// The first `size` bytes of `space()` arrive at `due`, which never decreases.
  void add(std::size_t size, Time due) {
    entries_.push_back({std::move(spare_.back()), size, due});
    spare_.pop_back();
  }

  void deliverDue(Account& account) {
    for (Time now = Clock::now(); nextDue() <= now; now = Clock::now()) {
      Entry entry = std::move(entries_.front());
      entries_.pop_front();
      account.delivered(now - entry.due);
      if (::write(device_, entry.bytes.data(), entry.size) < 0) account.dropped();
      spare_.push_back(std::move(entry.bytes));
    }
  }

  Time nextDue() const { return entries_.empty() ? Time::max() : entries_.front().due; }

 private:
  struct Entry {
    std::vector<std::byte> bytes;
    std::size_t size;
    Time due;
  };

  int device_;
  std::deque<Entry> entries_;
  std::vector<std::vector<std::byte>> spare_;
};

class Line {
 public:
  Line(const LineOptions& options, const LineEnd& client, const LineEnd& server)
      : halfRoundTrip_(std::chrono::milliseconds(options.roundTripMilliseconds) / 2),
        longestQueue_(std::max<nanoseconds>(4 * halfRoundTrip_, shortestQueue)),
        bytesPerSecond_(options.bytesPerSecond),
        client_(client.device.get()),
        server_(server.device.get()),
        toServer_(server_),
        toClient_(client_) {}

  /// Until `stopSignals` has one or standard input ends.
  void run(int stopSignals) {
    std::array<pollfd, 4> watched{
        {{client_, POLLIN, 0}, {server_, POLLIN, 0}, {stopSignals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    while (watched[2].revents == 0 && watched[3].revents == 0) {
      wait(watched);
      takeFromClient();
      takeFromServer();
      toServer_.deliverDue(account_);
      toClient_.deliverDue(account_);
    }
  }

  const Account& account() const { return account_; }

 private:
  void wait(std::span<pollfd> watched) const {
    const Time due = std::min(toServer_.nextDue(), toClient_.nextDue());
    const bool isForever = due == Time::max();
    const std::int64_t left = isForever ? 0 : std::max<std::int64_t>((due - Clock::now()).count(), 0);
    const timespec timeout{left / perSecond, left % perSecond};
    const int ready = ::ppoll(watched.data(), watched.size(), isForever ? nullptr : &timeout, nullptr);
    if (ready < 0 && errno != EINTR) checked(ready, "ppoll");
  }

  void takeFromClient() {
    takePieces(client_, toServer_, [&](Time now, const Piece& piece) {
      account_.asked(now, piece);
      return now;
    });
  }

  void takeFromServer() {
    takePieces(server_, toClient_, [&](Time now, const Piece& piece) -> std::optional<Time> {
      const Time start = std::max(now, lineFree_);
      if (start - now > longestQueue_) return std::nullopt;
      lineFree_ = start + nanoseconds(piece.wireBytes * std::uint64_t{perSecond} / bytesPerSecond_);
      account_.answered(start, lineFree_, piece);
      return lineFree_;
    });
  }

  /// `departure` answers when the piece has left, or nothing for one that is lost.
  template <typename Departure>
  void takePieces(int device, PiecesUnderWay& pieces, Departure departure) {
    for (int count = 0; count < batchPieces; ++count) {
      const std::span<std::byte> space = pieces.space();
      const ssize_t size = ::read(device, space.data(), space.size());
      if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
      const auto bytes = space.first(static_cast<std::size_t>(checked(size, "reading a device")));
      const std::optional<Time> left = departure(Clock::now(), pieceOf(bytes));
      if (left) pieces.add(bytes.size(), *left + halfRoundTrip_);
      if (!left) account_.dropped();
    }
  }

  nanoseconds halfRoundTrip_;
  nanoseconds longestQueue_;
  std::uint64_t bytesPerSecond_;
  int client_;
  int server_;
  Account account_;
  PiecesUnderWay toServer_;
  PiecesUnderWay toClient_;
  /// When the last piece towards the client has left.
  Time lineFree_{};
};

FileDescriptor openStopSignals() {
  sigset_t signals{};
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  checked(::sigprocmask(SIG_BLOCK, &signals, nullptr), "sigprocmask");
  return FileDescriptor(checked(::signalfd(-1, &signals, SFD_CLOEXEC), "signalfd"));
}

void print(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

std::string readyLine(const LineEnd& client, const LineEnd& server) {
  const auto path = [](const LineEnd& end) {
    return fmt::format("/proc/{}/fd/{}", ::getpid(), end.network.get());
  };
  const std::string clientPath = path(client), serverPath = path(server);
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::plain);
  json.beginObject()
      .member("clientNetwork", std::string_view(clientPath))
      .member("serverNetwork", std::string_view(serverPath))
      .endObject();
  return std::move(json).take() + "\n";
}

/// Waits end when they should, not up to 50 microseconds later, and not after what others compute.
void keepTime() {
  constexpr int beforeOthers = -15;
  checked(::prctl(PR_SET_TIMERSLACK, 1UL), "prctl");
  checked(::setpriority(PRIO_PROCESS, 0, beforeOthers), "setpriority");
}

void runLine(const LineOptions& options) {
  const FileDescriptor stopSignals = openStopSignals();
  const LineEnd client = openLineEnd();
  const LineEnd server = openLineEnd();
  keepTime();
  print(readyLine(client, server));
  Line line(options, client, server);
  line.run(stopSignals.get());
  print(line.account().json());
}

}  // namespace

}  // namespace vellicor

int main(int argc, char** argv) {
  vellicor::LineOptions options;
  CLI::App app(
      "Two network namespaces joined by a line with a round-trip time and a rate, until standard input "
      "closes");
  app.add_option("--round-trip-ms", options.roundTripMilliseconds, "Round-trip time")
      ->required()
      ->check(CLI::Range(0, 10'000));
  app.add_option("--bytes-per-second", options.bytesPerSecond, "Rate towards the client")
      ->required()
      ->check(CLI::Range(1'000, 2'000'000'000));
  CLI11_PARSE(app, argc, argv);
  try {
    vellicor::runLine(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "VellicorLine: {}\n", error.what());
    return 1;
  }
  return 0;
}
