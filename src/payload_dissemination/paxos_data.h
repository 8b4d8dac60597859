/// The payload layer: stores payloads, makes them known, fetches missing ones, and delivers those of the decided log
/// in order.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

/// How the layer reaches the one above. `deliver`, `lost` and `handled` run on the deliver-thread with the queue's lock
/// held, `handled` also on the thread that handed a batch over, with no lock.
struct paxos_data_callbacks {
  void (*deliver)(uint32_t id, uint8_t sender, const payload_buf *payload) = nullptr;
  void (*lost)(uint32_t id, uint8_t sender) = nullptr;  ///< the entry is skipped: its payload was lost
  void (*handled)() = nullptr;                          ///< paxos_data_handled has changed
  /// A node asks for a payload that this one has not. Receive hook, no lock held; must not wait.
  void (*lacking)(uint32_t id, uint8_t sender, uint8_t asking_node) = nullptr;
  /// These nodes (bit n - 1: node n) answered that they lack a payload without a word about their decision: they may
  /// know none. Pull record's lock held; must not wait.
  void (*uninformed)(uint32_t nodes) = nullptr;
};

/// Creates the tables. Returns 0; does nothing if initialised.
int paxos_data_init(const paxos_data_callbacks &callbacks);

/// Stops the layer if it runs and forgets everything. Harmless at any time.
void paxos_data_cleanup();

/// Forgets all payloads and batches. Returns 0; -1 if not initialised or not stopped.
int paxos_data_reset();

/// Starts the two threads and opens channel 5. Returns 0, also when running; -1 if not initialised or a thread cannot
/// be created.
int paxos_data_start();

/// Ends the threads, every wait and every transfer. The payloads stay. Hold no lock.
void paxos_data_stop();

/// Makes every wait end and nothing more be delivered; paxos_data_stop does the rest. Any thread, any lock.
void paxos_data_halt();

/// Makes a stored payload of this node known. Blocks until a quorum holds it, the layer stops, or, noticed within a
/// second, `ended` is set.
void paxos_data_offer(uint32_t id, const std::atomic<bool> &ended);

/// Hands over decision `number`; one that is older than the last is ignored. Delivery goes on behind the entry that
/// was queued last, or `last_delivered` if none was since start; at the first entry of a log that does not name it.
/// Waits while a payload is being delivered: hold no lock that delivery takes.
void paxos_data_pull(const id_batch &batch, id_entry last_delivered, uint32_t number);

/// What channel 4 tells about the other nodes, for the judgement of losses. Any thread, any lock but leaves.
void paxos_data_heard(uint32_t node_id);         ///< it lives: a message that is no repetition
void paxos_data_is_not_ahead(uint32_t node_id);  ///< it has said that it knows no decision newer than ours
/// Around the handling of each message: behind it a DECIDE may wait.
void paxos_data_message_begins();
void paxos_data_message_ends(bool is_new_decision);

/// Number of the last hand-over of which every entry was delivered or skipped.
uint32_t paxos_data_handled();
