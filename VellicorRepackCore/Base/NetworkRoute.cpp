#include "VellicorRepackCore/Base/NetworkRoute.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>

#if defined(__APPLE__)
#include <array>
#include <cstring>

#include <net/route.h>
#include <sys/socket.h>
#include <sys/sysctl.h>
#else
#include <fstream>
#include <iterator>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace vellicor {

namespace {

using Fields = std::vector<std::string_view>;

/// As the kernel writes a route's flags into both tables.
constexpr std::uint32_t routeIsUp = 0x1;
constexpr std::uint32_t routeRejects = 0x200;

Fields fieldsOf(std::string_view line) {
  Fields fields;
  while (true) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    if (line.empty()) return fields;
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    fields.push_back(line.substr(0, end));
    line.remove_prefix(end);
  }
}

template <typename Take>
void forEachLine(std::string_view text, Take&& take) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    take(fieldsOf(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

bool isZero(std::string_view hexadecimal) {
  return !hexadecimal.empty() && hexadecimal.find_first_not_of('0') == std::string_view::npos;
}

bool forwards(std::string_view hexadecimalFlags) {
  std::uint32_t flags = 0;
  const char* const end = hexadecimalFlags.data() + hexadecimalFlags.size();
  if (std::from_chars(hexadecimalFlags.data(), end, flags, 16).ptr != end) return false;
  return (flags & routeIsUp) != 0 && (flags & routeRejects) == 0;
}

}  // namespace

std::vector<std::string> defaultRouteInterfacesV4(std::string_view procNetRoute) {
  enum Field : std::size_t { interface, destination, gateway, flags, references, uses, metric, mask };
  std::vector<std::string> found;
  forEachLine(procNetRoute, [&](const Fields& fields) {
    if (fields.size() <= mask || !isZero(fields[destination]) || !isZero(fields[mask])) return;
    // A route that drops packets has no interface.
    if (forwards(fields[flags]) && fields[interface] != "*") found.emplace_back(fields[interface]);
  });
  return found;
}

std::vector<std::string> defaultRouteInterfacesV6(std::string_view procNetIpv6Route) {
  enum Field : std::size_t {
    destination,
    prefix,
    source,
    sourcePrefix,
    nextHop,
    metric,
    references,
    uses,
    flags,
    interface
  };
  std::vector<std::string> found;
  forEachLine(procNetIpv6Route, [&](const Fields& fields) {
    if (fields.size() <= interface || !isZero(fields[destination]) || !isZero(fields[prefix])) return;
    // The kernel keeps a default route of its own on the loopback interface.
    if (forwards(fields[flags]) && fields[interface] != "lo") found.emplace_back(fields[interface]);
  });
  return found;
}

#if defined(__APPLE__)

namespace {

/// Addresses in a routing message are padded to multiples of this; one without length takes as much.
constexpr std::size_t addressAlignment = sizeof(std::uint32_t);

/// Reads one address of the message. The lengths are those that the kernel wrote: the bytes of a netmask
/// end with the last that is not zero.
std::string_view takeAddress(std::string_view& addresses) {
  const std::size_t length = addresses.empty() ? 0 : static_cast<unsigned char>(addresses[0]);
  const std::size_t padded =
      std::max(addressAlignment, (length + addressAlignment - 1) & ~(addressAlignment - 1));
  const std::string_view address = addresses.substr(0, std::min(length, addresses.size()));
  addresses.remove_prefix(std::min(padded, addresses.size()));
  return address;
}

/// Whether all that follows a socket address's length and family, or a netmask's, is zero.
bool isUnspecified(std::string_view address) {
  constexpr std::size_t headBytes = 2;
  return address.substr(std::min(headBytes, address.size())).find_first_not_of('\0') ==
         std::string_view::npos;
}

bool isDefaultRoute(const rt_msghdr& header, std::string_view addresses) {
  constexpr int excluded = RTF_REJECT | RTF_BLACKHOLE | RTF_IFSCOPE | RTF_HOST;
  if ((header.rtm_flags & RTF_UP) == 0 || (header.rtm_flags & excluded) != 0) return false;
  if ((header.rtm_addrs & RTA_DST) == 0 || !isUnspecified(takeAddress(addresses))) return false;
  if ((header.rtm_addrs & RTA_GATEWAY) != 0) takeAddress(addresses);
  return (header.rtm_addrs & RTA_NETMASK) == 0 || isUnspecified(takeAddress(addresses));
}

bool holdsDefaultRoute(std::string_view messages) {
  while (messages.size() >= sizeof(rt_msghdr)) {
    rt_msghdr header{};
    std::memcpy(&header, messages.data(), sizeof(header));
    if (header.rtm_msglen < sizeof(header) || header.rtm_msglen > messages.size()) return false;
    const std::string_view addresses = messages.substr(0, header.rtm_msglen).substr(sizeof(header));
    if (header.rtm_version == RTM_VERSION && isDefaultRoute(header, addresses)) return true;
    messages.remove_prefix(header.rtm_msglen);
  }
  return false;
}

/// The routing table as messages, or nothing when the system does not give it.
std::optional<std::string> routingMessages() {
  std::array<int, 6> name = {CTL_NET, PF_ROUTE, 0, 0, NET_RT_DUMP, 0};
  // The table may grow between the two calls.
  for (int attempt = 0; attempt < 5; ++attempt) {
    std::size_t size = 0;
    if (::sysctl(name.data(), static_cast<unsigned>(name.size()), nullptr, &size, nullptr, 0) != 0)
      return std::nullopt;
    std::string messages(size + size / 4, '\0');
    size = messages.size();
    if (::sysctl(name.data(), static_cast<unsigned>(name.size()), messages.data(), &size, nullptr, 0) != 0)
      continue;
    messages.resize(size);
    return messages;
  }
  return std::nullopt;
}

bool findDefaultRoute() {
  const std::optional<std::string> messages = routingMessages();
  return !messages || holdsDefaultRoute(*messages);
}

}  // namespace

#else

namespace {

std::optional<std::string> contentOf(const char* path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// Whether the interface is up and has a carrier: a route stays where a cable was pulled. True when the
/// system does not tell.
bool isInOperation(const std::string& interface) {
  ifreq request{};
  if (interface.size() >= sizeof(request.ifr_name)) return true;
  interface.copy(request.ifr_name, interface.size());
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return true;
  const bool isKnown = ::ioctl(socket, SIOCGIFFLAGS, &request) == 0;
  ::close(socket);
  return !isKnown || ((request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_RUNNING) != 0);
}

bool findDefaultRoute() {
  const std::optional<std::string> v4 = contentOf("/proc/net/route");
  const std::optional<std::string> v6 = contentOf("/proc/net/ipv6_route");
  if (!v4 && !v6) return true;
  const std::vector<std::string> first = defaultRouteInterfacesV4(v4.value_or(""));
  const std::vector<std::string> second = defaultRouteInterfacesV6(v6.value_or(""));
  return std::ranges::any_of(first, isInOperation) || std::ranges::any_of(second, isInOperation);
}

}  // namespace

#endif

bool hasDefaultRoute() noexcept {
  try {
    return findDefaultRoute();
  } catch (const std::exception&) {
    return true;
  }
}

}  // namespace vellicor
