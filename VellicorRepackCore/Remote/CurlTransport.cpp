#include "VellicorRepackCore/Remote/CurlTransport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>
#include <string_view>
#include <vector>

#include <curl/curl.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/CurlFailure.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Code = NetworkError::Code;

constexpr long receiveBufferBytes = 524288;
constexpr std::chrono::seconds connectivityPollInterval{1};
constexpr Seconds longestPoll{60.0};

template <auto free>
struct Free {
  template <typename T>
  void operator()(T* object) const noexcept {
    free(object);
  }
};
using Multi = std::unique_ptr<CURLM, Free<curl_multi_cleanup>>;
using Easy = std::unique_ptr<CURL, Free<curl_easy_cleanup>>;
using List = std::unique_ptr<curl_slist, Free<curl_slist_free_all>>;

template <typename T>
void set(CURL* easy, CURLoption option, T value) {
  const CURLcode code = curl_easy_setopt(easy, option, value);
  if (code == CURLE_OK) return;
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  throw NetworkError(Code::other,
                     fmt::format("libcurl refuses an option that is needed: {}", curl_easy_strerror(code)));
}

// One attempt at one hop: what libcurl's callbacks, which must not throw, need and leave behind.
class Hop {
 public:
  Hop(const HttpRequest& request, const HttpHopLimits& limits, HttpObserver& observer,
      const std::stop_token& stop, std::size_t maximumHeaderBytes)
      : request_(request),
        limits_(limits),
        observer_(observer),
        stop_(stop),
        maximumHeaderBytes_(maximumHeaderBytes) {}

  void configure(CURL* easy, const std::optional<std::string>& caFile);

  /// Throws what a callback ended the hop with, and when a stop is asked for.
  void throwIfBrokenOff() const;
  /// Until the hop is given up; throws when that time has come.
  Seconds timeLeft() const;
  bool isHeadDelivered() const { return isHeadDelivered_; }
  NetworkError failure(CURL* easy, CURLcode curlCode) const;

 private:
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* hop);
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* hop);
  static int onConnected(void* hop, char* address, char* localAddress, int port, int localPort);
  static curl_socket_t openSocket(void* hop, curlsocktype purpose, curl_sockaddr* address);

  template <typename Action>
  std::size_t received(std::size_t bytes, Action action);
  void takeHeaderLine(std::string_view line);
  void deliverHead();

  const HttpRequest& request_;
  const HttpHopLimits& limits_;
  HttpObserver& observer_;
  const std::stop_token& stop_;
  std::size_t maximumHeaderBytes_;
  List headers_;
  std::string caFile_;
  std::array<char, CURL_ERROR_SIZE> errorText_{};
  int socketError_ = 0;
  Clock::time_point lastSign_ = Clock::now();
  std::size_t headerBytes_ = 0;
  // The newest header block: its status line, then one entry per field.
  std::vector<std::string> lines_;
  bool isHeadDelivered_ = false;
  std::exception_ptr refusal_;
};

int statusOf(std::string_view statusLine) {
  int status = 0;
  const std::string_view digits = statusLine.substr(std::min(statusLine.find(' '), statusLine.size()));
  if (!digits.empty()) std::from_chars(digits.data() + 1, digits.data() + digits.size(), status);
  return status;
}

List headerList(const HttpHeaders& headers) {
  List list;
  const auto append = [&](const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    static_cast<void>(list.release());
    list.reset(longer);
  };
  if (!headers.get("User-Agent")) append("User-Agent: VellicorRepack/1.0");
  for (const auto& [name, value] : headers.fields()) {
    // libcurl spells a field without a value with a semicolon.
    append(value.empty() ? name + ";" : fmt::format("{}: {}", name, value));
  }
  return list;
}

// An abrupt end of stream is then an end like any other, and counting bytes finds what is missing.
CURLcode acceptAbruptEnd(CURL*, void* context, void*) {
  SSL_CTX_set_options(static_cast<SSL_CTX*>(context), SSL_OP_IGNORE_UNEXPECTED_EOF);
  return CURLE_OK;
}

// Whether libcurl's TLS contexts are those of the OpenSSL that is linked here.
bool sharesOpenSsl() {
  const char* backend = curl_version_info(CURLVERSION_NOW)->ssl_version;
  return backend != nullptr &&
         std::string_view(backend).starts_with(fmt::format("OpenSSL/{}.", OPENSSL_version_major()));
}

// libcurl shares this time out among a host's addresses; 0 would mean its own default.
long connectMilliseconds(Seconds idleTimeout) {
  return std::lround(std::clamp(idleTimeout.count() * 1000, 1.0, 86400000.0));
}

void Hop::configure(CURL* easy, const std::optional<std::string>& caFile) {
  headers_ = headerList(request_.headers);
  caFile_ = caFile.value_or("");
  set(easy, CURLOPT_URL, request_.url.string().c_str());
  set(easy, CURLOPT_PATH_AS_IS, 1L);
  set(easy, CURLOPT_PROTOCOLS_STR, "https");
  set(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  if (request_.method != "GET") set(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  if (request_.method == "HEAD") set(easy, CURLOPT_NOBODY, 1L);
  set(easy, CURLOPT_HTTPHEADER, headers_.get());

  set(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (caFile) {
    set(easy, CURLOPT_CAINFO, caFile->c_str());
    set(easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }
  if (sharesOpenSsl()) set(easy, CURLOPT_SSL_CTX_FUNCTION, &acceptAbruptEnd);

  // CURLOPT_NOSIGNAL stays off: libcurl then keeps SIGPIPE from the process itself. Its resolver has a thread
  // of its own, so it uses no alarm.
  set(easy, CURLOPT_QUICK_EXIT, 1L);
  set(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  set(easy, CURLOPT_CONNECTTIMEOUT_MS, connectMilliseconds(limits_.idleTimeout));
  // Refused, without harm, while the buffer of a hop that failed early is still there.
  static_cast<void>(curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, receiveBufferBytes));
  set(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(easy, CURLOPT_ERRORBUFFER, errorText_.data());
  set(easy, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
  set(easy, CURLOPT_OPENSOCKETDATA, this);
  set(easy, CURLOPT_PREREQFUNCTION, &onConnected);
  set(easy, CURLOPT_PREREQDATA, this);
  set(easy, CURLOPT_HEADERFUNCTION, &onHeader);
  set(easy, CURLOPT_HEADERDATA, this);
  set(easy, CURLOPT_WRITEFUNCTION, &onBody);
  set(easy, CURLOPT_WRITEDATA, this);
}

std::size_t Hop::onHeader(char* data, std::size_t size, std::size_t count, void* hop) {
  auto* self = static_cast<Hop*>(hop);
  return self->received(size * count, [&] { self->takeHeaderLine({data, size * count}); });
}

std::size_t Hop::onBody(char* data, std::size_t size, std::size_t count, void* hop) {
  auto* self = static_cast<Hop*>(hop);
  return self->received(size * count,
                        [&] { self->observer_.onData(std::as_bytes(std::span(data, size * count))); });
}

// Any other count than `bytes` makes libcurl break the hop off.
template <typename Action>
std::size_t Hop::received(std::size_t bytes, Action action) {
  try {
    throwIfCancelled(stop_);
    action();
  } catch (...) {
    refusal_ = std::current_exception();
    return bytes == 0 ? 1 : 0;
  }
  lastSign_ = Clock::now();
  return bytes;
}

int Hop::onConnected(void* hop, char*, char*, int, int) {
  static_cast<Hop*>(hop)->lastSign_ = Clock::now();
  return CURL_PREREQFUNC_OK;
}

curl_socket_t Hop::openSocket(void* hop, curlsocktype, curl_sockaddr* address) {
  const int descriptor = ::socket(address->family, address->socktype, address->protocol);
  if (descriptor < 0) {
    static_cast<Hop*>(hop)->socketError_ = errno;
    return CURL_SOCKET_BAD;
  }
  ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  return descriptor;
}

void Hop::takeHeaderLine(std::string_view line) {
  if (line.size() > maximumHeaderBytes_ - headerBytes_) throw headTooLarge(request_.url);
  headerBytes_ += line.size();
  if (isHeadDelivered_) return;  // Trailers of a chunked body.
  line = line.substr(0, line.find_last_not_of("\r\n") + 1);
  if (line.empty()) {
    deliverHead();
  } else if (line.starts_with("HTTP/")) {
    lines_ = {std::string(line)};
  } else if ((line.front() == ' ' || line.front() == '\t') && !lines_.empty()) {
    lines_.back().append(" ").append(trimmedWhitespace(line));
  } else {
    lines_.emplace_back(line);
  }
}

void Hop::deliverHead() {
  HttpResponseHead head{
      .url = request_.url, .status = lines_.empty() ? 0 : statusOf(lines_.front()), .headers = {}};
  if (head.status >= 100 && head.status < 200) return;
  for (std::size_t i = 1; i < lines_.size(); ++i) {
    const std::string_view line = lines_[i];
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    head.headers.add(line.substr(0, colon), trimmedWhitespace(line.substr(colon + 1)));
  }
  isHeadDelivered_ = true;
  observer_.onResponse(head);
}

NetworkError Hop::failure(CURL* easy, CURLcode curlCode) const {
  CurlFailure failure{.code = curlCode,
                      .text = errorText_.data(),
                      .socketError = socketError_,
                      .isWithinHead = !lines_.empty() && !isHeadDelivered_,
                      .caFile = caFile_,
                      .idleTimeout = limits_.idleTimeout};
  curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &failure.connectError);
  curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &failure.proxyStatus);
  return failure.networkError(request_.url);
}

void Hop::throwIfBrokenOff() const {
  if (refusal_) std::rethrow_exception(refusal_);
  throwIfCancelled(stop_);
}

Seconds Hop::timeLeft() const {
  const Clock::time_point now = Clock::now();
  const Seconds untilIdle = limits_.idleTimeout - (now - lastSign_);
  const Seconds untilDeadline = limits_.deadline - now;
  if (untilDeadline <= Seconds::zero()) {
    throw urlError(Code::timedOut, "the exchange with {0} did not end within its time ({2})", request_.url);
  }
  if (untilIdle <= Seconds::zero()) throw noAnswer(request_.url, limits_.idleTimeout);
  return std::min(untilIdle, untilDeadline);
}

// Ends the easy handle's part in a hop: out of the multi handle, and nothing in it that points into the hop.
// Taken out before its transfer has ended, its connection is closed instead of kept.
class HandleRelease {
 public:
  HandleRelease(CURLM* multi, CURL* easy) : multi_(multi), easy_(easy) {}
  ~HandleRelease() {
    curl_multi_remove_handle(multi_, easy_);
    curl_easy_reset(easy_);
  }
  HandleRelease(const HandleRelease&) = delete;
  HandleRelease& operator=(const HandleRelease&) = delete;

 private:
  CURLM* multi_;
  CURL* easy_;
};

bool isLoopback(const std::string& host) {
  return host == "localhost" || host == "[::1]" || host.starts_with("127.");
}

// Link-local addresses lead nowhere; some systems always have them.
bool isRoutable(const sockaddr* address) {
  if (address == nullptr) return false;
  if (address->sa_family == AF_INET) return true;
  if (address->sa_family != AF_INET6) return false;
  sockaddr_in6 v6{};
  std::memcpy(&v6, address, sizeof(v6));
  return v6.sin6_addr.s6_addr[0] != 0xFE || (v6.sin6_addr.s6_addr[1] & 0xC0) != 0x80;
}

bool hasNetworkInterface() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return true;
  const std::unique_ptr<ifaddrs, Free<freeifaddrs>> owned(first);
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    const bool isUp = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
    const bool isLoopbackInterface = (entry->ifa_flags & IFF_LOOPBACK) != 0;
    if (isUp && !isLoopbackInterface && isRoutable(entry->ifa_addr)) return true;
  }
  return false;
}

void initializeLibrary() {
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (result != CURLE_OK) throw NetworkError(Code::other, "libcurl could not be initialised");
}

// What comes first on a kept connection and is no HTTP may be the end of an earlier answer that was longer
// than it said, or of one to HEAD that should have had no body.
bool mayBeOfEarlierAnswer(CURL* easy, CURLcode code) {
  long newConnections = 0;
  curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &newConnections);
  const bool isNoHttp = code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_WEIRD_SERVER_REPLY;
  return isNoHttp && newConnections == 0;
}

int pollMilliseconds(Seconds duration) {
  return static_cast<int>(std::ceil(std::min(duration, longestPoll).count() * 1000));
}

}  // namespace

struct CurlTransport::Impl {
  explicit Impl(Options transportOptions) : options(std::move(transportOptions)) {
    initializeLibrary();
    multi.reset(curl_multi_init());
    easy.reset(curl_easy_init());
    if (!multi || !easy) throw std::bad_alloc();
    curl_multi_setopt(multi.get(), CURLMOPT_MAX_HOST_CONNECTIONS, 1L);
    if (!options.hasNetwork) options.hasNetwork = hasNetworkInterface;
  }

  struct Failure {
    NetworkError error;
    bool mayBeOfEarlierAnswer = false;
  };
  std::optional<Failure> attempt(Hop& hop);
  CURLcode run(const Hop& hop);
  bool shouldWaitForNetwork(const NetworkError& failure, const HttpRequest& request,
                            const HttpHopLimits& limits) const;

  Options options;
  Multi multi;
  Easy easy;
};

// The failure that libcurl reports, if any.
std::optional<CurlTransport::Impl::Failure> CurlTransport::Impl::attempt(Hop& hop) {
  const HandleRelease release(multi.get(), easy.get());
  hop.configure(easy.get(), options.caFile);
  if (curl_multi_add_handle(multi.get(), easy.get()) != CURLM_OK) throw std::bad_alloc();
  const CURLcode result = run(hop);
  const bool hasEnded = result == CURLE_OK || result == CURLE_PARTIAL_FILE;
  if (hasEnded && hop.isHeadDelivered()) return std::nullopt;
  return Failure{hop.failure(easy.get(), result), mayBeOfEarlierAnswer(easy.get(), result)};
}

CURLcode CurlTransport::Impl::run(const Hop& hop) {
  while (true) {
    hop.throwIfBrokenOff();
    int count = 0;
    curl_multi_perform(multi.get(), &count);
    hop.throwIfBrokenOff();
    const CURLMsg* message = curl_multi_info_read(multi.get(), &count);
    if (message != nullptr && message->msg == CURLMSG_DONE) return message->data.result;
    curl_multi_poll(multi.get(), nullptr, 0, pollMilliseconds(hop.timeLeft()), nullptr);
  }
}

bool CurlTransport::Impl::shouldWaitForNetwork(const NetworkError& failure, const HttpRequest& request,
                                               const HttpHopLimits& limits) const {
  const bool isUnreached = failure.code() == Code::cannotConnect || failure.code() == Code::nameResolution;
  return isUnreached && limits.waitsForConnectivity && !isLoopback(request.url.host()) &&
         !options.hasNetwork();
}

CurlTransport::CurlTransport(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
CurlTransport::~CurlTransport() = default;

void CurlTransport::perform(const HttpRequest& request, const HttpHopLimits& limits, HttpObserver& observer,
                            const std::stop_token& stop) {
  if (request.url.scheme() != "https") {
    throw urlError(Code::other, "only HTTPS addresses are fetched ({2})", request.url);
  }
  const std::stop_callback wakeUp(stop, [this] { curl_multi_wakeup(impl_->multi.get()); });
  while (true) {
    Hop hop(request, limits, observer, stop, impl_->options.maximumHeaderBytes);
    const auto failure = impl_->attempt(hop);
    if (!failure) return;
    // libcurl has closed the connection; the next one is new. The methods sent here may be sent twice.
    if (failure->mayBeOfEarlierAnswer) continue;
    if (!impl_->shouldWaitForNetwork(failure->error, request, limits)) throw NetworkError(failure->error);
    sleepUnlessCancelled(std::min<Clock::duration>(connectivityPollInterval, limits.deadline - Clock::now()),
                         stop);
    if (Clock::now() >= limits.deadline) {
      throw urlError(Code::offline, "there is no network to reach {0} ({2})", request.url);
    }
  }
}

}  // namespace vellicor
