/// One node's own copy of the library: a file of its own, loaded with local symbols, so that it has variables of its
/// own. Its calls of libc that the simulator must see are redirected in the copy's tables of addresses; those of
/// vx_host.h find the executable.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "vx_cons.h"

namespace sim
{

/// Names of libc, and what stands in for them.
using redirections = std::vector<std::pair<const char *, void *>>;

class library_image
{
public:
  /// Reads the file. False: `error` says why.
  bool read(const std::string &path, std::string &error);
  const std::vector<char> &bytes() const { return bytes_; }

private:
  std::vector<char> bytes_;
};

/// The copy stays loaded until the process ends: threads of a killed node stand in it.
struct library_copy {
  decltype(&vx_cons_init) init = nullptr;
  decltype(&vx_cons_cleanup) cleanup = nullptr;
  decltype(&vx_cons_start) start = nullptr;
  decltype(&vx_cons_stop) stop = nullptr;
  decltype(&vx_cons_configure) configure = nullptr;
  decltype(&vx_cons_register_data_hooks) register_data_hooks = nullptr;
  decltype(&vx_cons_register_clmsg_hook) register_clmsg_hook = nullptr;
  decltype(&vx_cons_distribute) distribute = nullptr;
  decltype(&vx_cons_bcast_clmsg) bcast_clmsg = nullptr;
  decltype(&vx_cons_cluster_active) cluster_active = nullptr;
  std::span<uint8_t> storage;  ///< thread-local, of the kernel thread that has loaded it

  /// `directory`: where the copy gets a file that a debugger finds; empty: in memory.
  bool load(const library_image &image, const std::string &directory, const redirections &redirected,
            std::string &error);
};

}  // namespace sim
