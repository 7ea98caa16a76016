#include "VellicorRepackCore/Remote/CurlTransport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <curl/curl.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/NetworkRoute.h"
#include "VellicorRepackCore/Base/NetworkSentences.h"
#include "VellicorRepackCore/Remote/CurlFailure.h"
#include "VellicorRepackCore/Remote/EnvironmentProxy.h"
#include "VellicorRepackCore/Remote/HandshakeWatch.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Code = NetworkError::Code;

constexpr long receiveBufferBytes = 524288;
// libcurl takes 16384 bytes for the line of a proxy's head, and reports a longer one as a lost connection.
constexpr std::size_t longestProxyLine = 16000;
constexpr std::chrono::seconds connectivityPollInterval{1};
// Should a wake-up fail, a stop is seen this late.
constexpr Seconds longestPoll{1.0};

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

void require(CURLMcode code) {
  if (code == CURLM_OK) return;
  if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
  throw NetworkError(Code::other, fmt::format("libcurl cannot go on: {}", curl_multi_strerror(code)));
}

long numberOf(CURL* easy, CURLINFO info) {
  long number = 0;
  return curl_easy_getinfo(easy, info, &number) == CURLE_OK ? number : 0;
}

// Whether the transfer has come to that event.
bool hasReached(CURL* easy, CURLINFO event) {
  curl_off_t microseconds = 0;
  return curl_easy_getinfo(easy, event, &microseconds) == CURLE_OK && microseconds > 0;
}

// Shared by all hops of a transport.
struct HopSettings {
  std::optional<std::string> caFile{};
  std::size_t maximumHeaderBytes = 0;
  unsigned long proxyAuthentication = CURLAUTH_ANY;
};

// One attempt at one hop: the state of libcurl's callbacks, which must not throw.
class Hop {
 public:
  /// The watch outlives the hop's connection.
  Hop(const HttpRequest& request, const HttpHopLimits& limits, HttpObserver& observer,
      const CancellationToken& stop, const HopSettings& settings, HandshakeWatch& handshakes)
      : request_(request),
        limits_(limits),
        observer_(observer),
        stop_(stop),
        settings_(settings),
        handshakes_(handshakes),
        proxy_(EnvironmentProxy::forURL(request.url)) {
    handshakes_.forget();
  }

  void configure(CURL* easy);

  /// Throws what a callback ended the hop with, and when a stop is asked for.
  void throwIfBrokenOff() const;
  /// Until the hop is given up; throws when that time has come.
  Seconds timeLeft() const;
  bool isHeadDelivered() const { return isHeadDelivered_; }
  NetworkError failure(CURLcode curlCode) const;
  /// Whether the proxy has refused what was taken of the ways to log in that it offers, and offers others.
  bool mayLogInOtherwise() const;

 private:
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* hop);
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* hop);
  static int onConnected(void* hop, char* address, char* localAddress, int port, int localPort);
  static int onProgress(void* hop, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
  static CURLcode onTls(CURL* easy, void* tlsContext, void* hop);
  static curl_socket_t openSocket(void* hop, curlsocktype purpose, curl_sockaddr* address);

  void configureTls(CURL* easy);
  void configureProxy(CURL* easy);
  void configureCallbacks(CURL* easy);
  template <typename Action>
  bool isTaken(Action action);
  void checkPace();
  void takeHeaderLine(std::string_view line);
  void takeProxyHead();
  void deliverHead();
  bool isAtProxy() const { return proxy_ && !isAtServer_; }
  HopPeer peer() const;

  const HttpRequest& request_;
  const HttpHopLimits& limits_;
  HttpObserver& observer_;
  const CancellationToken& stop_;
  const HopSettings& settings_;
  HandshakeWatch& handshakes_;
  std::optional<EnvironmentProxy> proxy_;
  CURL* easy_ = nullptr;
  List headers_;
  int socketError_ = 0;
  // The errno that libcurl kept from before the newest handshake or proxy's head, from attempts to connect
  // for example.
  long earlierError_ = 0;
  // Whether the server, and no longer the proxy, answers on the newest connection.
  bool isAtServer_ = false;
  int proxyStatus_ = 0;
  // Bytes of a proxy's answer since the last line of its head.
  std::size_t readsSinceLine_ = 0;
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

// libcurl shares this time out among a host's addresses; 0 would mean its own default.
long connectMilliseconds(Seconds idleTimeout) {
  return std::lround(std::clamp(idleTimeout.count() * 1000, 1.0, 86400000.0));
}

void Hop::configure(CURL* easy) {
  easy_ = easy;
  headers_ = headerList(request_.headers);
  set(easy, CURLOPT_URL, request_.url.string().c_str());
  set(easy, CURLOPT_PATH_AS_IS, 1L);
  set(easy, CURLOPT_PROTOCOLS_STR, "https");
  set(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  if (request_.method != "GET") set(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  if (request_.method == "HEAD") set(easy, CURLOPT_NOBODY, 1L);
  set(easy, CURLOPT_HTTPHEADER, headers_.get());
  // CURLOPT_NOSIGNAL stays off: libcurl then keeps SIGPIPE from the process itself. Its resolver has a thread
  // of its own, so it uses no alarm.
  set(easy, CURLOPT_QUICK_EXIT, 1L);
  set(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  set(easy, CURLOPT_CONNECTTIMEOUT_MS, connectMilliseconds(limits_.idleTimeout));
  // Refused, without harm, while the buffer of a hop that failed early is still there.
  static_cast<void>(curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, receiveBufferBytes));
  configureTls(easy);
  configureProxy(easy);
  configureCallbacks(easy);
}

void Hop::configureTls(CURL* easy) {
  set(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  set(easy, CURLOPT_PROXY_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(easy, CURLOPT_PROXY_SSL_VERIFYPEER, 1L);
  set(easy, CURLOPT_PROXY_SSL_VERIFYHOST, 2L);
  if (settings_.caFile) {
    for (const CURLoption file : {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO})
      set(easy, file, settings_.caFile->c_str());
    for (const CURLoption folder : {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH}) {
      set(easy, folder, static_cast<const char*>(nullptr));
    }
  }
  // Other TLS libraries may not know the option; the watch sees nothing then.
  static_cast<void>(curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &onTls));
  static_cast<void>(curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this));
}

// An empty text keeps libcurl from the environment, which has been read already.
void Hop::configureProxy(CURL* easy) {
  set(easy, CURLOPT_PROXY, proxy_ ? proxy_->url.c_str() : "");
  set(easy, CURLOPT_NOPROXY, "");
  set(easy, CURLOPT_PROXYAUTH, settings_.proxyAuthentication);
}

void Hop::configureCallbacks(CURL* easy) {
  set(easy, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
  set(easy, CURLOPT_OPENSOCKETDATA, this);
  set(easy, CURLOPT_PREREQFUNCTION, &onConnected);
  set(easy, CURLOPT_PREREQDATA, this);
  set(easy, CURLOPT_HEADERFUNCTION, &onHeader);
  set(easy, CURLOPT_HEADERDATA, this);
  set(easy, CURLOPT_WRITEFUNCTION, &onBody);
  set(easy, CURLOPT_WRITEDATA, this);
  set(easy, CURLOPT_XFERINFOFUNCTION, &onProgress);
  set(easy, CURLOPT_XFERINFODATA, this);
  set(easy, CURLOPT_NOPROGRESS, 0L);
}

// Any other count than that of the bytes makes libcurl break the hop off.
std::size_t Hop::onHeader(char* data, std::size_t size, std::size_t count, void* hop) {
  auto* self = static_cast<Hop*>(hop);
  const std::size_t bytes = size * count;
  if (!self->isTaken([&] { self->takeHeaderLine({data, bytes}); })) return bytes == 0 ? 1 : 0;
  self->lastSign_ = Clock::now();
  return bytes;
}

std::size_t Hop::onBody(char* data, std::size_t size, std::size_t count, void* hop) {
  auto* self = static_cast<Hop*>(hop);
  const std::size_t bytes = size * count;
  if (!self->isTaken([&] { self->observer_.onData(std::as_bytes(std::span(data, bytes))); })) {
    return bytes == 0 ? 1 : 0;
  }
  self->lastSign_ = Clock::now();
  return bytes;
}

// libcurl also asks for each byte that it reads of a proxy's answer, of which it drops what is no head.
int Hop::onProgress(void* hop, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto* self = static_cast<Hop*>(hop);
  return self->isTaken([&] { self->checkPace(); }) ? 0 : 1;
}

void Hop::checkPace() {
  static_cast<void>(timeLeft());
  if (!isAtProxy()) return;
  const std::size_t most = proxyStatus_ == 0 ? std::min(longestProxyLine, settings_.maximumHeaderBytes)
                                             : settings_.maximumHeaderBytes;
  if (++readsSinceLine_ <= most) return;
  if (proxyStatus_ == 0) throw headTooLarge(request_.url, peer());
  throw urlError(Code::other, network_sentences::answerTooLarge, request_.url, peer());
}

// Whether the action threw nothing, and no stop is asked for.
template <typename Action>
bool Hop::isTaken(Action action) {
  try {
    throwIfBrokenOff();
    action();
  } catch (...) {
    refusal_ = std::current_exception();
    return false;
  }
  return true;
}

int Hop::onConnected(void* hop, char*, char*, int, int) {
  auto* self = static_cast<Hop*>(hop);
  self->lastSign_ = Clock::now();
  self->isAtServer_ = true;
  self->headerBytes_ = 0;
  return CURL_PREREQFUNC_OK;
}

CURLcode Hop::onTls(CURL*, void* tlsContext, void* hop) {
  auto* self = static_cast<Hop*>(hop);
  self->handshakes_.begin(tlsContext);
  self->earlierError_ = numberOf(self->easy_, CURLINFO_OS_ERRNO);
  // A SOCKS proxy shows in no head that its tunnel is open.
  if (self->proxy_ && !self->proxy_->isHttp) self->isAtServer_ = true;
  return CURLE_OK;
}

// On a new connection, a proxy comes first again.
curl_socket_t Hop::openSocket(void* hop, curlsocktype, curl_sockaddr* address) {
  auto* self = static_cast<Hop*>(hop);
  const int descriptor = ::socket(address->family, address->socktype, address->protocol);
  if (descriptor < 0) {
    self->socketError_ = errno;
    return CURL_SOCKET_BAD;
  }
  self->isAtServer_ = !self->proxy_;
  self->proxyStatus_ = 0;
  self->lines_.clear();
  ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  return descriptor;
}

void Hop::takeHeaderLine(std::string_view line) {
  if (line.size() > settings_.maximumHeaderBytes - headerBytes_) throw headTooLarge(request_.url, peer());
  headerBytes_ += line.size();
  readsSinceLine_ = 0;
  if (isHeadDelivered_) return;  // Trailers of a chunked body.
  line = line.substr(0, line.find_last_not_of("\r\n") + 1);
  if (line.empty()) {
    isAtServer_ ? deliverHead() : takeProxyHead();
  } else if (line.starts_with("HTTP/")) {
    lines_ = {std::string(line)};
  } else if ((line.front() == ' ' || line.front() == '\t') && !lines_.empty()) {
    lines_.back().append(" ").append(trimmedWhitespace(line));
  } else {
    lines_.emplace_back(line);
  }
}

// libcurl itself answers a proxy that asks for a password; only the last of its heads counts.
void Hop::takeProxyHead() {
  earlierError_ = numberOf(easy_, CURLINFO_OS_ERRNO);
  const std::vector<std::string> head = std::exchange(lines_, {});
  if (head.empty() || !head.front().starts_with("HTTP/")) throw notHttp(request_.url, peer());
  proxyStatus_ = statusOf(head.front());
  isAtServer_ = proxyStatus_ >= 200 && proxyStatus_ < 300;
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

HopPeer Hop::peer() const { return {.proxy = proxy_ ? proxy_->authority : "", .isProxy = isAtProxy()}; }

NetworkError Hop::failure(CURLcode curlCode) const {
  const long error = numberOf(easy_, CURLINFO_OS_ERRNO);
  return CurlFailure{.code = curlCode,
                     .peer = peer(),
                     .connectError = static_cast<int>(error),
                     .lossError = error == earlierError_ ? 0 : static_cast<int>(error),
                     .socketError = socketError_,
                     .proxyStatus = proxyStatus_,
                     .isWithinHead = !isHeadDelivered_ && hasReached(easy_, CURLINFO_STARTTRANSFER_TIME_T),
                     .isHandshakeCutOff = handshakes_.isCutOff(),
                     .handshakeReason = handshakes_.reason(),
                     .verifyResult = numberOf(
                         easy_, isAtProxy() ? CURLINFO_PROXY_SSL_VERIFYRESULT : CURLINFO_SSL_VERIFYRESULT),
                     .caFile = settings_.caFile.value_or(""),
                     .idleTimeout = limits_.idleTimeout}
      .networkError(request_.url);
}

bool Hop::mayLogInOtherwise() const {
  const auto offered = static_cast<unsigned long>(numberOf(easy_, CURLINFO_PROXYAUTH_AVAIL));
  const bool isTaken = (offered & settings_.proxyAuthentication & CURLAUTH_NEGOTIATE) != 0;
  return proxyStatus_ == 407 && isTaken && (offered & ~CURLAUTH_NEGOTIATE) != 0;
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
    throw urlError(Code::timedOut, network_sentences::outOfTime, request_.url, peer());
  }
  if (untilIdle <= Seconds::zero()) throw noAnswer(request_.url, peer(), limits_.idleTimeout);
  return std::min(untilIdle, untilDeadline);
}

// Ends the easy handle's part in a hop: out of the multi handle, and nothing in it that points into the hop.
// Taken out before its transfer has ended, its connection is closed instead of kept.
class HandleRelease {
 public:
  /// `isUsable` becomes false should libcurl not let go.
  HandleRelease(CURLM* multi, CURL* easy, bool& isUsable) : multi_(multi), easy_(easy), isUsable_(isUsable) {}
  ~HandleRelease() {
    isUsable_ = curl_multi_remove_handle(multi_, easy_) == CURLM_OK;
    curl_easy_reset(easy_);
  }
  HandleRelease(const HandleRelease&) = delete;
  HandleRelease& operator=(const HandleRelease&) = delete;

 private:
  CURLM* multi_;
  CURL* easy_;
  bool& isUsable_;
};

// Refuses a second thread, and an observer that comes back.
class OneAtATime {
 public:
  explicit OneAtATime(std::atomic_flag& isTaken) : isTaken_(isTaken) {
    if (isTaken_.test_and_set(std::memory_order_acquire)) {
      throw std::logic_error("a transport performs one hop at a time, for one thread");
    }
  }
  ~OneAtATime() { isTaken_.clear(std::memory_order_release); }
  OneAtATime(const OneAtATime&) = delete;
  OneAtATime& operator=(const OneAtATime&) = delete;

 private:
  std::atomic_flag& isTaken_;
};

bool isLoopback(const std::string& host) {
  return host == "localhost" || host == "[::1]" || host.starts_with("127.");
}

void initializeLibrary() {
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (result != CURLE_OK) throw NetworkError(Code::other, "libcurl could not be initialised");
}

// What comes first on a kept connection and is no HTTP may be the end of an earlier answer that was longer
// than it said, or of one to HEAD that should have had no body.
bool mayBeOfEarlierAnswer(CURL* easy, CURLcode code) {
  const bool isNoHttp = code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_WEIRD_SERVER_REPLY;
  return isNoHttp && numberOf(easy, CURLINFO_NUM_CONNECTS) == 0;
}

int pollMilliseconds(Seconds duration) {
  return static_cast<int>(std::ceil(std::min(duration, longestPoll).count() * 1000));
}

}  // namespace

struct CurlTransport::Impl {
  explicit Impl(Options transportOptions)
      : settings{.caFile = std::move(transportOptions.caFile),
                 .maximumHeaderBytes = transportOptions.maximumHeaderBytes},
        hasNetwork(std::move(transportOptions.hasNetwork)) {
    initializeLibrary();
    makeHandles();
    if (!hasNetwork) hasNetwork = hasDefaultRoute;
  }

  struct Failure {
    NetworkError error;
    bool mayBeOfEarlierAnswer = false;
    bool mayLogInOtherwise = false;
  };
  void makeEasy();
  void makeHandles();
  std::optional<Failure> attempt(Hop& hop);
  CURLcode run(const Hop& hop);
  bool shouldWaitForNetwork(const NetworkError& failure, const HttpRequest& request,
                            const HttpHopLimits& limits) const;

  HopSettings settings;
  std::function<bool()> hasNetwork;
  std::atomic_flag isTaken = ATOMIC_FLAG_INIT;
  HandshakeWatch handshakes;
  Multi multi;
  Easy easy;
  bool isUsable = false;
};

void CurlTransport::Impl::makeEasy() {
  easy.reset(curl_easy_init());
  if (!easy) throw std::bad_alloc();
}

void CurlTransport::Impl::makeHandles() {
  makeEasy();
  multi.reset(curl_multi_init());
  if (!multi) throw std::bad_alloc();
  isUsable = true;
}

// The failure that libcurl reports, if any.
std::optional<CurlTransport::Impl::Failure> CurlTransport::Impl::attempt(Hop& hop) {
  // Some versions of libcurl keep the errno of earlier hops. Connections are the multi handle's.
  if (numberOf(easy.get(), CURLINFO_OS_ERRNO) != 0) makeEasy();
  const HandleRelease release(multi.get(), easy.get(), isUsable);
  hop.configure(easy.get());
  require(curl_multi_add_handle(multi.get(), easy.get()));
  const CURLcode result = run(hop);
  const bool hasEnded = result == CURLE_OK || result == CURLE_PARTIAL_FILE;
  if (hasEnded && hop.isHeadDelivered()) return std::nullopt;
  return Failure{hop.failure(result), mayBeOfEarlierAnswer(easy.get(), result), hop.mayLogInOtherwise()};
}

CURLcode CurlTransport::Impl::run(const Hop& hop) {
  while (true) {
    hop.throwIfBrokenOff();
    int count = 0;
    require(curl_multi_perform(multi.get(), &count));
    hop.throwIfBrokenOff();
    const CURLMsg* message = curl_multi_info_read(multi.get(), &count);
    if (message != nullptr && message->msg == CURLMSG_DONE) return message->data.result;
    require(curl_multi_poll(multi.get(), nullptr, 0, pollMilliseconds(hop.timeLeft()), nullptr));
  }
}

bool CurlTransport::Impl::shouldWaitForNetwork(const NetworkError& failure, const HttpRequest& request,
                                               const HttpHopLimits& limits) const {
  const bool isUnreached = failure.code() == Code::cannotConnect || failure.code() == Code::nameResolution;
  return isUnreached && limits.waitsForConnectivity && !isLoopback(request.url.host()) && !hasNetwork();
}

CurlTransport::CurlTransport(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
CurlTransport::~CurlTransport() = default;

void CurlTransport::perform(const HttpRequest& request, const HttpHopLimits& limits, HttpObserver& observer,
                            const CancellationToken& stop) {
  if (request.url.scheme() != "https") {
    throw urlError(Code::other, network_sentences::onlyHttps, request.url);
  }
  const OneAtATime turn(impl_->isTaken);
  if (!impl_->isUsable) impl_->makeHandles();
  const long mostConnections = std::max(1, limits.maximumConnectionsPerHost);
  require(curl_multi_setopt(impl_->multi.get(), CURLMOPT_MAX_HOST_CONNECTIONS, mostConnections));
  const CancellationCallback wakeUp(stop,
                                    [this] { static_cast<void>(curl_multi_wakeup(impl_->multi.get())); });
  while (true) {
    Hop hop(request, limits, observer, stop, impl_->settings, impl_->handshakes);
    const auto failure = impl_->attempt(hop);
    if (!failure) return;
    if (failure->mayLogInOtherwise) {
      impl_->settings.proxyAuthentication &= ~CURLAUTH_NEGOTIATE;
      continue;
    }
    // libcurl has closed the connection; the next one is new. The methods sent here may be sent twice.
    if (failure->mayBeOfEarlierAnswer) continue;
    if (!impl_->shouldWaitForNetwork(failure->error, request, limits)) throw NetworkError(failure->error);
    sleepUnlessCancelled(std::min<Clock::duration>(connectivityPollInterval, limits.deadline - Clock::now()),
                         stop);
    if (Clock::now() >= limits.deadline) {
      throw urlError(Code::offline, network_sentences::noNetwork, request.url);
    }
  }
}

}  // namespace vellicor
