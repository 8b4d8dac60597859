#include "ordered_broadcast/message_ids.h"

#include <set>
#include <thread>

#include "layer_fixture.h"
#include "ordered_broadcast/stored_record.h"

namespace
{

using wire::bytes;

class durable_state : public layer_test
{
};

TEST_F(durable_state, records_are_replaced_whole_or_not_at_all)
{
  const std::string path = files::path("record");
  const uint8_t one[] = {1, 2, 3, 4};
  uint8_t got[4];
  EXPECT_EQ(store_read(path.c_str(), got, 4), -1);
  EXPECT_EQ(fake::logged("store_read(): CRITICAL - open(/flashdisk/cons/record) failed"), 1u);
  ASSERT_EQ(store_write(path.c_str(), one, 4), 0);
  EXPECT_EQ(files::all(), (std::map<std::string, bytes>{{"record", {1, 2, 3, 4}}}));
  files::block_saves("record");
  EXPECT_EQ(store_write(path.c_str(), got, 4), -1);
  EXPECT_EQ(fake::logged("store_write(): CRITICAL - open(/flashdisk/cons/record.tmp) failed"), 1u);
  EXPECT_EQ(store_read(path.c_str(), got, 4), 0);
  EXPECT_EQ(bytes(got, got + 4), (bytes{1, 2, 3, 4}));
  EXPECT_EQ(store_read(path.c_str(), got, 3), 0);  // longer than asked for
  files::write("record", {1, 2, 3});
  EXPECT_EQ(store_read(path.c_str(), got, 4), -1);
  EXPECT_EQ(fake::logged("store_read(): CRITICAL - read(/flashdisk/cons/record) failed "
                         "(file size incorrect? should be 4 bytes)\n"),
            1u);
}

TEST_F(durable_state, identifiers_go_on_behind_the_file_and_behind_the_log)
{
  files::write("msg_id", wire::words({41}));
  EXPECT_EQ(msg_id_next(false), 42u);
  EXPECT_EQ(files::read("msg_id"), wire::words({42}));
  id_batch batch;  // a node whose file was lost meets its own identifiers in the log of the others
  id_batch_add(&batch, 90, 1);
  id_batch_add(&batch, 200, 2);
  msg_id_raise_floor(batch);
  EXPECT_EQ(msg_id_next(false), 91u);
  EXPECT_EQ(msg_id_next(true), 1u);
  EXPECT_EQ(files::read("msg_id"), wire::words({1}));
  EXPECT_EQ(msg_id_next(false), 2u);
}

// Two callers with one identifier: one of the two messages is never delivered.
TEST_F(durable_state, identifiers_differ_for_concurrent_callers)
{
  files::write("msg_id", wire::words({1}));
  constexpr size_t CALLERS = 8;
  constexpr size_t EACH = 25;
  std::vector<std::vector<uint32_t>> taken(CALLERS);
  std::vector<std::thread> callers;
  for (auto &mine : taken) {
    callers.emplace_back([&mine] {
      for (size_t i = 0; i < EACH; ++i) {
        mine.push_back(msg_id_next(false));
      }
    });
  }
  std::set<uint32_t> all;
  for (size_t i = 0; i < CALLERS; ++i) {
    callers[i].join();
    EXPECT_TRUE(std::is_sorted(taken[i].begin(), taken[i].end()));
    all.insert(taken[i].begin(), taken[i].end());
  }
  EXPECT_EQ(all.size(), CALLERS * EACH);
  EXPECT_EQ(*all.rbegin(), CALLERS * EACH + 1);
  EXPECT_EQ(files::read("msg_id"), wire::words({*all.rbegin()}));
}

}  // namespace
