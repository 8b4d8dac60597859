// States: what a store makes of one, and which are refused.
#include "store_fixture.h"

namespace
{

using namespace store_testing;
using kesh::adoption_kind;

class store_state_test : public store_fixture
{
protected:
  /// A store with so many payloads of the common history, then so many of its own.
  std::unique_ptr<kesh::store> make(const std::string &name, uint64_t common, uint64_t own)
  {
    auto result = open(name);
    apply_lines(*result, 1, common);
    apply_lines(*result, common + 1, common + own, "only " + name);
    return result;
  }
};

TEST_F(store_state_test, keeps_extends_or_replaces)
{
  const uint64_t whole = 600 * (kesh::STATE_ROW_SIZE + 4 + 17 + 17 + 4) + 300;
  const struct {
    const char *what;
    uint64_t state_common, state_own, common, own;
    uint64_t state_bytes;
    adoption_kind kind;
    uint64_t n;
    uint64_t first_line;
  } cases[] = {{"equal", 5, 0, 5, 0, whole, adoption_kind::kept, 5, 1},
               {"ahead of it", 5, 0, 9, 0, whole, adoption_kind::kept, 9, 1},
               {"empty ones", 0, 0, 0, 0, whole, adoption_kind::kept, 0, 1},
               {"behind it", 9, 0, 5, 0, whole, adoption_kind::extended, 9, 1},
               {"empty, all of it there", 9, 0, 0, 0, whole, adoption_kind::extended, 9, 1},
               {"diverged, equal n", 4, 1, 4, 1, whole, adoption_kind::replaced, 5, 1},
               {"diverged, ahead", 4, 1, 4, 3, whole, adoption_kind::replaced, 5, 1},
               {"diverged, behind", 4, 4, 4, 2, whole, adoption_kind::replaced, 8, 1},
               {"too far behind for the texts", 700, 0, 50, 0, whole, adoption_kind::replaced, 700, 101},
               {"just near enough", 700, 0, 100, 0, whole, adoption_kind::extended, 700, 1},
               {"empty, and texts are missing", 700, 0, 0, 0, whole, adoption_kind::replaced, 700, 101},
               {"no room for texts at all", 20, 0, 0, 0, 1, adoption_kind::replaced, 20, 21}};
  int k = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    state_max = c.state_bytes;
    const std::string a = "a" + std::to_string(++k);
    const std::string b = "b" + std::to_string(k);
    auto from = make(a, c.state_common, c.state_own);
    auto to = make(b, c.common, c.own);
    const auto before = to->position();
    const auto result = adopt(*to, state_of(*from));
    EXPECT_EQ(result.kind, c.kind);
    EXPECT_EQ(to->position().n, c.n);
    EXPECT_EQ(to->position().first_line, c.first_line);
    EXPECT_EQ(to->facts({}).state_entry,
              c.n == from->position().n ? kesh::library_entry({1, 2}) : kesh::library_entry{});
    const bool is_put_aside = c.kind == adoption_kind::replaced && before.n != 0;
    EXPECT_EQ(result.aside, is_put_aside ? aside_of(b) : "");
    if (is_put_aside) {
      const auto kept = kesh::store_verify(result.aside);
      EXPECT_EQ(kept.fault, "");
      EXPECT_EQ(kept.n, before.n);
    }
    // Both go on with the same; what the store was ahead is delivered again.
    const std::string more = bytes_of(2, {{c.state_common + 1}});
    const auto next = apply(*to, more);
    EXPECT_EQ(next.is_redelivered, before.n > result.state_n && c.kind == adoption_kind::kept);
    EXPECT_EQ(next.items, apply(*from, more).items);
    if (!next.is_redelivered) {
      expect_same(*from, *to);
    }
    expect_sound(path(b));
    to.reset();
    EXPECT_EQ(open(b)->position().first_line, c.first_line);
  }
}

// Two that adopted the same state go on the same way, and can hand it on.
TEST_F(store_state_test, hands_a_state_on)
{
  state_max = 3000;
  auto a = make("a", 700, 0);
  auto b = make("b", 0, 0);
  auto c = make("c", 0, 1);
  adopt(*b, state_of(*a));
  EXPECT_EQ(state_of(*b), state_of(*a));
  adopt(*c, state_of(*b));
  EXPECT_EQ(state_of(*c), state_of(*a));
}

// What was delivered again and differed is not kept just because the state agrees with what was before.
TEST_F(store_state_test, replaces_a_store_that_differed)
{
  auto a = make("a", 5, 0);
  auto b = make("b", 4, 3);
  const std::string early = state_of(*make("early", 4, 0));
  EXPECT_EQ(adopt(*b, early).kind, adoption_kind::kept);
  EXPECT_THROW(apply(*b, bytes_of(2, {{5}})), kesh::store_failure);
  b.reset();
  b = open("b");
  EXPECT_EQ(adopt(*b, early).kind, adoption_kind::replaced);
  apply(*b, bytes_of(2, {{5}}));
  EXPECT_EQ(b->position().incomplete, "");
  expect_same(*a, *b);
}

// Given on, it would stop every node.
TEST_F(store_state_test, gives_no_state_of_a_damaged_row)
{
  make("a", 5, 0).reset();
  {
    kesh::database in(path("a"), kesh::database::mode::read_write);
    kesh::statement damage(in, "UPDATE item SET text = 'tezt' WHERE n = 3");
    kesh::query(damage).run();
  }
  auto a = open("a");
  a->set_cursor(6);
  EXPECT_THROW(state_of(*a), kesh::store_failure);
  a.reset();
  EXPECT_EQ(kesh::store().open(settings("a"), why), kesh::store_found::unusable);
  EXPECT_NE(why.find("no sound state can be made of it"), std::string::npos) << why;
}

TEST_F(store_state_test, refuses_what_is_no_state)
{
  auto a = make("a", 3, 0);
  auto b = make("b", 1, 0);
  const std::string state = state_of(*a);
  ASSERT_EQ(state.substr(0, 5), "KST1\x01");
  for (size_t size = 0; size < state.size(); ++size) {
    EXPECT_THROW(b->begin_adopt(state.substr(0, size)), kesh::store_failure) << size;
  }
  // With a good checksum behind bad content.
  for (size_t at = 0; at < state.size() - 32; ++at) {
    std::string bad = state.substr(0, state.size() - 32);
    bad[at] = static_cast<char>(bad[at] ^ 0x40);
    kesh::hasher hash;
    hash.add(bad);
    bad += kesh::hash_bytes(hash.finish());
    try {
      b->begin_adopt(bad);
    } catch (const kesh::store_failure &) {
      continue;
    }
    // `after` and the window's numbers may be anything.
    EXPECT_EQ(adopt(*open("c" + std::to_string(at)), bad).state_n, 3u);
  }
  EXPECT_THROW(b->begin_adopt("KST1"), kesh::store_failure);
  EXPECT_THROW(b->commit_adopt({}, {}), kesh::store_failure) << "the state before the refused one is gone too";
  EXPECT_EQ(b->position().n, 1u);

  kesh::store other;
  other.open({path("other"), "cluster B", state_max}, why);
  other.create();
  EXPECT_THROW(other.begin_adopt(state), kesh::store_failure);
}

}  // namespace
