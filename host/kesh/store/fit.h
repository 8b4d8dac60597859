/// Does the store fit the library's records? Asked before the library starts, since afterwards it delivers on.
///
/// The library saves paxos_deliver after the hook has returned, so while a hook runs the record names the entry before.
/// At its start it goes on behind that entry, or with the first entry of its log, which is a state, if the log does not
/// name it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/library_entry.h"

namespace kesh
{

struct library_records {
  library_entry delivered;         ///< paxos_deliver
  uint32_t decision = 0;           ///< number in paxos_decide, 0: none
  std::vector<library_entry> log;  ///< of paxos_decide
};

enum class store_event { none, payload, state };

struct store_facts {
  bool is_incomplete = false;
  uint64_t n = 0;
  store_event last = store_event::none;  ///< what was applied last
  library_entry last_after;              ///< paxos_deliver while that was applied
  library_entry state_entry;             ///< if it was a state: first entry of the log then, none if not known
  /// The newest row that was applied while paxos_deliver was as the record says now.
  std::optional<uint64_t> row_after;
  /// Of a store without payloads that took the journal of an earlier build over: paxos_deliver then.
  std::optional<library_entry> taken_over{};
};

enum class fit_verdict {
  fits,         ///< the next delivery is new
  redelivers,   ///< the next delivery is row `from` again
  await_state,  ///< the next delivery is a state
  rejoin,       ///< mark the store incomplete, then forget_delivered(): the next delivery is a state
};

struct fit_answer {
  fit_verdict verdict = fit_verdict::fits;
  uint64_t from = 0;
  std::string reason;  ///< of rejoin
};

/// `is_reformed`: an empty log begins a new generation of the cluster, and fits any store.
fit_answer store_fit(const library_records &records, const store_facts &store, bool is_reformed = false);

}  // namespace kesh
