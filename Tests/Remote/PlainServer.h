#pragma once

#include <atomic>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Tests/Support/Expect.h"

namespace vellicor::testing {

/// A free port of the loopback. Each client, one after another, is handed to `serve` together with the first
/// bytes that it sends, and closed after that; without a `serve`, clients are left waiting.
class PlainServer {
 public:
  using Serve = std::function<void(int client, const std::string& first)>;

  explicit PlainServer(Serve serve = nullptr) : listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const bool isUp = ::bind(listener_, generic, size) == 0 && ::listen(listener_, 8) == 0 &&
                      ::getsockname(listener_, generic, &size) == 0;
    EXPECT_TRUE(isUp);
    port_ = ntohs(address.sin_port);
    if (serve) thread_ = std::thread([this, serve = std::move(serve)] { acceptClients(serve); });
  }
  ~PlainServer() {
    isStopping_ = true;
    if (thread_.joinable()) {
      ::close(connected(port_));  // Wakes the thread.
      thread_.join();
    }
    ::close(listener_);
  }
  PlainServer(const PlainServer&) = delete;
  PlainServer& operator=(const PlainServer&) = delete;

  std::uint16_t port() const { return port_; }
  std::string authority(const std::string& host = "127.0.0.1") const {
    return host + ":" + std::to_string(port_);
  }

  /// Whether the other side took it all.
  static bool send(int client, const std::string& text) {
    return ::send(client, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  static std::string receive(int client) {
    std::string bytes(65536, '\0');
    bytes.resize(
        static_cast<std::size_t>(std::max<ssize_t>(0, ::recv(client, bytes.data(), bytes.size(), 0))));
    return bytes;
  }
  /// The connection's close is then a reset.
  static void resetAtClose(int client) {
    const linger hard{.l_onoff = 1, .l_linger = 0};
    EXPECT_EQ(::setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
  }
  /// Passes bytes on between the client and a port of the loopback until either side closes.
  static void relay(int client, std::uint16_t port) {
    const int server = connected(port);
    pollfd sides[] = {{.fd = client, .events = POLLIN, .revents = 0},
                      {.fd = server, .events = POLLIN, .revents = 0}};
    while (::poll(sides, 2, -1) > 0) {
      const bool isFromClient = sides[0].revents != 0;
      const std::string bytes = receive(isFromClient ? client : server);
      if (bytes.empty() || !send(isFromClient ? server : client, bytes)) break;
    }
    ::close(server);
  }

 private:
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }
  static int connected(std::uint16_t port) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return descriptor;
  }
  void acceptClients(const Serve& serve) {
    while (true) {
      const int client = ::accept(listener_, nullptr, nullptr);
      if (!isStopping_ && client >= 0) serve(client, receive(client));
      if (client >= 0) ::close(client);
      if (isStopping_) return;
    }
  }

  int listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

}  // namespace vellicor::testing
