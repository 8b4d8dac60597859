/// The registers in memory, by id. A register id is the decision number that the register decides.
///
/// The table holds one reference to each register, and every user holds one more. A register at or below the last
/// decision on this node's disk (the floor) is retired: it is never created again, and nothing is promised or accepted
/// for it.
///
/// Locks: the layer lock guards the table, the floor and last_reg_id, and is held for table operations only. A
/// register's own lock guards its fields. Take the layer lock first.
#pragma once

#include <cstdint>

#include "common/cons_mutex.h"
#include "common/cons_value.h"
#include "common/id_batch.h"
#include "round_based_registers/register_store.h"
#include "service/entry_gate.h"

inline constexpr uint32_t RB_REG_CANCEL = 0x1;   ///< the running operation, or else the next, ends as cancelled
inline constexpr uint32_t RB_REG_DELETED = 0x2;  ///< retired: the file is deleted with the last reference

inline constexpr uint8_t RB_NODE_READ_PROMISED = 0x01;   ///< acceptor: its READ_REQ raised read_round
inline constexpr uint8_t RB_NODE_READ_ACKED = 0x02;      ///< requester: its READ_ACK was counted
inline constexpr uint8_t RB_NODE_WRITE_ACCEPTED = 0x04;  ///< acceptor: its WRITE_REQ set the value
inline constexpr uint8_t RB_NODE_WRITE_ACKED = 0x08;     ///< requester: its WRITE_ACK was counted

/// The requester's side of the running (or last) READ or WRITE.
struct quorum_count {
  uint32_t round = 0;
  uint8_t acks = 0;  ///< distinct nodes
  bool nacked = false;
};

struct rb_reg {
  explicit rb_reg(uint32_t reg_id) : id(reg_id) {}

  cons_mutex lock{lock_rank::reg};
  cons_cond changed_cond;  // an answer was counted, or the operation was cancelled; one waiter
  uint32_t references CONS_GUARDED_BY(lock) = 1;
  uint32_t flags CONS_GUARDED_BY(lock) = 0;
  const uint32_t id;
  acceptor_state accepted CONS_GUARDED_BY(lock);
  cons_value read_result CONS_GUARDED_BY(lock);  // value with the highest write round in any READ_ACK
  uint32_t read_result_round CONS_GUARDED_BY(lock) = 0;
  quorum_count read CONS_GUARDED_BY(lock);
  quorum_count write CONS_GUARDED_BY(lock);
  uint8_t node_flags[NODES_MAX] CONS_GUARDED_BY(lock) = {};
};

/// Receive hook of channel 3; open between init and cleanup.
inline constinit entry_gate rb_reg_gate{false};

/// Called with the address of a node that reads register 1 although that one is retired here: the node knows no
/// decision at all. Runs on a messaging thread with no lock held.
using rb_reg_newcomer_cb = void (*)(uint32_t node_addr);

/// Opens channel 3. Returns 0, also if it was done before; -1 if the table cannot be created.
int rb_reg_init(rb_reg_newcomer_cb newcomer);

/// Closes channel 3, forgets the registers (their files stay) and waits for a receive hook that runs. Harmless at any
/// time.
void rb_reg_cleanup();

/// Forgets every register and the floor, and deletes the files. Returns 0; -1 if not initialised. Only while the
/// protocol is stopped.
int rb_reg_reset();

/// Sets the floor to the number of the last decision on disk. It may be lower than before.
void rb_reg_set_floor(uint32_t batch_id);

/// Returns 0 if the register exists afterwards; -1 if its id is retired or passed over, its file is unusable, or memory
/// runs out.
int rb_reg_create(uint32_t id);

/// Retires every register up to the bound and raises the floor to it. Ends a READ or WRITE that waits on one of them.
void rb_reg_delete_up_to(uint32_t bound);

/// The register with one more reference, or null.
rb_reg *rb_reg_get(uint32_t id);
void rb_reg_put(rb_reg *reg);

/// Gives a reference back at the end of the scope.
class rb_reg_ref
{
public:
  explicit rb_reg_ref(rb_reg *reg) : reg_(reg) {}
  ~rb_reg_ref() { rb_reg_put(reg_); }
  rb_reg_ref(const rb_reg_ref &) = delete;
  rb_reg_ref &operator=(const rb_reg_ref &) = delete;
  rb_reg *get() const { return reg_; }

private:
  rb_reg *reg_;
};

/// What the acceptor does with a request for a register.
enum class request_admission {
  admitted,  ///< the register is in the table
  unknown,   ///< it may be created
  retired,   ///< already deleted or passed over: no answer
  not_ready  ///< this node does not know its last decision yet: no answer, no log line
};
request_admission rb_reg_admit(uint32_t id);

/// As rb_reg_create, but for a request. Refused while the floor is unknown.
int rb_reg_create_for_request(uint32_t id);

/// Calls the callback of rb_reg_init. Hold no lock.
void rb_reg_report_newcomer(uint32_t node_addr);
