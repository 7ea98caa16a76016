#include "VellicorLab/LocalHub.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <thread>

#include <fmt/format.h>

// Boost recognises these by compiler; every compiler of this project has the standard ones.
#if !defined(BOOST_ASIO_HAS_CO_AWAIT)
#define BOOST_ASIO_HAS_CO_AWAIT 1
#endif
#if !defined(BOOST_ASIO_HAS_STD_COROUTINE)
#define BOOST_ASIO_HAS_STD_COROUTINE 1
#endif
#if !defined(BOOST_ASIO_HAS_STD_INVOKE_RESULT)
#define BOOST_ASIO_HAS_STD_INVOKE_RESULT 1
#endif
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "VellicorLab/HubAnswers.h"
#include "VellicorLab/LabCertificate.h"

namespace vellicor {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::use_awaitable;
using asio::ip::tcp;

constexpr std::size_t pieceBytes = 262144;
constexpr std::uint32_t maximumRequestHeadBytes = 65536;
constexpr std::chrono::milliseconds acceptRetryDelay{50};
const std::string endlessLine = "x-endless: " + std::string(1000, 'x');
// A record of application data under TLS 1.2 or later by its header; the rest decrypts to nothing.
const std::string corruptRecord = std::string("\x17\x03\x03\x00\x40", 5) + std::string(64, 'x');

struct Connection {
  Connection(tcp::socket socket, asio::ssl::context& tls, std::uint64_t connectionNumber)
      : timer(socket.get_executor()), stream(std::move(socket), tls), number(connectionNumber) {}

  asio::steady_timer timer;
  asio::ssl::stream<tcp::socket> stream;
  boost::beast::flat_buffer buffer;
  std::vector<std::byte> piece;
  std::uint64_t number;
};

enum class Ending { none, close, drop, reset, corrupt, stall };

// How much of a body goes out, and what happens then.
struct BodyPlan {
  std::uint64_t bytes = 0;
  Ending ending = Ending::none;
};

void writeTextFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("the hub's certificate could not be written: " + path);
}

asio::ssl::context serverContext(const LabCertificate& certificate) {
  using asio::ssl::context;
  context tls(context::tls_server);
  tls.set_options(context::default_workarounds | context::no_sslv2 | context::no_sslv3 | context::no_tlsv1 |
                  context::no_tlsv1_1);
  tls.use_certificate_chain(asio::buffer(certificate.certificate));
  tls.use_private_key(asio::buffer(certificate.privateKey), context::pem);
  return tls;
}

HubRequest described(const http::request_header<>& head, std::uint64_t connection) {
  const auto field = [&](http::field name) { return std::string(head[name]); };
  const std::string host = field(http::field::host);
  return {.connection = connection,
          .host = host.substr(0, host.rfind(':')),
          .method = std::string(head.method_string()),
          .target = std::string(head.target()),
          .range = field(http::field::range),
          .authorization = field(http::field::authorization),
          .acceptEncoding = field(http::field::accept_encoding)};
}

void setHeader(HubAnswer& answer, const std::string& name, const std::optional<std::string>& value) {
  const auto isNamed = [&](const auto& field) { return boost::beast::iequals(field.first, name); };
  std::erase_if(answer.headers, isNamed);
  if (value) answer.headers.emplace_back(name, *value);
}

HubAnswer faultyAnswer(HubAnswer answer, const HubFault& fault) {
  if (fault.status) {
    answer.status = *fault.status;
    answer.body = HubBody::text(fault.body);
    answer.headers = {{"content-length", std::to_string(fault.body.size())}};
    answer.chunked = false;
  }
  if (fault.chunked) answer.chunked = true;
  if (answer.chunked) {
    setHeader(answer, "content-length", std::nullopt);
    setHeader(answer, "transfer-encoding", "chunked");
  }
  if (fault.http10) setHeader(answer, "connection", "close");
  for (const auto& [name, value] : fault.headers) setHeader(answer, name, value);
  return answer;
}

BodyPlan bodyPlan(std::uint64_t available, const HubFault& fault) {
  const std::array<std::pair<std::optional<std::uint64_t>, Ending>, 5> limits = {
      {{fault.closeAfter, Ending::close},
       {fault.dropAfter, Ending::drop},
       {fault.resetAfter, Ending::reset},
       {fault.corruptAfter, Ending::corrupt},
       {fault.stallAfter, Ending::stall}}};
  BodyPlan plan{.bytes = available, .ending = fault.http10 ? Ending::close : Ending::none};
  for (const auto& [limit, ending] : limits) {
    if (limit) plan = {.bytes = std::min(*limit, plan.bytes), .ending = ending};
  }
  return plan;
}

std::string headText(const HubAnswer& answer, const HubFault& fault) {
  const auto status = static_cast<http::status>(answer.status);
  std::string text = fmt::format("HTTP/{} {} {}\r\n", fault.http10 ? "1.0" : "1.1", answer.status,
                                 std::string(http::obsolete_reason(status)));
  for (const auto& [name, value] : answer.headers) text += fmt::format("{}: {}\r\n", name, value);
  return text;
}

// Bytes of the body as sent: zeros after its own end, one bit of it flipped.
void fillPiece(const HubBody& body, const HubFault& fault, std::uint64_t offset, std::span<std::byte> piece) {
  const std::uint64_t left = offset < body.size ? body.size - offset : 0;
  const std::size_t own = static_cast<std::size_t>(std::min<std::uint64_t>(left, piece.size()));
  if (own > 0) body.read(offset, piece.first(own));
  std::ranges::fill(piece.subspan(own), std::byte{0});
  if (fault.flipByte && *fault.flipByte >= offset && *fault.flipByte - offset < own) {
    piece[static_cast<std::size_t>(*fault.flipByte - offset)] ^= std::byte{1};
  }
}

}  // namespace

// The coroutines run on `thread` alone; `mutex` guards what other threads reach too: the log, the number of
// connections and the fault decision.
struct LocalHub::Impl {
  explicit Impl(Options hubOptions)
      : options(std::move(hubOptions)), certificate(LabCertificate::make(options.certificateNames)) {
    writeTextFile(options.caFilePath, certificate.certificate);
    site = {.repository = options.repository,
            .repoID = options.repoID,
            .port = acceptor.local_endpoint().port(),
            .requiredToken = options.requiredToken,
            .storageRedirects = options.storageRedirects};
    asio::co_spawn(context, acceptConnections(), asio::detached);
    thread = std::thread([this] { context.run(); });
  }

  ~Impl() {
    asio::post(context, [this] { stop(); });
    thread.join();
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // Every coroutine then ends with the error of what it waits for, and the context runs out of work.
  void stop() {
    isStopping = true;
    boost::system::error_code ignored;
    acceptor.close(ignored);
    acceptTimer.cancel();
    for (Connection& connection : connections) {
      connection.timer.cancel();
      connection.stream.next_layer().close(ignored);
    }
  }

  asio::awaitable<void> acceptConnections() {
    while (!isStopping) {
      tcp::socket socket(context);
      boost::system::error_code error;
      co_await acceptor.async_accept(socket, asio::redirect_error(use_awaitable, error));
      if (isStopping) break;
      if (error) {
        // Out of descriptors, most likely: they come back as connections end.
        acceptTimer.expires_after(acceptRetryDelay);
        co_await acceptTimer.async_wait(asio::redirect_error(use_awaitable, error));
        continue;
      }
      socket.set_option(tcp::no_delay(true), error);
      const auto connection =
          connections.emplace(connections.end(), std::move(socket), tls, countConnection());
      asio::co_spawn(context, serve(connection), asio::detached);
    }
  }

  asio::awaitable<void> serve(std::list<Connection>::iterator connection) {
    try {
      co_await connection->stream.async_handshake(asio::ssl::stream_base::server, use_awaitable);
      while (co_await serveRequest(*connection)) {
      }
    } catch (const std::exception&) {
      // The client has gone, or the hub is being stopped: there is nobody left to tell.
    }
    connections.erase(connection);
  }

  // Returns whether the connection stays open for another request.
  asio::awaitable<bool> serveRequest(Connection& connection) {
    http::request_parser<http::empty_body> parser;
    parser.header_limit(maximumRequestHeadBytes);
    co_await http::async_read_header(connection.stream, connection.buffer, parser, use_awaitable);
    HubRequest request = described(parser.get(), connection.number);
    HubAnswer answer = normalAnswer(site, request);
    request.file = answer.file;
    request.isFinalHop = answer.isFinalHop;
    const HubFault fault = recordAndDecide(request);
    answer = faultyAnswer(std::move(answer), fault);
    if (options.latency.count() > 0) co_await wait(connection, options.latency);
    const bool hasEnded = co_await sendAnswer(connection, answer, fault, request.method != "HEAD");
    co_return !hasEnded && parser.get().keep_alive();
  }

  // Returns whether the connection has come to its end with the answer.
  asio::awaitable<bool> sendAnswer(Connection& connection, const HubAnswer& answer, const HubFault& fault,
                                   bool hasBody) {
    const std::string head = headText(answer, fault);
    if (fault.stallBeforeHead) co_await end(connection, Ending::stall);
    if (fault.resetBeforeHead) co_return co_await end(connection, Ending::reset);
    if (fault.endlessHeaders) co_await sendEndlessly(connection, fault.preamble + head, endlessLine + "\r\n");
    if (fault.endlessHeaderLine) co_await sendEndlessly(connection, fault.preamble + head, endlessLine);
    co_await send(connection, fault.preamble);
    if (fault.closeBeforeHead) co_return co_await end(connection, Ending::close);

    co_await send(connection, head + "\r\n");
    const BodyPlan plan = bodyPlan((hasBody ? answer.body.size : 0) + fault.extraBytes, fault);
    co_await sendBody(connection, answer, fault, plan.bytes);
    if (plan.ending != Ending::none) co_return co_await end(connection, plan.ending);
    if (hasBody && answer.chunked) co_await send(connection, "0\r\n\r\n");
    co_return false;
  }

  // Returns true, or by an exception when a stalled connection is closed.
  asio::awaitable<bool> end(Connection& connection, Ending ending) {
    switch (ending) {
      case Ending::none:
      case Ending::drop:
        break;
      case Ending::close:
        // Says that the client has said goodbye already, which is thus not waited for.
        SSL_set_shutdown(connection.stream.native_handle(), SSL_RECEIVED_SHUTDOWN);
        co_await connection.stream.async_shutdown(use_awaitable);
        break;
      case Ending::reset:
        connection.stream.next_layer().set_option(asio::socket_base::linger(true, 0));
        connection.stream.next_layer().close();
        break;
      case Ending::corrupt:
        co_await asio::async_write(connection.stream.next_layer(), asio::buffer(corruptRecord),
                                   use_awaitable);
        break;
      case Ending::stall:
        co_await waitUntil(connection, std::chrono::steady_clock::time_point::max());
    }
    co_return true;
  }

  asio::awaitable<void> send(Connection& connection, std::string text) {
    co_await asio::async_write(connection.stream, asio::buffer(text), use_awaitable);
  }

  asio::awaitable<void> sendBody(Connection& connection, const HubAnswer& answer, const HubFault& fault,
                                 std::uint64_t bytes) {
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t largest = fault.trickle ? 1 : pacedPieceBytes();
    connection.piece.resize(largest);
    for (std::uint64_t offset = 0; offset < bytes;) {
      const auto count = static_cast<std::size_t>(std::min(largest, bytes - offset));
      const std::span<std::byte> piece = std::span(connection.piece).first(count);
      fillPiece(answer.body, fault, offset, piece);
      const std::string before = answer.chunked ? fmt::format("{:x}\r\n", count) : "";
      const std::string_view after = answer.chunked ? "\r\n" : "";
      const std::array<asio::const_buffer, 3> buffers = {
          asio::buffer(before), asio::buffer(piece.data(), piece.size()), asio::buffer(after)};
      co_await asio::async_write(connection.stream, buffers, use_awaitable);
      offset += count;
      if (fault.trickle) co_await wait(connection, *fault.trickle);
      if (options.bytesPerSecond > 0) co_await waitUntil(connection, start + timeFor(offset));
    }
  }

  // A twentieth of a second's worth at the most, so that a slow body still flows.
  std::uint64_t pacedPieceBytes() const {
    if (options.bytesPerSecond == 0) return pieceBytes;
    return std::clamp<std::uint64_t>(options.bytesPerSecond / 20, 1, pieceBytes);
  }

  std::chrono::nanoseconds timeFor(std::uint64_t bytes) const {
    const double seconds = static_cast<double>(bytes) / static_cast<double>(options.bytesPerSecond);
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
  }

  // Returns by the exception of the write that fails.
  asio::awaitable<void> sendEndlessly(Connection& connection, std::string text, std::string repeated) {
    co_await send(connection, std::move(text));
    while (true) co_await send(connection, repeated);
  }

  asio::awaitable<void> wait(Connection& connection, std::chrono::milliseconds duration) {
    co_await waitUntil(connection, std::chrono::steady_clock::now() + duration);
  }

  asio::awaitable<void> waitUntil(Connection& connection, std::chrono::steady_clock::time_point end) {
    if (isStopping) throw std::runtime_error("the hub is being stopped");
    connection.timer.expires_at(end);
    co_await connection.timer.async_wait(use_awaitable);
  }

  std::uint64_t countConnection() {
    const std::lock_guard lock(mutex);
    return connectionCount++;
  }

  HubFault recordAndDecide(HubRequest& request) {
    std::function<std::optional<HubFault>(const HubRequest&)> faults;
    {
      const std::lock_guard lock(mutex);
      request.number = log.size();
      log.push_back(request);
      faults = options.faults;
    }
    return (faults ? faults(request) : std::nullopt).value_or(HubFault{});
  }

  Options options;
  LabCertificate certificate;
  HubSite site;
  std::mutex mutex;
  std::vector<HubRequest> log;
  std::uint64_t connectionCount = 0;

  asio::ssl::context tls = serverContext(certificate);
  asio::io_context context{1};
  tcp::acceptor acceptor{context, tcp::endpoint(asio::ip::address_v4::loopback(), options.port)};
  asio::steady_timer acceptTimer{context};
  std::list<Connection> connections;
  bool isStopping = false;
  std::thread thread;
};

LocalHub::LocalHub(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
LocalHub::~LocalHub() = default;

std::string LocalHub::baseURL() const { return fmt::format("https://localhost:{}", impl_->site.port); }

const std::string& LocalHub::caFile() const { return impl_->options.caFilePath; }

std::uint16_t LocalHub::port() const { return impl_->site.port; }

std::vector<HubRequest> LocalHub::requests() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->log;
}

void LocalHub::clearRequests() {
  const std::lock_guard lock(impl_->mutex);
  impl_->log.clear();
}

std::uint64_t LocalHub::connectionCount() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->connectionCount;
}

void LocalHub::setFaults(std::function<std::optional<HubFault>(const HubRequest&)> faults) {
  const std::lock_guard lock(impl_->mutex);
  impl_->options.faults = std::move(faults);
}

}  // namespace vellicor
