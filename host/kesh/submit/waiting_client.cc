#include "submit/waiting_client.h"

namespace kesh
{

using platform::lock_scope;

item_result waiting_clients::submit(uint64_t client, item_kind kind, std::string text)
{
  {
    lock_scope scope(lock_);
    waited_for_[client].reset();
  }
  new_item one{.number = 1, .text = std::move(text), .kind = kind};
  const bool is_taken = items_.push(client, std::span(&one, 1)).taken == 1;
  lock_scope scope(lock_);
  // A reference, not an iterator: others put theirs in meanwhile.
  const std::optional<item_result> &answer = waited_for_[client];
  while (is_taken && !answer) {
    arrived_.wait(lock_);
  }
  const item_result result = answer.value_or(item_result{.fate = item_fate::not_submitted});
  waited_for_.erase(client);
  return result;
}

void waiting_clients::on_results(uint64_t client, std::span<const item_result> results) noexcept
{
  lock_scope scope(lock_);
  if (const auto found = waited_for_.find(client); found != waited_for_.end()) {
    found->second = results.front();
    arrived_.signal_all();
  }
}

}  // namespace kesh
