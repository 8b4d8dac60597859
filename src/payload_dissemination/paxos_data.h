/// The payload layer: stores payloads, offers them, fetches those that this node lacks, and delivers those of the
/// decided log in order.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>

#include "common/id_batch.h"
#include "payload_dissemination/data_callbacks.h"

/// Creates the tables. Does nothing if initialised. Always returns 0.
int paxos_data_init(const paxos_data_callbacks &callbacks);

/// Stops the layer if it runs and forgets everything. Harmless at any time.
void paxos_data_cleanup();

/// Forgets all payloads and logs, and removes the files. Returns 0; -1 if not initialised, not stopped, or if files
/// remain.
int paxos_data_reset();

/// With durable payloads fills the table with what this node's files hold, without removes such files. Before each
/// start, for a node whose identity is set. Calls `progress` before each file. Returns 0; -1 if not initialised or the
/// files cannot be listed.
int paxos_data_load(
    bool is_durable, const std::function<void()> &progress = [] {});

/// Starts the threads and opens channel 5. Returns 0, also if the layer runs already; -1 if not initialised or a thread
/// cannot be created.
int paxos_data_start();

/// Ends the threads, every wait of the layer's own threads and of calls, and every transfer. The wait for a state's
/// offer ends with paxos_data_wake_state_offer, or within a second. The payloads stay. Hold no lock.
void paxos_data_stop();

/// Sets the stop flag: nothing more is delivered, and every wait ends at its next wake-up. paxos_data_stop does the
/// rest. Any thread, any lock.
void paxos_data_halt();

/// Offers a new snapshot of this node, independent of the offers of calls. Blocks until a quorum holds it (true) or
/// `goes_on` returns false (false). `goes_on` is called after each wake-up, at least once a second, with a leaf lock
/// held. One thread at a time.
bool paxos_data_offer_state(uint32_t id, bool (*goes_on)());
void paxos_data_wake_state_offer();  ///< wakes that wait; any thread, any lock but leaves

/// Offers a stored payload of this node to all nodes. Blocks until a quorum holds it, the layer stops, or `ended` is
/// set (noticed within a second).
void paxos_data_offer(uint32_t id, const std::atomic<bool> &ended);

/// Hands over decision `number`. An older one than the last is ignored. Delivery goes on after the entry that was
/// queued last since start, or else after `last_delivered`; if the log does not name that entry, with the log's first.
/// Waits while a payload is being delivered: hold no lock that delivery takes. `done_ids` are the highest identifiers
/// seen decided, per node: ordinary payloads at or below them are released unless the log names them.
void paxos_data_pull(const id_batch &batch, id_entry last_delivered, uint32_t number,
                     const std::array<uint32_t, NODES_MAX> &done_ids = {});

/// Whether `base`, the first entry of the log handed over last, is here or lost. Any thread.
bool paxos_data_is_base_settled(id_entry base);

/// Number of the last decision handed over whose every entry was delivered or skipped.
uint32_t paxos_data_handled();
