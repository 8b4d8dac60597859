// The commands that change a node's files while no daemon runs.
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "admin/cluster_identity.h"
#include "admin/configure_steps.h"
#include "admin/store_commands.h"
#include "cluster/reform.h"
#include "exit_codes.h"
#include "store/store_aside.h"
#include "store_fixture.h"

namespace
{

using namespace store_testing;
using kesh::store_found;

int steps_left = 0;

class admin_test : public store_fixture
{
protected:
  /// Those that have content: a look at a store leaves an empty WAL.
  std::map<std::string, std::string> all_files() const
  {
    std::map<std::string, std::string> files;
    for (const auto &file : fs::directory_iterator(directory)) {
      if (!file.path().string().ends_with(".lock") && !file.path().string().ends_with("-shm") && file.file_size() > 0) {
        files[file.path().filename().string()] = read_file(file.path());
      }
    }
    return files;
  }
  /// Of what its functions print, the test takes no notice.
  template <typename action>
  static int silently(const action &act)
  {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const int code = act();
    said = testing::internal::GetCapturedStderr() + testing::internal::GetCapturedStdout();
    return code;
  }

  static inline std::string said;
};

TEST(cluster_identity, differs_between_clusters_and_generations)
{
  const auto macs = kesh::cluster_macs("a", 1, 16);
  EXPECT_EQ(kesh::macs_fault(macs, 16), "");
  EXPECT_EQ(macs[0].substr(0, 3), "02:");
  EXPECT_EQ(macs[0].substr(0, 15), macs[15].substr(0, 15));
  EXPECT_EQ(macs[15].substr(15), "10");
  EXPECT_EQ(kesh::cluster_macs("a", 1, 16), macs);
  EXPECT_NE(kesh::cluster_macs("a", 1, 3)[0], macs[0]) << "the count is part of what nodes agree on";
  for (const auto &[name, generation] : {std::pair("b", 1u), std::pair("a", 2u), std::pair("a1", 1u)}) {
    EXPECT_NE(kesh::cluster_macs(name, generation, 16)[0], macs[0]);
  }
  for (const char *name : {"", "a b", "a/b", "a\n"}) {
    EXPECT_NE(kesh::cluster_name_fault(name), "");
  }
  EXPECT_EQ(kesh::cluster_name_fault(kesh::trial_cluster_name()), "");
  EXPECT_NE(kesh::macs_fault({"02:00:00:00:00:01", "02:00:00:00:00:01"}, 2), "");
}

class configure_test : public admin_test
{
protected:
  kesh::configure_steps steps(const std::string &command, bool yes = false) const
  {
    return {.command = command,
            .yes = yes,
            .store_path = path("store"),
            .old_journal_path = path("journal"),
            .keep_store = nullptr,
            .write_cluster =
                [this] {
                  write_file(path("cluster"), "new");
                  return kesh::EXIT_OK;
                },
            .after_step = nullptr};
  }
  static int run(const kesh::configure_steps &what)
  {
    return silently([&] { return kesh::configure_steps_run(what); });
  }
  /// Runs it in a process that ends after so many steps. Returns whether it came to its end.
  static bool runs_through(kesh::configure_steps what, int step_count)
  {
    const pid_t child = fork();
    if (child == 0) {
      steps_left = step_count;
      what.after_step = [] {
        if (--steps_left == 0) {
          _exit(1);
        }
      };
      _exit(kesh::configure_steps_run(what) == kesh::EXIT_OK ? 0 : 2);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 2);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  /// What is left of "first": the daemon does not run on it, and "second" does not mix with it.
  void expect_interrupted(const kesh::configure_steps &second) const
  {
    kesh::store one;
    std::string fault;
    EXPECT_THROW(one.open(settings("store"), fault), kesh::store_failure);
    one.close();
    EXPECT_EQ(run(second), kesh::EXIT_REFUSED);
    EXPECT_NE(said.find("first"), std::string::npos);
  }
  void make_old_life() const
  {
    write_file(path("journal"), "0123abcd L 1 0000000000000000 2.0000000000000000.1 1 text\n");
    write_file(path("cluster"), "old");
  }
};

// A crash at any step: the daemon does not run on half of it, another command does not mix with it, the same one goes
// on, and every byte that was there is still there.
TEST_F(configure_test, goes_on_through_a_crash_at_any_step)
{
  bool is_through = false;
  for (int stop_at = 1; !is_through; ++stop_at) {
    SCOPED_TRACE(stop_at);
    ASSERT_LT(stop_at, 20);
    fs::remove_all(directory);
    fs::create_directory(directory);
    make_old_life();
    apply_lines(*open("store"), 1, 3);
    const auto before = all_files();
    EXPECT_EQ(run(steps("first")), kesh::EXIT_REFUSED);
    EXPECT_TRUE(all_files() == before);
    is_through = runs_through(steps("first", true), stop_at);
    if (!is_through) {
      expect_interrupted(steps("second"));
      EXPECT_EQ(run(steps(stop_at % 2 == 0 ? "first" : "second", stop_at % 2 != 0)), kesh::EXIT_OK) << said;
    }
    kesh::store one;
    EXPECT_EQ(one.open(settings("store"), why), store_found::absent);
    one.close();
    EXPECT_EQ(read_file(path("cluster")), "new");
    EXPECT_EQ(kesh::store_verify(aside_of("store")).n, 3u);
    EXPECT_EQ(read_file(aside_of("journal")), before.at("journal"));
    EXPECT_FALSE(fs::exists(path("journal")));
  }
}

TEST_F(configure_test, a_reform_keeps_the_store_through_a_crash_at_any_step)
{
  kesh::store_settings reformed = settings("store");
  reformed.identity += " again";
  const auto reform = [&](const char *command) {
    auto what = steps(command);
    what.keep_store = [&] {
      kesh::store_change_identity(path("store"), settings("store").identity, reformed.identity);
    };
    return what;
  };
  bool is_through = false;
  for (int stop_at = 1; !is_through; ++stop_at) {
    SCOPED_TRACE(stop_at);
    ASSERT_LT(stop_at, 20);
    fs::remove_all(directory);
    fs::create_directory(directory);
    apply_lines(*open("store"), 1, 3);
    is_through = runs_through(reform("first"), stop_at);
    if (!is_through) {
      expect_interrupted(reform("second"));
      EXPECT_EQ(run(reform("first")), kesh::EXIT_OK) << said;
    }
    kesh::store one;
    EXPECT_EQ(one.open(reformed, why), store_found::ready) << why;
    EXPECT_EQ(one.position().n, 3u);
  }
}

TEST_F(configure_test, touches_nothing_that_is_not_its_own)
{
  write_file(path("journal"), "somebody's letters, of more than ten bytes");
  auto before = all_files();
  EXPECT_EQ(run(steps("first", true)), kesh::EXIT_CONFIG);
  EXPECT_TRUE(all_files() == before);
  fs::remove(path("journal"));
  write_file(path("store"), "somebody's letters");
  before = all_files();
  EXPECT_EQ(run(steps("first", true)), kesh::EXIT_CONFIG);
  EXPECT_TRUE(all_files() == before);
  fs::remove(path("store"));
  const auto store = open("store");
  before = all_files();
  EXPECT_EQ(run(steps("first", true)), kesh::EXIT_REFUSED);
  EXPECT_TRUE(all_files() == before);

  // A cluster that cannot be written stays open for the next try.
  store->close();
  auto failing = steps("first");
  failing.write_cluster = [] { return kesh::EXIT_RUNTIME; };
  EXPECT_EQ(run(failing), kesh::EXIT_RUNTIME);
  EXPECT_EQ(run(steps("first")), kesh::EXIT_OK);
  EXPECT_EQ(read_file(path("cluster")), "new");
}

class store_commands_test : public admin_test
{
protected:
  kesh::store_access access(const std::string &name) const
  {
    return {.socket_path = path("no-socket"),
            .place = kesh::store_place{.store = settings(name), .records = directory.string()},
            .why = ""};
  }
  int backup(const std::string &name, const std::string &file) const
  {
    return silently([&] { return kesh::backup_command(access(name), path(file)); });
  }
  int verify(const std::string &name, const std::string &file) const
  {
    return silently([&] { return kesh::verify_command(access(name), file.empty() ? "" : path(file), true); });
  }
  int restore(const std::string &name, const std::string &file) const
  {
    return silently([&] { return kesh::restore_command(access(name), path(file)); });
  }
};

TEST_F(store_commands_test, restores_what_was_backed_up)
{
  write_file(path("paxos_deliver"), std::string("\x02\x07\0\0\0", 5));
  auto store = open("a");
  apply_lines(*store, 1, 5);
  ASSERT_EQ(backup("a", "running"), kesh::EXIT_OK) << said;
  store.reset();
  ASSERT_EQ(backup("a", "copy"), kesh::EXIT_OK) << said;
  const std::string copy = read_file(path("copy"));
  EXPECT_EQ(kesh::store_verify(path("running")).n, 5u);
  EXPECT_EQ(backup("a", "copy"), kesh::EXIT_CONFIG);
  EXPECT_EQ(verify("a", "copy"), kesh::EXIT_OK) << said;
  EXPECT_EQ(verify("a", ""), kesh::EXIT_OK) << said;

  store = open("a");
  apply_lines(*store, 6, 9);
  const auto ahead = store->position();
  const std::string state = state_of(*store);
  EXPECT_EQ(restore("a", "copy"), kesh::EXIT_REFUSED) << said;
  store.reset();
  ASSERT_EQ(restore("a", "copy"), kesh::EXIT_OK) << said;
  EXPECT_TRUE(read_file(path("copy")) == copy);
  EXPECT_EQ(kesh::store_verify(aside_of("a")).n, 9u);
  EXPECT_EQ(read_file(path("paxos_deliver")), std::string(5, '\0'));

  // It takes no payload before a state came, and the state gives it the rest.
  store = open("a");
  EXPECT_EQ(store->position().n, 5u);
  EXPECT_THROW(apply_lines(*store, 6, 6), kesh::store_failure);
  EXPECT_EQ(adopt(*store, state).kind, kesh::adoption_kind::extended);
  EXPECT_EQ(store->position().hash, ahead.hash);
  EXPECT_EQ(store->position().incomplete, "");
}

TEST_F(store_commands_test, restores_nothing_else)
{
  write_file(path("paxos_deliver"), std::string(5, '\1'));
  apply_lines(*open("a"), 1, 5);
  apply_lines(*open("fault"), 1, 5);
  kesh::database(path("fault"), kesh::database::mode::read_write).run("UPDATE payload SET hash = zeroblob(32)");
  write_file(path("text"), "somebody's letters");
  write_file(path("empty"), "");
  {
    kesh::store other;
    other.open({path("other"), "cluster B", state_max}, why);
    other.create();
  }
  EXPECT_EQ(verify("a", "fault"), kesh::EXIT_RUNTIME);
  EXPECT_NE(said.find("payload 1: its hash"), std::string::npos);
  const auto before = all_files();
  for (const char *file : {"fault", "text", "empty", "other", "none", "."}) {
    EXPECT_EQ(restore("a", file), kesh::EXIT_CONFIG) << file;
    EXPECT_TRUE(all_files() == before) << file;
  }
  EXPECT_EQ(verify("a", "text"), kesh::EXIT_CONFIG);
  EXPECT_EQ(verify("none", ""), kesh::EXIT_CONFIG);
}

}  // namespace
