#include "tap_device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace fabric
{
namespace
{

[[noreturn]] void fail(const std::string &what)
{
  throw std::runtime_error(what + ": " + strerror(errno));
}

/// In another network namespace as long as it lives.
class visit
{
public:
  explicit visit(const std::string &netns) : home_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC))
  {
    const platform::unique_fd there(open(netns.c_str(), O_RDONLY | O_CLOEXEC));
    if (!home_ || !there || setns(there.get(), CLONE_NEWNET) != 0) {
      fail("network namespace " + netns);
    }
  }
  ~visit() { setns(home_.get(), CLONE_NEWNET); }
  visit(const visit &) = delete;
  visit &operator=(const visit &) = delete;

private:
  platform::unique_fd home_;
};

bool parse_number(std::string_view text, uint32_t low, uint32_t high, uint32_t &number)
{
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number >= low && number <= high;
}

sockaddr_in internet_address(in_addr address)
{
  sockaddr_in made{};
  made.sin_family = AF_INET;
  made.sin_addr = address;
  return made;
}

void configure(const platform::unique_fd &socket, unsigned long what, ifreq &request, const std::string &name)
{
  if (ioctl(socket.get(), what, &request) != 0) {
    fail(name);
  }
}

void set_address(const platform::unique_fd &socket, ifreq &request, const tap_settings &settings)
{
  const size_t slash = settings.address.find('/');
  in_addr address{};
  uint32_t prefix = 0;
  if (slash == std::string::npos || inet_pton(AF_INET, settings.address.substr(0, slash).c_str(), &address) != 1 ||
      !parse_number(std::string_view(settings.address).substr(slash + 1), 1, 32, prefix)) {
    throw std::runtime_error("\"" + settings.address + "\" is not an address and prefix as 10.81.0.1/24");
  }
  sockaddr_in name = internet_address(address);
  memcpy(&request.ifr_addr, &name, sizeof name);
  configure(socket, SIOCSIFADDR, request, settings.device + " " + settings.address);
  name = internet_address({htonl(static_cast<uint32_t>(~uint64_t{0} << (32 - prefix)))});
  memcpy(&request.ifr_netmask, &name, sizeof name);
  configure(socket, SIOCSIFNETMASK, request, settings.device + " " + settings.address);
}

}  // namespace

mac_address tap_mac(uint32_t node)
{
  return {0x02, 0x00, 0x51, 0x00, 0x00, static_cast<uint8_t>(node)};
}

tap_settings parse_tap(const std::string &text)
{
  tap_settings result;
  const size_t equals = text.find('=');
  const size_t colon = text.find(':', equals);
  const std::string usage = "\"" + text + "\" is not N=NETNS:DEVICE[:ADDRESS/PREFIX] with N 1 to 16";
  if (equals == std::string::npos || colon == std::string::npos ||
      !parse_number(std::string_view(text).substr(0, equals), 1, 16, result.node)) {
    throw std::invalid_argument(usage);
  }
  result.netns = text.substr(equals + 1, colon - equals - 1);
  if (result.netns.find('/') == std::string::npos) {
    result.netns = "/run/netns/" + result.netns;
  }
  const size_t second = text.find(':', colon + 1);
  result.device = text.substr(colon + 1, second == std::string::npos ? second : second - colon - 1);
  result.address = second == std::string::npos ? "" : text.substr(second + 1);
  if (result.device.empty()) {
    throw std::invalid_argument(usage);
  }
  return result;
}

platform::unique_fd open_tap(const tap_settings &settings)
{
  if (settings.device.empty() || settings.device.size() >= IFNAMSIZ) {
    throw std::runtime_error("\"" + settings.device + "\" is no name of an interface");
  }
  const visit inside(settings.netns);
  platform::unique_fd device(open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK));
  ifreq request{};
  memcpy(request.ifr_name, settings.device.c_str(), settings.device.size() + 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (!device || ioctl(device.get(), TUNSETIFF, &request) != 0) {
    fail("TAP device " + settings.device + " in " + settings.netns);
  }
  const platform::unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const mac_address mac = tap_mac(settings.node);
  request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
  std::copy(mac.begin(), mac.end(), reinterpret_cast<uint8_t *>(request.ifr_hwaddr.sa_data));
  configure(socket, SIOCSIFHWADDR, request, settings.device);
  if (!settings.address.empty()) {
    set_address(socket, request, settings);
  }
  request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_MULTICAST | IFF_BROADCAST;
  configure(socket, SIOCSIFFLAGS, request, settings.device);
  return device;
}

}  // namespace fabric
