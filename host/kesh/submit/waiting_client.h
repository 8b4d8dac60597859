/// For those that submit one item and wait for its result.
#pragma once

#include <optional>
#include <unordered_map>

#include "guarded.h"
#include "submit/item_taker.h"

namespace kesh
{

/// Serves any number of clients, each of one thread. Must outlive the stop and join of `items`.
class waiting_clients final : private result_receiver
{
public:
  explicit waiting_clients(item_taker &items) : items_(items) {}

  /// As item_taker::open_client.
  uint64_t open(std::chrono::nanoseconds timeout, std::string &refusal)
  {
    return items_.open_client({.receiver = this, .timeout = timeout}, refusal);
  }
  /// Submits one item and waits for its result, which comes at its deadline at the latest. A refusal gives
  /// not_submitted.
  item_result submit(uint64_t client, item_kind kind, std::string text) PLATFORM_EXCLUDES(lock_);
  void close(uint64_t client) { items_.close_client(client); }

private:
  void on_results(uint64_t client, std::span<const item_result> results) noexcept override PLATFORM_EXCLUDES(lock_);

  item_taker &items_;
  platform::mutex lock_;
  platform::condition arrived_;
  std::unordered_map<uint64_t, std::optional<item_result>> waited_for_ PLATFORM_GUARDED_BY(lock_);  // by client
};

}  // namespace kesh
