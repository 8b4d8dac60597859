/// The callbacks of the payload layer into the layer above.
#pragma once

#include <cstdint>

#include "payload_dissemination/payload_buf.h"

/// Those that are not set do nothing.
///
/// `deliver`, `lost` and `handled` run on the deliver-thread with the queue's lock held. `handled` also runs on the
/// thread that hands a decision over, with no lock of this layer held.
struct paxos_data_callbacks {
  void (*deliver)(uint32_t id, uint8_t sender, const payload_buf *payload) = [](uint32_t, uint8_t,
                                                                                const payload_buf *) {};
  void (*lost)(uint32_t id, uint8_t sender) = [](uint32_t, uint8_t) {
  };                          ///< the entry is skipped because its payload is lost
  void (*handled)() = [] {};  ///< paxos_data_handled has changed
  /// A node asks for a payload that this node lacks. Runs in the receive hook with no lock held; must not wait.
  void (*lacking)(uint32_t id, uint8_t sender, uint8_t asking_node) = [](uint32_t, uint8_t, uint8_t) {};
  /// These nodes (bit n - 1 = node n) answered MISSING but did not say which decision they know. They may know none.
  /// Runs with the pull record's lock held; must not wait.
  void (*uninformed)(uint32_t nodes) = [](uint32_t) {};
  /// paxos_data_is_base_settled is now true for the log. Runs with the pull record's lock held.
  void (*base_settled)() = [] {};
};
