#include "round_based_registers/register_table.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "round_based_registers/register_protocol.h"
#include "service/envelope.h"
#include "vx_host.h"

namespace
{

constexpr uint32_t TABLE_BUCKETS = 250;
constexpr size_t HELD_MAX = 8;

struct register_layer {
  cons_mutex layer_lock{lock_rank::register_layer};
  bool initialised CONS_GUARDED_BY(layer_lock) = false;
  void *table CONS_GUARDED_BY(layer_lock) = nullptr;
  uint32_t last_reg_id CONS_GUARDED_BY(layer_lock) = 0;  // highest id created since init or reset
  bool floor_known CONS_GUARDED_BY(layer_lock) = false;
  uint32_t decided_floor CONS_GUARDED_BY(layer_lock) = 0;   // last decision on this node's disk
  bool may_have_strays CONS_GUARDED_BY(layer_lock) = true;  // files that no register in the table owns
  std::atomic<rb_reg_newcomer_cb> newcomer{nullptr};
};
constinit register_layer layer;

void put_from_table(void *value)
{
  rb_reg_put(static_cast<rb_reg *>(value));
}

bool is_at_or_below_floor(uint32_t id) CONS_REQUIRES(layer.layer_lock)
{
  return layer.floor_known && id <= layer.decided_floor;
}

// Ids below last_reg_id were passed over, but the id right after the floor stays usable. Without it a majority that
// lost one DECIDE could decide nothing until a process restarts.
bool is_old(uint32_t id) CONS_REQUIRES(layer.layer_lock)
{
  const bool is_next = layer.floor_known && id != 0 && id - 1 == layer.decided_floor;
  return is_at_or_below_floor(id) || (id <= layer.last_reg_id && !is_next);
}

rb_reg *find(uint32_t id) CONS_REQUIRES(layer.layer_lock)
{
  return layer.table != nullptr ? static_cast<rb_reg *>(vx_hash_get_entry_i(layer.table, id)) : nullptr;
}

bool is_in_table(uint32_t id) CONS_REQUIRES(layer.layer_lock)
{
  return find(id) != nullptr;
}

bool load_and_insert(rb_reg *reg) CONS_REQUIRES(layer.layer_lock)
{
  cons_lock lock(reg->lock);
  return store_load(reg->id, reg->accepted) == 0 && vx_hash_set_entry_i(layer.table, reg->id, reg, put_from_table) == 0;
}

int create(uint32_t id) CONS_REQUIRES(layer.layer_lock)
{
  if (!is_at_or_below_floor(id) && find(id) != nullptr) {
    return 0;
  }
  if (is_old(id)) {
    const uint32_t floor = layer.floor_known ? layer.decided_floor : 0;
    vx_log("RB-REG: Trying to create an old register (%u <= %u)\n", id, std::max(layer.last_reg_id, floor));
    return -1;
  }
  if (layer.table == nullptr) {
    return -1;
  }
  auto *reg = new (std::nothrow) rb_reg(id);
  if (reg == nullptr) {
    return -1;
  }
  if (!load_and_insert(reg)) {
    rb_reg_put(reg);
    return -1;
  }
  layer.last_reg_id = std::max(layer.last_reg_id, id);
  return 0;
}

// Cancels a READ or WRITE that waits. Returns whether anything besides the table holds the register.
bool abandon(rb_reg *reg, uint32_t deleted)
{
  cons_lock lock(reg->lock);
  if (deleted != 0) {
    vx_msg_dequeue(nullptr, RB_REG_CHANNEL, reg->id, 0);
  }
  reg->flags |= RB_REG_CANCEL | deleted;
  reg->changed_cond.signal();
  return reg->references > 1;
}

void abandon_all() CONS_REQUIRES(layer.layer_lock)
{
  void *cursor = nullptr;
  for (void *value = vx_hash_get_first_entry_i(layer.table, &cursor); value != nullptr;
       value = vx_hash_get_next_entry_i(layer.table, &cursor)) {
    abandon(static_cast<rb_reg *>(value), 0);
  }
}

}  // namespace

int rb_reg_init(rb_reg_newcomer_cb newcomer)
{
  cons_lock lock(layer.layer_lock);
  if (layer.initialised) {
    return 0;
  }
  layer.table = vx_hash_create_i(TABLE_BUCKETS);
  if (layer.table == nullptr) {
    return -1;
  }
  layer.last_reg_id = 0;
  layer.floor_known = false;
  layer.may_have_strays = true;
  layer.newcomer = newcomer;
  store_take_over();
  rb_reg_gate.open();
  vx_msg_register_recv_hook(rb_reg_recv, RB_REG_CHANNEL);
  layer.initialised = true;
  return 0;
}

void rb_reg_cleanup()
{
  rb_reg_gate.close();
  {
    cons_lock lock(layer.layer_lock);
    vx_msg_unregister_recv_hook(rb_reg_recv);
    if (layer.table != nullptr) {
      abandon_all();
      vx_hash_delete_i(layer.table);
      layer.table = nullptr;
    }
    vx_msg_dequeue(nullptr, RB_REG_CHANNEL, MSG_KEY_ALL, 0);
    layer.floor_known = false;
    layer.initialised = false;
  }
  rb_reg_gate.wait_empty();
}

int rb_reg_reset()
{
  // A receive hook that still holds a register could save it after the files are deleted, into the new cluster life.
  rb_reg_gate.close();
  rb_reg_gate.wait_empty();
  cons_lock lock(layer.layer_lock);
  if (!layer.initialised) {
    return -1;
  }
  abandon_all();
  vx_hash_clear_i(layer.table);
  vx_msg_dequeue(nullptr, RB_REG_CHANNEL, MSG_KEY_ALL, 0);
  layer.may_have_strays = store_delete_up_to(STORE_ALL, {}) != 0;
  layer.last_reg_id = 0;
  layer.floor_known = false;
  rb_reg_gate.open();
  return 0;
}

void rb_reg_set_floor(uint32_t batch_id)
{
  cons_lock lock(layer.layer_lock);
  layer.decided_floor = batch_id;
  layer.floor_known = true;
}

int rb_reg_create(uint32_t id)
{
  cons_lock lock(layer.layer_lock);
  return create(id);
}

int rb_reg_create_for_request(uint32_t id)
{
  cons_lock lock(layer.layer_lock);
  return layer.floor_known ? create(id) : -1;
}

request_admission rb_reg_admit(uint32_t id)
{
  cons_lock lock(layer.layer_lock);
  if (!layer.floor_known) {
    return request_admission::not_ready;
  }
  if (is_at_or_below_floor(id)) {
    return request_admission::retired;
  }
  if (find(id) != nullptr) {
    return request_admission::admitted;
  }
  return is_old(id) ? request_admission::retired : request_admission::unknown;
}

void rb_reg_delete_up_to(uint32_t bound)
{
  cons_lock lock(layer.layer_lock);
  uint32_t held[HELD_MAX];
  size_t held_count = 0;
  bool is_deleted = true;
  if (layer.table != nullptr) {
    void *cursor = nullptr;
    for (void *value = vx_hash_get_first_entry_i(layer.table, &cursor); value != nullptr;
         value = vx_hash_get_next_entry_i(layer.table, &cursor)) {
      auto *reg = static_cast<rb_reg *>(value);
      const uint32_t id = reg->id;
      if (id > bound) {
        continue;
      }
      if (!abandon(reg, RB_REG_DELETED)) {
        is_deleted = store_delete_if_there(id) && is_deleted;
      } else if (held_count < HELD_MAX) {
        held[held_count++] = id;
      }
      vx_hash_delete_entry_i(layer.table, id);
    }
  }
  // The files of this process's own registers are deleted above. Read the directory only while there may be others.
  if (layer.may_have_strays || !is_deleted) {
    layer.may_have_strays = store_delete_up_to(bound, {held, held_count}, is_in_table) != 0;
  }
  layer.may_have_strays = layer.may_have_strays || held_count != 0;  // the last holder may fail to delete the file
  layer.decided_floor = layer.floor_known ? std::max(layer.decided_floor, bound) : bound;
  layer.floor_known = true;
}

rb_reg *rb_reg_get(uint32_t id)
{
  cons_lock lock(layer.layer_lock);
  rb_reg *reg = find(id);
  if (reg != nullptr) {
    cons_lock reg_lock(reg->lock);
    ++reg->references;
  }
  return reg;
}

void rb_reg_put(rb_reg *reg)
{
  if (reg == nullptr) {
    return;
  }
  bool is_last = false;
  bool is_deleted = false;
  {
    cons_lock lock(reg->lock);
    is_last = --reg->references == 0;
    is_deleted = (reg->flags & RB_REG_DELETED) != 0;
  }
  if (!is_last) {
    return;
  }
  if (is_deleted) {
    store_delete(reg->id);
  }
  delete reg;
}

void rb_reg_report_newcomer(uint32_t node_addr)
{
  if (const rb_reg_newcomer_cb newcomer = layer.newcomer) {
    newcomer(node_addr);
  }
}
