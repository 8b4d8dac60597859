#include "ordered_broadcast/full_state.h"

#include "layer_fixture.h"
#include "ordered_broadcast/decided_log.h"
#include "payload_dissemination/data_stopped.h"
#include "payload_dissemination/paxos_data.h"

namespace
{

using wire::bytes;
using wire::operator+;

// What a leader could not deliver is not in its snapshot: the new log names it again. But a log that were full from the
// beginning would be followed by the next at once.
TEST_F(layer_test, a_new_log_carries_what_was_not_delivered_where_it_leaves_room)
{
  ASSERT_EQ(paxos_data_init({}), 0);
  paxos_data_stopped = false;  // no threads: the table looks at the flag only
  id_batch full;
  for (uint32_t id = 3; id < 253; ++id) {
    id_batch_add(&full, id, id == 3 ? 2 : 3);
  }
  const struct {
    const char *what;
    uint32_t last_delivered;
    uint32_t count;
  } cases[] = {{"the last two are lost", 247, 3}, {"all but the state are lost", 0, 1}, {"nothing is lost", 249, 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    files::write("paxos_decide", wire::words({300}) + bytes(full.bytes, full.bytes + ID_BATCH_SIZE));
    ASSERT_EQ(paxos_log.load(), 0);
    cons_lock lock(paxos.propose_lock);
    {
      cons_lock deliver_lock(paxos.deliver_lock);
      paxos.last_delivered = id_batch_entry(full, c.last_delivered);
    }
    id_batch batch;
    const id_entry state = {.sender = 1, .msg_id = 1000 + c.last_delivered};
    ASSERT_TRUE(paxos_begin_log(batch, state));
    EXPECT_EQ(id_batch_count(batch), c.count);
    EXPECT_EQ(id_batch_entry(batch, 0), state);
    for (uint32_t i = 1; i < c.count; ++i) {
      EXPECT_EQ(id_batch_entry(batch, i), id_batch_entry(full, c.last_delivered + i));
    }
  }
  paxos_data_cleanup();
}

}  // namespace
