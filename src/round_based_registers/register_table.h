/// The registers in memory, by id. A register id is the number of the decision made with it.
///
/// The table holds one reference of each register, every user another. A register at or below the last decision on
/// this node's disk (the floor) is retired: never created, promised or accepted for again.
///
/// Locks: the layer lock guards the table, the floor and last_reg_id and is held for table operations only; a
/// register's own lock guards its fields. Layer lock first.
#pragma once

#include <cstdint>

#include "common/cons_mutex.h"
#include "common/cons_value.h"
#include "common/id_batch.h"
#include "round_based_registers/register_store.h"
#include "service/entry_gate.h"

inline constexpr uint32_t RB_REG_CANCEL = 0x1;   ///< the running operation, or else the next, ends as cancelled
inline constexpr uint32_t RB_REG_DELETED = 0x2;  ///< retired: the file goes with the last reference

inline constexpr uint8_t RB_NODE_READ_PROMISED = 0x01;   ///< acceptor: its READ_REQ raised read_round
inline constexpr uint8_t RB_NODE_READ_ACKED = 0x02;      ///< requester: its READ_ACK was counted
inline constexpr uint8_t RB_NODE_WRITE_ACCEPTED = 0x04;  ///< acceptor: its WRITE_REQ set the value
inline constexpr uint8_t RB_NODE_WRITE_ACKED = 0x08;     ///< requester: its WRITE_ACK was counted

/// Requester's side of the running (or last) READ or WRITE.
struct quorum_count {
  uint32_t round = 0;
  uint8_t acks = 0;  ///< distinct nodes
  bool nacked = false;
};

struct rb_reg {
  explicit rb_reg(uint32_t reg_id) : id(reg_id) {}

  cons_mutex lock{lock_rank::reg};
  cons_cond changed_cond;  // an answer was counted, or cancel; one waiter
  uint32_t references CONS_GUARDED_BY(lock) = 1;
  uint32_t flags CONS_GUARDED_BY(lock) = 0;
  const uint32_t id;
  acceptor_state accepted CONS_GUARDED_BY(lock);
  cons_value read_result CONS_GUARDED_BY(lock);  // value with the highest write round seen in any READ_ACK
  uint32_t read_result_round CONS_GUARDED_BY(lock) = 0;
  quorum_count read CONS_GUARDED_BY(lock);
  quorum_count write CONS_GUARDED_BY(lock);
  uint8_t node_flags[NODES_MAX] CONS_GUARDED_BY(lock) = {};
};

/// Receive hook of channel 3; open between init and cleanup.
inline constinit entry_gate rb_reg_gate{false};

/// Told, on a messaging thread with no lock held, the address of a node that asks for register 1 although this node
/// holds a decision: one that knows no decision at all.
using rb_reg_newcomer_cb = void (*)(uint32_t node_addr);

/// Returns 0, also when initialised already; -1 if the table cannot be created. Opens channel 3.
int rb_reg_init(rb_reg_newcomer_cb newcomer);

/// Closes channel 3, waits for a hook that is running, forgets the registers (files stay). Harmless at any time.
void rb_reg_cleanup();

/// Forgets every register, file and the floor. Returns 0; -1 if not initialised. Only while the protocol is stopped.
int rb_reg_reset();

/// Sets the floor, also downwards: the number of the last decision on disk.
void rb_reg_set_floor(uint32_t batch_id);

/// Returns 0 if the register exists afterwards; -1 if its id is retired or passed over, its file is unusable, or
/// without memory.
int rb_reg_create(uint32_t id);

/// Retires every register up to the bound, which becomes the floor; ends a READ or WRITE that waits on one of them.
void rb_reg_delete_up_to(uint32_t bound);

/// The register with one more reference, or null.
rb_reg *rb_reg_get(uint32_t id);
void rb_reg_put(rb_reg *reg);

/// A reference that is given back at the end of the scope.
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
  not_ready  ///< this node does not know its last decision yet: no answer, no line
};
request_admission rb_reg_admit(uint32_t id);

/// As rb_reg_create, on behalf of a request: refused while the floor is unknown.
int rb_reg_create_for_request(uint32_t id);

/// Reports a newcomer to the callback of rb_reg_init. Hold no lock.
void rb_reg_report_newcomer(uint32_t node_addr);
