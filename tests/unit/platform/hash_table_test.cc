#include "vx_host.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace
{

int destroyed;
void count_destroyed(void *)
{
  ++destroyed;
}

}  // namespace

// The register layer deletes while it walks; a walk that ends early or visits twice leaves registers behind.
TEST(hash_table, a_walk_survives_deletion_of_what_it_returned)
{
  destroyed = 0;
  std::vector<uint32_t> values(1000);
  void *table = vx_hash_create_i(7);
  for (uint32_t i = 0; i < values.size(); ++i) {
    values[i] = i * 0x01000193u;
    ASSERT_EQ(vx_hash_set_entry_i(table, values[i], &values[i], count_destroyed), 0);
  }
  std::set<uint32_t> seen;
  void *cursor = nullptr;
  for (void *value = vx_hash_get_first_entry_i(table, &cursor); value != nullptr;
       value = vx_hash_get_next_entry_i(table, &cursor)) {
    const uint32_t key = *static_cast<uint32_t *>(value);
    EXPECT_TRUE(seen.insert(key).second);
    if (key % 2 == 0) {
      EXPECT_EQ(vx_hash_delete_entry_i(table, key), 0);
    }
  }
  EXPECT_EQ(seen.size(), values.size());
  EXPECT_EQ(destroyed, 500);
  vx_hash_delete_i(table);
  EXPECT_EQ(destroyed, 1000);
}

TEST(hash_table, each_entry_is_destroyed_once_however_it_leaves)
{
  destroyed = 0;
  int first = 1;
  int second = 2;
  void *table = vx_hash_create_i(1);
  vx_hash_set_entry_i(table, 0, &first, count_destroyed);
  vx_hash_set_entry_i(table, 0, &second, count_destroyed);
  EXPECT_EQ(destroyed, 1) << "replaced";
  EXPECT_EQ(vx_hash_get_entry_i(table, 0), &second);
  EXPECT_NE(vx_hash_delete_entry_i(table, 1), 0);
  vx_hash_clear_i(table);
  EXPECT_EQ(destroyed, 2) << "cleared";
  EXPECT_EQ(vx_hash_get_entry_i(table, 0), nullptr);
  void *cursor = &first;
  EXPECT_EQ(vx_hash_get_first_entry_i(table, &cursor), nullptr);
  EXPECT_EQ(vx_hash_get_next_entry_i(table, &cursor), nullptr);
  vx_hash_delete_i(table);
  EXPECT_EQ(destroyed, 2);
}
