#include "common/id_batch.h"

#include <gtest/gtest.h>

#include <vector>

#include "wire.h"

namespace
{

wire::bytes bytes_of(const id_batch &batch)
{
  return {batch.bytes, batch.bytes + ID_BATCH_SIZE};
}

id_batch batch_of(const wire::log &entries)
{
  id_batch batch;
  for (const auto &[sender, msg_id] : entries) {
    id_batch_add(&batch, msg_id, sender);
  }
  return batch;
}

// Any other layout makes every stored log and every older node's decision unreadable.
TEST(id_batch, has_these_bytes)
{
  const auto bytes = bytes_of(batch_of({{1, 5}, {2, 0x01020304}, {16, 0xfffffffe}}));
  const wire::bytes expected = {3, 0, 0, 0, 1, 5, 0, 0, 0, 2, 4, 3, 2, 1, 16, 0xfe, 0xff, 0xff, 0xff};
  EXPECT_EQ(wire::bytes(bytes.begin(), bytes.begin() + 19), expected);
  EXPECT_EQ(wire::bytes(bytes.begin() + 19, bytes.end()), wire::bytes(1254 - 19));
}

// One entry too many would write beyond the batch.
TEST(id_batch, takes_250_entries_and_ignores_the_next)
{
  id_batch batch;
  for (uint32_t i = 1; i <= 250; ++i) {
    id_batch_add(&batch, i, 3);
    ASSERT_EQ(id_batch_count(batch), i);
  }
  const auto full = bytes_of(batch);
  id_batch_add(&batch, 251, 3);
  EXPECT_EQ(bytes_of(batch), full);
  EXPECT_EQ(id_batch_find(&batch, 250, 3), 249);
  id_batch_add(nullptr, 1, 1);
}

// Delivery resumes at what find answers: a match on one half of the reference, or on a later double, goes wrong.
TEST(id_batch, finds_the_first_entry_that_equals_sender_and_id)
{
  const id_batch batch = batch_of({{1, 7}, {2, 7}, {2, 8}, {2, 7}});
  EXPECT_EQ(id_batch_find(&batch, 7, 2), 1);
  EXPECT_EQ(id_batch_find(&batch, 8, 1), -1);
  const id_batch empty;
  EXPECT_EQ(id_batch_find(&empty, 0, 0), -1);
  EXPECT_EQ(id_batch_find(nullptr, 7, 2), -1);
}

TEST(id_batch, walks_in_order_and_sees_what_the_callback_appends)
{
  id_batch batch = batch_of({{1, 1}, {2, 2}});
  wire::log seen;
  const auto visit = [&](uint32_t msg_id, uint8_t sender) {
    seen.emplace_back(sender, msg_id);
    if (sender == 1) {
      id_batch_add(&batch, 3, 3);
    }
  };
  id_batch_foreach(&batch, visit);
  EXPECT_EQ(seen, (wire::log{{1, 1}, {2, 2}, {3, 3}}));
  seen.clear();
  id_batch_call_at(&batch, 3, visit);  // the count: nothing
  id_batch_call_at(&batch, 2, visit);
  EXPECT_EQ(seen, (wire::log{{3, 3}}));
}

// A received log with any of these would be read beyond its end, or index the tables of nodes out of range.
TEST(id_batch, refuses_foreign_bytes_that_are_no_log)
{
  const struct {
    const char *what;
    uint32_t count;
    wire::entry first;
    bool is_valid;
  } cases[] = {{"empty", 0, {0, 0}, true},        {"sound", 1, {16, 1}, true},
               {"count 251", 251, {1, 1}, false}, {"count all ones", 0xffffffff, {1, 1}, false},
               {"sender 0", 1, {0, 1}, false},    {"sender 17", 1, {17, 1}, false},
               {"identifier 0", 1, {1, 0}, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    id_batch batch = batch_of({c.first});
    put_le32(batch.bytes, c.count);
    EXPECT_EQ(id_batch_valid(batch), c.is_valid);
  }
}

}  // namespace
