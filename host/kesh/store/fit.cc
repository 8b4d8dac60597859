#include "store/fit.h"

#include <algorithm>

namespace kesh
{

namespace
{

fit_answer rejoin(std::string reason)
{
  return {.verdict = fit_verdict::rejoin, .from = 0, .reason = std::move(reason)};
}

fit_answer plain(fit_verdict verdict)
{
  return {.verdict = verdict, .from = 0, .reason = {}};
}

std::string text_of(const library_entry &entry)
{
  return std::to_string(entry.sender) + '/' + std::to_string(entry.msg_id);
}

/// Delivery goes on behind entry i of the log, and no row was applied there.
bool ends_with(const store_facts &store, const std::vector<library_entry> &log, size_t i)
{
  if (store.last == store_event::state) {
    // Which state it was, only the log of that time tells: an older copy of the store ends with another one.
    return i == 0 && store.state_entry == log[0];
  }
  return store.last == store_event::payload && i > 0 && store.last_after == log[i - 1];
}

}  // namespace

fit_answer store_fit(const library_records &records, const store_facts &store, bool is_reformed)
{
  const auto &log = records.log;
  if (is_reformed && log.empty()) {
    return plain(fit_verdict::fits);
  }
  const auto at = std::find(log.begin(), log.end(), records.delivered);
  const bool goes_on = !records.delivered.is_none() && at != log.end();
  if (store.is_incomplete) {
    return goes_on ? rejoin("the store waits for a state, and the library would go on without one")
                   : plain(fit_verdict::await_state);
  }
  if (!goes_on) {
    if (!log.empty()) {
      return plain(fit_verdict::await_state);
    }
    return store.n == 0 ? plain(fit_verdict::fits)
                        : rejoin("the library has decided nothing, and the store has " + std::to_string(store.n) +
                                 " payloads: it is of another life of the cluster");
  }
  if (store.n == 0 && store.taken_over == records.delivered) {
    return plain(fit_verdict::fits);
  }
  if (store.row_after) {
    return {.verdict = fit_verdict::redelivers, .from = *store.row_after, .reason = {}};
  }
  if (ends_with(store, log, static_cast<size_t>(at - log.begin()))) {
    return plain(fit_verdict::fits);
  }
  return rejoin("the library has delivered " + text_of(records.delivered) + ", and payload " + std::to_string(store.n) +
                ", the store's last one, is not that: store or records are an older copy");
}

}  // namespace kesh
