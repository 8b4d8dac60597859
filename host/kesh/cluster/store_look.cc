#include "cluster/store_look.h"

#include <algorithm>

#include "store/database.h"
#include "store/library_entry.h"
#include "store/store_aside.h"

namespace kesh
{

namespace
{

// What one look reads at most: some hundredths of a second.
constexpr uint64_t ROWS_MAX = 20000;

std::optional<chain_hash> read_hash(const std::string &path, uint64_t n)
{
  try {
    database own(path, database::mode::read_only);
    statement select(own, "SELECT hash FROM payload WHERE n = ?");
    query row(select, n);
    chain_hash hash;
    return row.next() && hash_assign(hash, row.bytes(0)) ? std::optional(hash) : std::nullopt;
  } catch (const store_failure &) {
    return std::nullopt;
  }
}

}  // namespace

// Within a use of the gate nothing of the store may be called: who closes the gate holds the store's lock.
told_position store_look::position()
{
  for (;;) {
    const store_position now = store_.position();
    told_position told{0, now.incomplete.empty(), now.n, now.hash, std::nullopt};
    const uint64_t at = checkpoint_of(now.n);
    {
      const use_scope use(store_.gate());
      told.store = file_number(store_.path());
      if (at == now.n) {
        told.checkpoint_hash = now.hash;
      } else if (told.store == checkpoint_of_.store && at == checkpoint_of(checkpoint_of_.n) &&
                 checkpoint_of_.checkpoint_hash) {
        told.checkpoint_hash = checkpoint_of_.checkpoint_hash;
      } else if (told.store != 0) {
        told.checkpoint_hash = read_hash(store_.path(), at);
      }
    }
    if (store_.position().generation == now.generation) {
      checkpoint_of_ = told;
      return told;
    }
  }
}

std::optional<chain_hash> store_look::hash_at(const told_position &in, uint64_t n)
{
  const use_scope use(store_.gate());
  return in.store != 0 && file_number(store_.path()) == in.store ? read_hash(store_.path(), n) : std::nullopt;
}

void store_look::raise(std::string_view after)
{
  const library_entry entry = library_entry_get(after);
  if (entry.sender >= 1 && entry.sender <= HELLO_NODES_MAX) {
    ids_[entry.sender - 1u] = std::max(ids_[entry.sender - 1u], entry.msg_id);
  }
}

void store_look::look_for_ids(const told_position &now)
{
  if (seen_store_ != now.store) {
    seen_store_ = now.store;
    seen_up_to_ = now.n;
    seen_down_to_ = now.n + 1;
    is_all_seen_ = false;
  }
  if (now.store == 0 || (is_all_seen_ && seen_up_to_ >= now.n)) {
    return;
  }
  const use_scope use(store_.gate());
  if (file_number(store_.path()) != now.store) {
    return;
  }
  database own(store_.path(), database::mode::read_only);
  {
    statement newer(own, "SELECT n, after FROM payload WHERE n > ? ORDER BY n LIMIT ?");
    for (query rows(newer, seen_up_to_, ROWS_MAX); rows.next();) {
      seen_up_to_ = rows.number(0);
      raise(rows.bytes(1));
    }
  }
  if (!is_all_seen_) {
    statement older(own, "SELECT n, after FROM payload WHERE n < ? ORDER BY n DESC LIMIT ?");
    uint64_t read = 0;
    for (query rows(older, seen_down_to_, ROWS_MAX); rows.next(); ++read) {
      seen_down_to_ = rows.number(0);
      raise(rows.bytes(1));
    }
    is_all_seen_ = read < ROWS_MAX;
  }
}

}  // namespace kesh
