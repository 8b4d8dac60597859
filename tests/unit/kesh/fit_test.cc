#include "store/fit.h"

#include "store/library_records.h"
#include "store_fixture.h"

namespace
{

using namespace store_testing;
using kesh::fit_verdict;
using kesh::library_entry;
using kesh::store_event;

// State, then three payloads; the log before had the entries OLD.
constexpr library_entry S{1, 10}, A{2, 7}, B{3, 4}, C{2, 8}, OLD{3, 3}, OTHER{1, 3}, NONE{};
const std::vector<library_entry> LOG = {S, A, B, C};

TEST(fit, tells_what_the_next_delivery_is)
{
  using event = store_event;
  using verdict = fit_verdict;
  const struct {
    const char *what;
    library_entry delivered;
    std::vector<library_entry> log;
    bool is_incomplete;
    uint64_t n;
    event last;
    library_entry after;
    library_entry state_entry;
    std::optional<uint64_t> row_after;
    verdict expected;
  } cases[] = {
      // Crashes around the delivery of B, payload 2 of this log; the store had n = 5 before the log.
      {"before the hook of B", A, LOG, false, 6, event::payload, S, NONE, {}, verdict::fits},
      {"between commit and save", A, LOG, false, 7, event::payload, A, NONE, 7, verdict::redelivers},
      {"after the save", B, LOG, false, 7, event::payload, A, NONE, {}, verdict::fits},
      {"all delivered", C, LOG, false, 8, event::payload, B, NONE, {}, verdict::fits},
      // Around the delivery of the state.
      {"before the state's hook", OLD, LOG, false, 5, event::payload, OTHER, NONE, 5, verdict::await_state},
      {"state adopted, not saved", OLD, LOG, false, 5, event::state, OLD, S, {}, verdict::await_state},
      {"state adopted and saved", S, LOG, false, 5, event::state, OLD, S, {}, verdict::fits},
      {"state kept, rows ahead of it", S, LOG, false, 7, event::payload, A, NONE, 6, verdict::redelivers},
      {"the same, between compare and save", A, LOG, false, 7, event::payload, A, NONE, 7, verdict::redelivers},
      {"roll-over left the last delivered behind",
       C,
       {OTHER, B},
       false,
       8,
       event::payload,
       B,
       NONE,
       {},
       verdict::await_state},
      // Store and records of different times.
      {"store from before, a payload last", C, LOG, false, 6, event::payload, S, NONE, {}, verdict::rejoin},
      {"store from before, an older state last", S, LOG, false, 3, event::state, OLD, OTHER, {}, verdict::rejoin},
      {"store from before, its state's log not known", S, LOG, false, 3, event::state, OLD, NONE, {}, verdict::rejoin},
      {"store from before this log's payloads", B, LOG, false, 5, event::state, OLD, S, {}, verdict::rejoin},
      {"records from before, of this log", A, LOG, false, 8, event::payload, B, NONE, 7, verdict::redelivers},
      {"records from before, the row is not kept", A, LOG, false, 900, event::payload, B, NONE, {}, verdict::rejoin},
      {"records from before, of an old log",
       OLD,
       {OTHER, OLD},
       false,
       900,
       event::payload,
       B,
       NONE,
       {},
       verdict::rejoin},
      {"store put aside by an interrupted adoption", A, LOG, false, 0, event::none, NONE, NONE, {}, verdict::rejoin},
      // Beginnings.
      {"new node of a new cluster", NONE, {}, false, 0, event::none, NONE, NONE, {}, verdict::fits},
      {"new node of a running cluster", NONE, LOG, false, 0, event::none, NONE, NONE, {}, verdict::await_state},
      {"new cluster, old store", NONE, {}, false, 4, event::payload, S, NONE, {}, verdict::rejoin},
      {"records removed but not the store", NONE, LOG, false, 8, event::payload, B, NONE, {}, verdict::await_state},
      {"an empty log, delivered is left over", A, {}, false, 0, event::none, NONE, NONE, {}, verdict::fits},
      // Marked, then crashed before or after the record was made zero.
      {"incomplete, record not zero yet", B, LOG, true, 6, event::payload, S, NONE, 6, verdict::rejoin},
      {"incomplete, record zero", NONE, LOG, true, 6, event::payload, S, NONE, {}, verdict::await_state},
      {"incomplete, nothing decided", NONE, {}, true, 6, event::payload, S, NONE, {}, verdict::await_state},
  };
  // A journal of an earlier build, taken over while B was the last one delivered.
  kesh::store_facts taken;
  taken.taken_over = B;
  EXPECT_EQ(kesh::store_fit({B, 9, LOG}, taken).verdict, verdict::fits);
  EXPECT_EQ(kesh::store_fit({C, 9, LOG}, taken).verdict, verdict::rejoin);
  EXPECT_EQ(kesh::store_fit({B, 9, {OTHER}}, taken).verdict, verdict::await_state);

  kesh::store_facts old;
  old.n = 4;
  EXPECT_EQ(kesh::store_fit({NONE, 0, {}}, old, true).verdict, verdict::fits) << "a reformed cluster begins with it";
  EXPECT_EQ(kesh::store_fit({NONE, 9, LOG}, old, true).verdict, verdict::await_state);

  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    const auto answer =
        kesh::store_fit({c.delivered, 9, c.log}, {c.is_incomplete, c.n, c.last, c.after, c.state_entry, c.row_after});
    EXPECT_EQ(answer.verdict, c.expected) << answer.reason;
    EXPECT_EQ(answer.from, c.expected == verdict::redelivers ? *c.row_after : 0);
    EXPECT_EQ(answer.reason.empty(), c.expected != verdict::rejoin);
  }
}

class fit_store_test : public store_fixture
{
};

// The facts of a real store at the points where a crash may happen.
TEST_F(fit_store_test, a_store_knows_where_it_stands)
{
  const auto verdict = [](kesh::store &of, library_entry delivered) {
    return kesh::store_fit({delivered, 4, LOG}, of.facts(delivered)).verdict;
  };
  const auto deliver = [](kesh::store &to, uint64_t sequence, library_entry after) {
    const std::string bytes = bytes_of(2, {{sequence}});
    kesh::payload decoded;
    std::string fault;
    kesh::payload_decode(bytes, decoded, fault);
    return to.apply(bytes, decoded, after).is_redelivered;
  };
  auto store = open("a");
  deliver(*store, 1, OTHER);
  const std::string state = state_of(*store);
  store->begin_adopt(state);
  store->commit_adopt(OLD, S);
  EXPECT_EQ(verdict(*store, OLD), fit_verdict::await_state);
  EXPECT_EQ(verdict(*store, S), fit_verdict::fits);
  deliver(*store, 2, S);
  EXPECT_EQ(verdict(*store, S), fit_verdict::redelivers);
  EXPECT_EQ(verdict(*store, A), fit_verdict::fits);
  deliver(*store, 3, A);

  // Records from before: all is compared, and the state at the head of the log does not undo it.
  store.reset();
  store = open("a");
  EXPECT_EQ(store->facts(S).row_after, 2u);
  store->set_cursor(2);
  EXPECT_TRUE(deliver(*store, 2, S));
  EXPECT_EQ(verdict(*store, A), fit_verdict::redelivers);

  store->mark_incomplete("a reason");
  EXPECT_EQ(verdict(*store, A), fit_verdict::rejoin);
  EXPECT_EQ(verdict(*store, NONE), fit_verdict::await_state);
  store->begin_adopt(state);
  EXPECT_EQ(store->commit_adopt(NONE, S).kind, kesh::adoption_kind::kept);
  EXPECT_EQ(verdict(*store, S), fit_verdict::redelivers);
  EXPECT_TRUE(deliver(*store, 2, S));
  EXPECT_TRUE(deliver(*store, 3, OTHER));  // another entry before it, as after a change of the log's head
  EXPECT_EQ(store->facts(A).row_after, std::nullopt);
  EXPECT_EQ(store->facts(OTHER).row_after, 3u);
  EXPECT_FALSE(deliver(*store, 4, B));
}

TEST_F(fit_store_test, reads_and_forgets_records)
{
  std::string decide("\x04\0\0\0\x02\0\0\0\x01\x0a\0\0\0\x02\x07\0\0\0", 18);
  decide.resize(1258);
  const std::string deliver("\x02\x07\0\0\0", 5);
  const auto with = [&decide](size_t at, char byte) {
    std::string bad = decide;
    bad[at] = byte;
    return bad;
  };
  const struct {
    const char *what;
    std::optional<std::string> decide, deliver;
    const char *error;
  } cases[] = {{"absent", decide, {}, "/paxos_deliver: "},
               {"absent", {}, deliver, "/paxos_decide: "},
               {"short", decide.substr(1), deliver, "paxos_decide has 1257 bytes, not 1258"},
               {"long", decide, deliver + "x", "paxos_deliver has 6 bytes, not 5"},
               {"251 entries", with(4, '\xfb'), deliver, "more than 250"},
               {"sender 0", with(8, '\0'), deliver, "entry 0"},
               {"sender 17", with(13, '\x11'), deliver, "entry 1"},
               {"good", decide, deliver, ""}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    for (const auto &[name, content] : {std::pair("paxos_decide", c.decide), std::pair("paxos_deliver", c.deliver)}) {
      fs::remove(directory / name);
      if (content) {
        write_file(directory / name, *content);
      }
    }
    std::string error;
    const auto records = kesh::library_records_read(directory.string(), error);
    EXPECT_EQ(records.has_value(), c.decide == decide);
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    if (records) {
      EXPECT_EQ(records->delivered, error.empty() ? A : kesh::library_entry{});
      EXPECT_EQ(records->decision, 4u);
      EXPECT_EQ(records->log, (std::vector{S, A}));
    }
  }
  EXPECT_EQ(kesh::library_log_start(directory.string()), S);
  std::string error;
  ASSERT_TRUE(kesh::forget_delivered(directory.string(), error)) << error;
  EXPECT_EQ(read_file(directory / "paxos_deliver"), std::string(5, '\0'));
  EXPECT_FALSE(kesh::forget_delivered(path("nowhere"), error));
}

}  // namespace
