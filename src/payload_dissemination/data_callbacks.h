/// What the payload layer tells the layer above.
#pragma once

#include <cstdint>

#include "payload_dissemination/payload_buf.h"

/// How the payload layer reaches the one above. `deliver`, `lost` and `handled` run on the deliver-thread with the
/// queue's lock held, `handled` also on the thread that handed a batch over, with no lock.
struct paxos_data_callbacks {
  void (*deliver)(uint32_t id, uint8_t sender, const payload_buf *payload) = nullptr;
  void (*lost)(uint32_t id, uint8_t sender) = nullptr;  ///< the entry is skipped: its payload was lost
  void (*handled)() = nullptr;                          ///< paxos_data_handled has changed
  /// A node asks for a payload that this one has not. Receive hook, no lock held; must not wait.
  void (*lacking)(uint32_t id, uint8_t sender, uint8_t asking_node) = nullptr;
  /// These nodes (bit n - 1: node n) answered that they lack a payload without a word about their decision: they may
  /// know none. Pull record's lock held; must not wait.
  void (*uninformed)(uint32_t nodes) = nullptr;
  /// paxos_data_is_base_settled has become true for the log. Pull record's lock held.
  void (*base_settled)() = nullptr;
};
