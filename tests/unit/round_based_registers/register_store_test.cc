#include "round_based_registers/register_store.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "layer_fixture.h"

namespace
{

int syncs = 0;

}  // namespace

// Stands before the one of libc.
extern "C" void sync() noexcept
{
  ++syncs;
  syscall(SYS_sync);
}

namespace
{

using wire::bytes;
using wire::operator+;
using wire::words;

const bytes VALUE = {2, 9, 0, 0, 0};

acceptor_state state_of(uint32_t read_round, uint32_t write_round, const bytes &value)
{
  acceptor_state state;
  state.read_round = read_round;
  state.write_round = write_round;
  EXPECT_TRUE(state.value.assign(value));
  return state;
}

class register_store : public layer_test
{
};

TEST_F(register_store, has_these_bytes)
{
  ASSERT_EQ(store_save(7, state_of(12, 9, VALUE)), 0);
  EXPECT_EQ(files::all(), (std::map<std::string, bytes>{{"rb_reg.7", words({12, 9, 5}) + VALUE}}));
  ASSERT_EQ(store_save(7, state_of(13, 9, {})), 0);  // shorter: nothing of the old file may remain
  EXPECT_EQ(files::read("rb_reg.7"), words({13, 9, 0}));
}

// The process before this one may have been killed between a rename and its sync: what is read must be on the disk.
TEST_F(register_store, takes_over_what_a_killed_process_left)
{
  files::write("rb_reg.7", words({12, 9, 5}) + VALUE);
  files::write("rb_reg.8.tmp", VALUE);
  syncs = 0;
  store_take_over();
  EXPECT_EQ(syncs, 1);
  EXPECT_EQ(files::all().count("rb_reg.7"), 1u);
  EXPECT_EQ(files::all().count("rb_reg.8.tmp"), 0u);
}

// A promise that is not read back is a promise broken.
TEST_F(register_store, reads_back_what_it_saved_or_refuses)
{
  acceptor_state state;
  EXPECT_EQ(store_load(8, state), 0);  // no file
  EXPECT_EQ(state.read_round, 0u);

  const bytes whole = words({3, 2, 5}) + VALUE;
  files::write("rb_reg.8", whole + bytes{0xff});
  ASSERT_EQ(store_load(8, state), 0);
  EXPECT_EQ(state.read_round, 3u);
  EXPECT_EQ(state.write_round, 2u);
  EXPECT_EQ(bytes(state.value.bytes().begin(), state.value.bytes().end()), VALUE);

  for (size_t n = 0; n < whole.size(); ++n) {
    SCOPED_TRACE(n);
    acceptor_state fresh;
    files::write("rb_reg.8", {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)});
    EXPECT_EQ(store_load(8, fresh), -1);
    EXPECT_EQ(fresh.read_round, 0u);
    EXPECT_EQ(fake::logged("store_load(): file /flashdisk/cons/rb_reg.8 truncated\n"), n + 1);
  }
  acceptor_state fresh;
  files::write("rb_reg.8", words({3, 2, 0xfffffff8}));  // 12 + L wraps
  EXPECT_EQ(store_load(8, fresh), -1);

  files::clear();
  files::write_unopenable("rb_reg.8");
  EXPECT_EQ(store_load(8, fresh), -1);
  EXPECT_EQ(fake::logged("store_load(): open(/flashdisk/cons/rb_reg.8) failed"), 1u);
}

TEST_F(register_store, keeps_the_old_file_when_a_save_fails)
{
  ASSERT_EQ(store_save(7, state_of(1, 0, {})), 0);
  files::block_saves("rb_reg.7");
  EXPECT_EQ(store_save(7, state_of(2, 0, {})), -1);
  EXPECT_EQ(fake::logged("store_save(): - open(/flashdisk/cons/rb_reg.7.tmp) failed"), 1u);
  EXPECT_EQ(files::read("rb_reg.7"), words({1, 0, 0}));
}

// A register file too many revives a dead register, one too few forgets a promise.
TEST_F(register_store, deletes_register_files_up_to_the_bound_and_nothing_else)
{
  for (const char *name : {"rb_reg.4", "rb_reg.5", "rb_reg.3", "rb_reg.6", "rb_reg.5.tmp", "msg_id", "rb_reg.5x"}) {
    files::write(name, {1});
  }
  const uint32_t kept[] = {3};
  EXPECT_EQ(store_delete_up_to(5, kept, [](uint32_t id) { return id == 6; }), 0);
  EXPECT_EQ(store_delete_up_to(5, kept), 1);  // a file that nobody knows has to be looked for again
  EXPECT_FALSE(files::exists("rb_reg.4") || files::exists("rb_reg.5"));
  EXPECT_EQ(files::all().size(), 5u);
  store_delete_up_to(STORE_ALL, {});
  EXPECT_EQ(files::all().size(), 3u);
  EXPECT_EQ(store_delete(9), 0);
  EXPECT_EQ(fake::logged("store_delete(): unlink() failed"), 1u);
}

}  // namespace
