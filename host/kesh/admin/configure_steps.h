/// What `kesh configure` does to the disk, so that it can be interrupted at any point: by a crash, by a full disk.
///
/// First PATH.configuring (of the store) names the whole command, last it goes. As long as it is there the store is not
/// opened, so the daemon does not run, and the same command goes on.
#pragma once

#include <functional>
#include <string>

namespace kesh
{

struct configure_steps {
  std::string command;  ///< the whole of it, as an operator types it
  bool yes = false;     ///< put lines aside, and give up another command that was interrupted
  std::string store_path;
  std::string old_journal_path;
  /// Null, or what is done to the store instead of putting it aside. Any number of times; throws a store_failure.
  std::function<void()> keep_store;
  /// Writes the cluster, and resets the library's records, durably. Any number of times. Returns an exit code.
  std::function<int()> write_cluster;
  /// Called after each step. For tests, which end the process there.
  void (*after_step)() = nullptr;
};

/// Returns an exit code, and prints why it is not EXIT_OK; what was put aside is printed, too. Nothing is changed if
/// another process has the store, a file is not ours, or there are lines and no `yes`.
int configure_steps_run(const configure_steps &what);

}  // namespace kesh
