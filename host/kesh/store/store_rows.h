/// The statements that write and read rows, prepared once. Not synchronised.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "items/chain_hash.h"
#include "items/payload.h"
#include "store/database.h"
#include "store/library_entry.h"
#include "store/tag_window.h"

namespace kesh
{

struct payload_row {
  uint64_t n = 0;
  chain_hash hash{};
  library_entry after;
  uint8_t origin = 0;
  uint64_t life = 0;
  uint64_t first_line = 0;
  uint64_t lines = 0;
  uint64_t items = 0;  ///< 0: a bare row
  uint64_t size = 0;
  int64_t at = 0;
};

/// What became of one item.
struct item_outcome {
  uint64_t sequence = 0;
  uint32_t attempt = 0;
  uint64_t line = 0;  ///< its own, or that of the item it repeats; 0: a no-op
  bool is_repeat = false;

  bool operator==(const item_outcome &) const = default;
};

/// One item as it is kept.
struct item_row {
  uint64_t n = 0;
  item what;  ///< its bytes are valid until the next row
  uint64_t line = 0;
  bool is_repeat = false;
};

class store_rows
{
public:
  explicit store_rows(database &in);

  void add(const payload_row &row);
  void add_item(uint64_t n, uint64_t position, const item &one, const item_outcome &result);
  void set_after(uint64_t n, const library_entry &after);

  std::optional<payload_row> find(uint64_t n);
  /// The newest row that was applied with this entry before it. Reads the whole table where there is none.
  std::optional<uint64_t> find_after(const library_entry &after);
  std::vector<item_outcome> results(uint64_t n);
  window_payload tags(uint64_t n, uint64_t life);

  /// Removes rows and items up to n.
  void remove_up_to(uint64_t n);

  void window_put(uint8_t origin, const window_payload &one);
  void window_remove(uint8_t origin, uint64_t n);
  void window_clear();

private:
  statement add_;
  statement add_item_;
  statement set_after_;
  statement find_;
  statement find_after_;
  statement items_;
  statement remove_;
  statement remove_items_;
  statement window_put_;
  statement window_remove_;
  statement window_clear_;
};

/// Walks payload rows and items in their order; for what reads all of them.
class row_walk
{
public:
  /// Rows behind n, items of payloads behind `item_n`.
  row_walk(database &in, uint64_t n, uint64_t item_n);

  bool next_payload(payload_row &row);
  /// False behind the last item of payload n.
  bool next_item(uint64_t n, item_row &row);

private:
  statement select_payloads_;
  statement select_items_;
  query payloads_;
  query items_;
  bool is_at_item_;
  bool has_shown_ = false;
};

}  // namespace kesh
