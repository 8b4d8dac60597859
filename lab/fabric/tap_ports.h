/// Nodes with a network of their own, joined by a switch: it learns where addresses are, and floods what is for many or
/// for an address that it does not know.
#pragma once

#include "event_loop.h"
#include "network.h"
#include "tap_device.h"

#include <map>

namespace fabric
{

class tap_ports
{
public:
  tap_ports(event_loop &loop, network &net);
  ~tap_ports();
  tap_ports(const tap_ports &) = delete;
  tap_ports &operator=(const tap_ports &) = delete;

  /// Makes the node's device; an earlier one goes. Throws std::runtime_error; the earlier one is gone then too.
  void add(const tap_settings &settings);

private:
  static constexpr size_t FRAME_MAX = 65536;
  class device;

  void read_some(uint32_t node);
  void forward(uint32_t from, std::span<const uint8_t> frame);
  void remove(uint32_t node);

  event_loop &loop_;
  network &network_;
  std::vector<uint8_t> frame_;
  std::map<uint32_t, std::unique_ptr<device>> devices_;
  std::map<mac_address, uint32_t> places_;
};

}  // namespace fabric
