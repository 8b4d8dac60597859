// The integer-keyed hash table of vx_host.h.
#include "vx_host.h"

#include <new>
#include <unordered_map>
#include <utility>

namespace
{

struct entry {
  void *value;
  void (*destroy)(void *value);
};

using table_map = std::unordered_map<uint32_t, entry>;

table_map &map_of(void *table)
{
  return *static_cast<table_map *>(table);
}

void release(const entry &gone)
{
  if (gone.destroy != nullptr) {
    gone.destroy(gone.value);
  }
}

// A cursor names the entry that the walk returns next, so the entry just returned may be deleted. It consists of bit 32
// and the key; it is null at the end.
static_assert(sizeof(void *) == 8, "a cursor holds a key and one more bit");
constexpr uint64_t CURSOR_SET = uint64_t{1} << 32;

void *walk_to(table_map &map, table_map::iterator at, void **cursor)
{
  *cursor = nullptr;
  if (at == map.end()) {
    return nullptr;
  }
  void *value = at->second.value;
  if (++at != map.end()) {
    *cursor = reinterpret_cast<void *>(CURSOR_SET | at->first);  // NOLINT(performance-no-int-to-ptr): no pointer
  }
  return value;
}

}  // namespace

void *vx_hash_create_i(uint32_t buckets)
{
  try {
    return new table_map(buckets);
  } catch (const std::exception &) {
    return nullptr;
  }
}

void vx_hash_clear_i(void *table)
{
  // The entries leave the table first: whatever a destroy callback does, it finds the table empty.
  table_map gone;
  gone.swap(map_of(table));
  for (const auto &[key, value] : gone) {
    release(value);
  }
}

void vx_hash_delete_i(void *table)
{
  vx_hash_clear_i(table);
  delete &map_of(table);
}

int vx_hash_set_entry_i(void *table, uint32_t key, void *value, void (*destroy)(void *value))
{
  try {
    const auto [at, is_new] = map_of(table).try_emplace(key, entry{value, destroy});
    if (!is_new) {
      release(std::exchange(at->second, entry{value, destroy}));
    }
    return 0;
  } catch (const std::bad_alloc &) {
    return -1;
  }
}

void *vx_hash_get_entry_i(void *table, uint32_t key)
{
  const auto at = map_of(table).find(key);
  return at == map_of(table).end() ? nullptr : at->second.value;
}

int vx_hash_delete_entry_i(void *table, uint32_t key)
{
  const auto node = map_of(table).extract(key);
  if (node.empty()) {
    return -1;
  }
  release(node.mapped());
  return 0;
}

void *vx_hash_get_first_entry_i(void *table, void **cursor)
{
  return walk_to(map_of(table), map_of(table).begin(), cursor);
}

void *vx_hash_get_next_entry_i(void *table, void **cursor)
{
  if (*cursor == nullptr) {
    return nullptr;
  }
  const auto key = static_cast<uint32_t>(reinterpret_cast<uint64_t>(*cursor));
  return walk_to(map_of(table), map_of(table).find(key), cursor);
}
