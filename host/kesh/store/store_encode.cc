// Makes the state that travels from the rows.
#include <cstdlib>
#include <cstring>

#include "bytes.h"
#include "store/state.h"
#include "store/store.h"

namespace kesh
{

using platform::lock_scope;

namespace
{

struct malloc_free {
  void operator()(uint8_t *bytes) const { free(bytes); }
};

/// A buffer from malloc, of a size that was computed before.
class state_buffer
{
public:
  explicit state_buffer(uint64_t size) : bytes_(static_cast<uint8_t *>(malloc(size))), size_(size)
  {
    if (bytes_ == nullptr) {
      throw store_failure("no memory for a state of " + std::to_string(size) + " bytes");
    }
  }
  void put(std::string_view bytes)
  {
    if (bytes.size() > size_ - used_) {
      throw store_failure("a state is larger than its rows say: the store is damaged");
    }
    memcpy(bytes_.get() + used_, bytes.data(), bytes.size());
    used_ += bytes.size();
  }
  std::string_view view() const { return {reinterpret_cast<const char *>(bytes_.get()), used_}; }
  uint8_t *release() { return bytes_.release(); }

private:
  std::unique_ptr<uint8_t, malloc_free> bytes_;
  uint64_t size_;
  uint64_t used_ = 0;
};

/// Where a state begins: rows behind base, whole ones behind bare.
struct state_extent {
  payload_row base;  ///< only n, hash and the lines up to there (in `lines`)
  uint64_t bare_n = 0;
  uint64_t size = 0;  ///< an upper bound
};

/// Walks from the newest row backwards.
state_extent extent_of(database &in, const store_meta &meta, uint64_t n, uint64_t room)
{
  state_extent result;
  result.base.n = meta.base_n;
  result.base.hash = meta.base_hash;
  result.base.lines = meta.base_lines;
  result.bare_n = meta.bare_n;
  statement select(in, "SELECT n, hash, first_line + lines - 1, size, items - lines FROM payload ORDER BY n DESC");
  query rows(select);
  bool has_room = true;
  while (rows.next()) {
    const uint64_t at = rows.number(0);
    const uint64_t whole = 4 + rows.number(3) + rows.number(4) * STATE_REPEAT_SIZE;
    if (has_room && at > meta.bare_n && result.size + STATE_ROW_SIZE + whole <= room) {
      result.size += STATE_ROW_SIZE + whole;
      continue;
    }
    if (has_room) {
      has_room = false;
      result.bare_n = at;
    }
    if (n - at >= STATE_ROWS) {
      result.base.n = at;
      result.base.lines = rows.number(2);
      hash_assign(result.base.hash, rows.bytes(1));
      break;
    }
    result.size += STATE_ROW_SIZE;
  }
  return result;
}

void put_row(state_buffer &to, const payload_row &row, bool is_whole)
{
  std::string head(hash_bytes(row.hash));
  head += library_entry_bytes(row.after);
  put_le(head, row.origin);
  put_le(head, row.life);
  put_le(head, static_cast<uint32_t>(row.lines));
  put_le(head, static_cast<uint32_t>(is_whole ? row.size : 0));
  to.put(head);
}

/// The payload as it came, made from its items, and the repeats.
void put_payload(state_buffer &to, const payload_row &row, row_walk &walk)
{
  std::string repeats;
  uint32_t count = 0;
  std::string head;
  put_payload_head(head, row.origin, row.life, static_cast<uint32_t>(row.items));
  to.put(head);
  item_row one;
  for (uint32_t position = 0; walk.next_item(row.n, one); ++position) {
    head.clear();
    put_item_head(head, one.what);
    to.put(head);
    to.put(one.what.bytes);
    if (one.is_repeat) {
      put_le(repeats, position);
      put_le(repeats, one.line);
      ++count;
    }
  }
  head.clear();
  put_le(head, count);
  to.put(head);
  to.put(repeats);
}

std::string window_bytes(const tag_window &window)
{
  std::string bytes;
  uint32_t count = 0;
  for (uint8_t origin = 1; origin <= ORIGIN_MAX; ++origin) {
    for (const window_payload &one : window.of(origin)) {
      put_le(bytes, origin);
      put_le(bytes, one.n);
      put_le(bytes, one.life);
      put_le(bytes, static_cast<uint32_t>(one.tags.size()));
      bytes += one.pack();
      ++count;
    }
  }
  std::string head;
  put_le(head, count);
  return head + bytes;
}

}  // namespace

void store::encode_state(uint8_t **bytes, uint32_t *size)
{
  lock_scope scope(lock_);
  check_open();
  if (!meta_.incomplete.empty() || cursor_ <= n_) {
    throw store_failure(settings_.path + ": no state can be made: " +
                        (meta_.incomplete.empty() ? "the store is ahead of what was delivered" : meta_.incomplete));
  }
  std::string head(STATE_MAGIC);
  put_le(head, STATE_VERSION);
  put_le(head, static_cast<uint32_t>(settings_.identity.size()));
  head += settings_.identity;
  put_le(head, n_);
  head += hash_bytes(hash_);
  put_le(head, lines_);
  const std::string window = window_bytes(window_);
  const uint64_t fixed = head.size() + 8 + hash_.size() + 8 + 8 + window.size() + hash_.size();
  const uint64_t room = settings_.state_max > fixed ? settings_.state_max - fixed : 0;
  const state_extent extent = extent_of(db_, meta_, n_, room);
  put_le(head, extent.base.n);
  head += hash_bytes(extent.base.hash);
  put_le(head, extent.base.lines);
  put_le(head, extent.bare_n);
  if (fixed + extent.size > UINT32_MAX) {
    throw store_failure("a state would be larger than the library carries");
  }

  state_buffer buffer(fixed + extent.size);
  buffer.put(head);
  row_walk walk(db_, extent.base.n, extent.bare_n);
  payload_row row;
  while (walk.next_payload(row)) {
    put_row(buffer, row, row.n > extent.bare_n);
    if (row.n > extent.bare_n) {
      put_payload(buffer, row, walk);
    }
  }
  buffer.put(window);
  hasher hash;
  hash.add(buffer.view());
  buffer.put(hash_bytes(hash.finish()));
  // A row that was damaged on the disk would stop every node that is given the state.
  try {
    store_state made;
    state_decode(std::string(buffer.view()), made);
  } catch (const store_failure &fault) {
    store_meta meta = meta_;
    meta.damaged = std::string("no sound state can be made of it: ") + fault.what();
    write_meta(meta);
    throw store_failure(settings_.path + ": " + meta.damaged);
  }
  *size = static_cast<uint32_t>(buffer.view().size());
  *bytes = buffer.release();
}

}  // namespace kesh
