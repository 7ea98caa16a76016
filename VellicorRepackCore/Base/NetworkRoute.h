#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vellicor {

/// Whether this machine has a way to hosts beyond its own networks: a default route through an interface that
/// is in operation. Bridges of containers and addresses that a machine gives itself have none. True when the
/// system does not tell.
bool hasDefaultRoute() noexcept;

/// The interfaces of the default routes that forward packets, in the text of Linux's /proc/net/route and
/// /proc/net/ipv6_route.
std::vector<std::string> defaultRouteInterfacesV4(std::string_view procNetRoute);
std::vector<std::string> defaultRouteInterfacesV6(std::string_view procNetIpv6Route);

}  // namespace vellicor
