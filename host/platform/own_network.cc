#include "own_network.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "sockets.h"

namespace platform
{
namespace
{

using interface_list = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

uint32_t address_of(const sockaddr *name)
{
  return name == nullptr ? INADDR_ANY : reinterpret_cast<const sockaddr_in *>(name)->sin_addr.s_addr;
}

bool has_address(const ifaddrs &one, uint32_t address)
{
  if (one.ifa_addr == nullptr || one.ifa_addr->sa_family != AF_INET) {
    return false;
  }
  // All addresses in the network of a loopback interface are its own.
  const uint32_t mask = (one.ifa_flags & IFF_LOOPBACK) != 0 ? address_of(one.ifa_netmask) : UINT32_MAX;
  return (address_of(one.ifa_addr) & mask) == (address & mask);
}

own_network found(const ifaddrs &one, const std::string &what)
{
  own_network made;
  made.name = one.ifa_name;
  made.name.resize(std::min(made.name.size(), made.name.find(':')));  // addresses may have labels
  made.interface = if_nametoindex(made.name.c_str());
  if ((one.ifa_flags & IFF_UP) == 0 || made.interface == 0) {
    made.fault = "interface " + made.name + what + ", is down";
  }
  return made;
}

own_network missing(const std::string &fault)
{
  own_network made;
  made.fault = fault;
  return made;
}

own_network of_address(const interface_list &all, uint32_t address)
{
  for (const ifaddrs *one = all.get(); one != nullptr; one = one->ifa_next) {
    if (has_address(*one, address)) {
      return found(*one, ", which has address " + address_text(address));
    }
  }
  return missing("address " + address_text(address) + " is on no interface");
}

own_network of_name(const interface_list &all, const std::string &name)
{
  for (const ifaddrs *one = all.get(); one != nullptr; one = one->ifa_next) {
    if (name == one->ifa_name) {
      return found(*one, ", which messaging.interface names");
    }
  }
  return missing("there is no interface " + name + ", which messaging.interface names");
}

}  // namespace

own_network find_own_network(const messaging_settings &settings)
{
  ifaddrs *first = nullptr;
  if (getifaddrs(&first) != 0) {
    return missing("the interfaces cannot be read: " + std::generic_category().message(errno));
  }
  const interface_list all(first, freeifaddrs);
  own_network own = of_address(all, settings.own_address());
  if (!own.fault.empty() || !settings.is_multicast) {
    return own;
  }
  if (!settings.interface.empty()) {
    return of_name(all, settings.interface);
  }
  return settings.interface_address == 0 ? own : of_address(all, settings.interface_address);
}

}  // namespace platform
