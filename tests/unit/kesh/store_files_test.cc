// The store's files: which are used, refused or put aside, what a crash leaves, copies and their check.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "store/store_aside.h"
#include "store_fixture.h"

namespace
{

using namespace store_testing;
using kesh::store_found;

class store_files_test : public store_fixture
{
protected:
  std::map<std::string, std::string> all_files() const
  {
    std::map<std::string, std::string> files;
    for (const auto &file : fs::directory_iterator(directory)) {
      if (file.is_regular_file() && !file.path().string().ends_with(".lock")) {
        files[file.path().filename().string()] = read_file(file.path());
      }
    }
    return files;
  }
  void run_sql(const std::string &name, const char *sql) const
  {
    kesh::database(path(name), kesh::database::mode::read_write).run(sql);
  }
  store_found look(const std::string &name)
  {
    kesh::store one;
    return one.open(settings(name), why);
  }
  /// What a power cut would leave now: the files, without a close.
  void snapshot(const std::string &from, const std::string &to) const
  {
    for (const char *part : {"", "-wal"}) {
      if (fs::exists(path(from) + part)) {
        fs::copy_file(path(from) + part, path(to) + part);
      }
    }
  }
};

TEST_F(store_files_test, tells_a_damaged_store_from_somebodys_file)
{
  open("good")->close();
  auto store = open("good");
  apply_lines(*store, 1, 200);
  store.reset();
  const std::string good = read_file(path("good"));
  std::string damaged = good;
  for (size_t at = 4096 * 2; at < damaged.size(); at += 64) {
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
  }
  const struct {
    const char *name;
    std::string content;
    const char *sql;
    const char *what;  // nullptr: it is refused
  } cases[] = {
      {"empty", "", nullptr, "no bytes"},
      {"cut", good.substr(0, good.size() / 2), nullptr, "malformed"},
      {"damaged", damaged, nullptr, "check"},
      {"other", good, "UPDATE meta SET value = 'cluster B' WHERE key = 'identity'", "of another cluster: cluster B"},
      {"hole", good, "DELETE FROM payload WHERE n = 7", "rows are missing"},
      {"keyless", good, "DELETE FROM meta WHERE key = 'base_n'", "lacks base_n"},
      {"newer", good, "PRAGMA user_version = 2", nullptr},
      {"text", "my diary, which is longer than the head of a store would be; really it is", nullptr, nullptr},
      {"short", good.substr(0, 60), nullptr, nullptr},
      {"foreign", good, "PRAGMA application_id = 5", nullptr}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    write_file(path(c.name), c.content);
    if (c.sql != nullptr) {
      run_sql(c.name, c.sql);
    }
    const std::string before = read_file(path(c.name));
    if (c.what == nullptr) {
      EXPECT_THROW(look(c.name), kesh::store_failure);
      EXPECT_EQ(read_file(path(c.name)), before);
      continue;
    }
    kesh::store one;
    ASSERT_EQ(one.open(settings(c.name), why), store_found::unusable);
    EXPECT_NE(why.find(c.what), std::string::npos) << why;
    EXPECT_EQ(read_file(one.put_aside()), before);
    one.create();
    apply_lines(one, 1, 1);
  }
  fs::create_directory(path("directory"));
  fs::create_symlink(path("good"), path("link"));
  EXPECT_THROW(look("directory"), kesh::store_failure);
  EXPECT_THROW(look("link"), kesh::store_failure);
  EXPECT_EQ(look("good"), store_found::ready);
}

TEST_F(store_files_test, is_not_put_aside_because_a_key_was_edited)
{
  kesh::store_settings as = settings("a");
  as.identity = "blue, state.max 1000";
  kesh::store made;
  ASSERT_EQ(made.open(as, why), kesh::store_found::absent);
  made.create();
  made.close();
  as.identity = "blue, state.max 2000";
  EXPECT_THROW(kesh::store().open(as, why), kesh::store_unsuited);
  as.identity = "red, state.max 1000";
  EXPECT_EQ(kesh::store().open(as, why), kesh::store_found::unusable);
}

TEST_F(store_files_test, is_used_by_one_daemon_and_written_by_nobody_else)
{
  auto store = open("a");
  kesh::store second;
  EXPECT_THROW(second.open(settings("a"), why), kesh::store_failure);

  // A WAL without its database belongs to no fresh one.
  write_file(path("b-wal"), "of another database");
  write_file(path("b.creating"), "left by a crash");
  apply_lines(*open("b"), 1, 1);
  EXPECT_EQ(read_file(aside_of("b") + "-wal"), "");
  bool is_kept = false;
  for (const auto &[name, content] : all_files()) {
    is_kept = is_kept || (name.starts_with("b.aside-") && content == "of another database");
    EXPECT_NE(name, "b.creating");
  }
  EXPECT_TRUE(is_kept);
  expect_sound(path("b"));
}

int steps_left = 0;

// A crash at any step: the next open has the parts together, under one name or the other, and each byte of them.
TEST_F(store_files_test, puts_aside_through_a_crash_at_any_step)
{
  auto live = open("live");
  apply_lines(*live, 1, 3);
  bool is_through = false;
  for (int stop_at = 1; !is_through; ++stop_at) {
    SCOPED_TRACE(stop_at);
    ASSERT_LT(stop_at, 20);
    const std::string name = "s" + std::to_string(stop_at);
    snapshot("live", name);
    const std::string database = read_file(path(name));
    const std::string wal = read_file(path(name) + "-wal");
    ASSERT_GT(wal.size(), 0u);
    const pid_t child = fork();
    if (child == 0) {
      steps_left = stop_at;
      kesh::put_aside(path(name), [] {
        if (--steps_left == 0) {
          _exit(1);
        }
      });
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    is_through = WIFEXITED(status) && WEXITSTATUS(status) == 0;

    kesh::store again;
    ASSERT_EQ(again.open(settings(name), why), store_found::absent);
    const std::string aside = aside_of(name);
    EXPECT_EQ(read_file(aside), database);
    EXPECT_EQ(read_file(aside + "-wal"), wal);
    EXPECT_FALSE(kesh::has_parts(path(name)));
    EXPECT_FALSE(fs::exists(path(name) + ".putting-aside"));
    again.create();
    EXPECT_EQ(again.position().n, 0u);
    EXPECT_EQ(kesh::store_verify(aside).n, 3u);
  }
}

TEST_F(store_files_test, never_overwrites_what_was_put_aside)
{
  for (int i = 0; i < 3; ++i) {
    auto store = open("a");
    apply_lines(*store, 1, 1, "store " + std::to_string(i));
    store->put_aside();
  }
  size_t kept = 0;
  for (const auto &file : all_files()) {
    kept += file.first.starts_with("a.aside-") ? 1 : 0;
  }
  EXPECT_EQ(kept, 3u);

  // An intent that names something else, or a place that is taken, moves nothing.
  apply_lines(*open("a"), 1, 1);
  for (const char *intent : {"../elsewhere\n", "a.aside-\n", "a.aside-taken\n", "a.aside-cut"}) {
    write_file(path("a.aside-taken"), "somebody's");
    write_file(path("a.putting-aside"), intent);
    const auto before = all_files();
    EXPECT_THROW(look("a"), kesh::store_failure) << intent;
    EXPECT_EQ(all_files(), before) << intent;
  }
}

TEST_F(store_files_test, loses_whole_transactions_with_the_end_of_its_wal)
{
  auto live = open("live");
  for (uint64_t i = 1; i <= 6; ++i) {
    apply(*live, bytes_of(2, {{2 * i}, {2 * i + 1, 1, std::string(3000, 'x')}}));
  }
  const auto end = fs::file_size(path("live-wal"));
  uint64_t last = 0;
  for (uintmax_t size = 0; size <= end; size += 1711) {
    const std::string name = "cut" + std::to_string(size);
    snapshot("live", name);
    fs::resize_file(path(name) + "-wal", size);
    auto store = open(name);
    const auto at = store->position();
    EXPECT_EQ(at.lines, 2 * at.n);
    EXPECT_GE(at.n, last) << size;
    last = at.n;
    expect_sound(path(name));
    for (uint64_t i = at.n + 1; i <= 6; ++i) {
      apply(*store, bytes_of(2, {{2 * i}, {2 * i + 1, 1, std::string(3000, 'x')}}));
    }
    expect_same(*store, *live);
    fs::remove(path(name));
  }
  EXPECT_GE(last, 5u);
}

TEST_F(store_files_test, is_copied_while_payloads_come)
{
  auto store = open("a");
  apply_lines(*store, 1, 50, std::string(2000, 'x'));
  std::atomic<bool> is_enough = false;
  std::thread writer([&] {
    for (uint64_t i = 51; !is_enough; ++i) {
      apply_lines(*store, i, i, std::string(2000, 'y'));
    }
  });
  for (int i = 0; i < 5; ++i) {
    const std::string name = "copy" + std::to_string(i);
    const uint64_t before = store->position().n;
    kesh::store_copy(path("a"), path(name));
    const auto copied = kesh::store_verify(path(name));
    EXPECT_EQ(copied.fault, "");
    EXPECT_GE(copied.n, before);
    EXPECT_EQ(copied.verified, copied.n);
  }
  is_enough = true;
  writer.join();
  const std::string copy = read_file(path("copy0"));
  EXPECT_THROW(kesh::store_copy(path("a"), path("copy0")), kesh::store_failure);
  EXPECT_EQ(read_file(path("copy0")), copy);
  EXPECT_THROW(kesh::store_copy(path("a"), path("nowhere/copy")), kesh::store_failure);
  // A copy is a store.
  auto restored = open("copy0");
  apply_lines(*restored, 1000, 1000);
  for (const auto &file : all_files()) {
    EXPECT_FALSE(file.first.starts_with("copy1.")) << "a temporary file is left: " << file.first;
  }
}

TEST_F(store_files_test, verifies)
{
  {
    auto store = open("a");
    apply_lines(*store, 1, 9);
    apply(*store, bytes_of(2, {{9, 2}, {10}}));
  }
  const struct {
    const char *name;
    const char *sql;
    const char *fault;
  } cases[] = {
      {"sound", "SELECT 1", ""},
      {"text", "UPDATE item SET text = CAST('tExt' AS BLOB) WHERE n = 4", "payload 4: its hash"},
      {"hash", "UPDATE payload SET hash = zeroblob(32) WHERE n = 6", "payload 6: its hash"},
      {"attempt", "UPDATE item SET attempt = 2 WHERE n = 9", "payload 9: its hash"},
      {"base", "UPDATE meta SET value = zeroblob(32) WHERE key = 'base_hash'", "payload 1: its hash"},
      {"row", "DELETE FROM payload WHERE n = 5", "payload 6: it follows payload 4"},
      {"item", "DELETE FROM item WHERE n = 8", "payload 8: it has other items"},
      {"line", "UPDATE item SET line = 12 WHERE n = 3", "payload 3: item 1 has line 12, not 3"},
      {"first line", "UPDATE payload SET first_line = 3 WHERE n = 2", "payload 2: its lines begin with 3, not 2"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    fs::copy_file(path("a"), path(c.name));
    run_sql(c.name, c.sql);
    const auto result = kesh::store_verify(path(c.name));
    EXPECT_TRUE(result.fault.starts_with(c.fault)) << result.fault;
    EXPECT_EQ(result.fault.empty(), *c.fault == '\0') << result.fault;
  }
  // One byte of a text on the disk, and one of a hash.
  const std::string sound = read_file(path("a"));
  const size_t hash_at = sound.find(kesh::hash_bytes(open("a")->position().hash));
  ASSERT_NE(hash_at, std::string::npos);
  for (const size_t at : {sound.find("text", sound.find("text")), hash_at + 5}) {
    std::string flipped = sound;
    flipped[at] = static_cast<char>(flipped[at] ^ 1);
    write_file(path("flipped"), flipped);
    EXPECT_NE(kesh::store_verify(path("flipped")).fault, "") << at;
  }
  EXPECT_THROW(kesh::store_verify(path("nothing")), kesh::store_failure);
}

}  // namespace
