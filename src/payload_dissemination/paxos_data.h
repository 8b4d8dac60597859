/// The payload layer: stores payloads, makes them known, fetches missing ones, and delivers those of the decided log
/// in order.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>

#include "common/id_batch.h"
#include "payload_dissemination/data_callbacks.h"

/// Creates the tables. Returns 0; does nothing if initialised.
int paxos_data_init(const paxos_data_callbacks &callbacks);

/// Stops the layer if it runs and forgets everything. Harmless at any time.
void paxos_data_cleanup();

/// Forgets all payloads and batches. Returns 0; -1 if not initialised or not stopped.
int paxos_data_reset();

/// With durable payloads fills the table with what this node's files hold, without removes such files. Before each
/// start, for a node whose identity is set. Calls `progress` before each file. Returns 0; -1 if not initialised or the
/// files cannot be listed.
int paxos_data_load(bool is_durable, const std::function<void()> &progress = {});

/// Starts the two threads and opens channel 5. Returns 0, also when running; -1 if not initialised or a thread cannot
/// be created.
int paxos_data_start();

/// Ends the threads, every wait and every transfer. The payloads stay. Hold no lock.
void paxos_data_stop();

/// Makes every wait end and nothing more be delivered; paxos_data_stop does the rest. Any thread, any lock.
void paxos_data_halt();

/// Whether the stored payload is on this node's disk; saves it if not. Always true without durable payloads. Blocks for
/// the save; hold no lock.
bool paxos_data_make_durable(id_entry entry);

/// Offers a new state of this node beside the payloads of calls. Blocks until a quorum holds it (true) or `goes_on`,
/// tested after each wake-up, says no. One thread at a time. `goes_on` runs with a leaf lock held.
bool paxos_data_offer_state(uint32_t id, bool (*goes_on)());
void paxos_data_wake_state_offer();  ///< any lock but leaves

/// Makes a stored payload of this node known. Blocks until a quorum holds it, the layer stops, or, noticed within a
/// second, `ended` is set.
void paxos_data_offer(uint32_t id, const std::atomic<bool> &ended);

/// Hands over decision `number`; one that is older than the last is ignored. Delivery goes on behind the entry that
/// was queued last, or `last_delivered` if none was since start; at the first entry of a log that does not name it.
/// Waits while a payload is being delivered: hold no lock that delivery takes. `done_ids` are the highest identifiers
/// seen decided: ordinary payloads at or below them that no log names go.
void paxos_data_pull(const id_batch &batch, id_entry last_delivered, uint32_t number,
                     const std::array<uint32_t, NODES_MAX> &done_ids = {});

/// Whether this first entry of the log handed over last is here, or lost. Any thread.
bool paxos_data_is_base_settled(id_entry base);

/// What channel 4 tells about the other nodes, for the judgement of losses. Any thread, any lock but leaves.
void paxos_data_heard(uint32_t node_id);         ///< it lives: a message that is no repetition
void paxos_data_is_not_ahead(uint32_t node_id);  ///< it has said that it knows no decision newer than ours
/// Around the handling of each message: behind it a DECIDE may wait.
void paxos_data_message_begins();
void paxos_data_message_ends(bool is_new_decision);

/// Number of the last hand-over of which every entry was delivered or skipped.
uint32_t paxos_data_handled();
