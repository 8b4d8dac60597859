// What the commands make of a daemon's answers, and of a daemon that does not answer.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "client/alive.h"
#include "client/client_commands.h"
#include "client/client_journal.h"
#include "client/client_submit.h"
#include "client/vrrp_fifo.h"
#include "exit_codes.h"
#include "unique_fd.h"

namespace
{

namespace fs = std::filesystem;
using std::chrono::steady_clock;

/// Takes one connection, plays its part, and keeps the connection open or ends it.
class fake_daemon
{
public:
  struct part {
    bool accepts = true;
    std::string answer = "{\"ok\":true,\"node\":2,\"life\":\"00ff\"}\n";
    std::optional<size_t> reads{};  ///< newlines that are read before `then`; none: all there are, to the client's end
    std::string then{};
    bool stays = false;  ///< says nothing more and reads nothing, until the client leaves
  };

  fake_daemon(const std::string &path, part what)
      : what_(std::move(what)), listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_.get(), 4), 0);
    if (what_.accepts) {
      thread_ = std::thread([this] { play(); });
    }
  }
  ~fake_daemon()
  {
    if (thread_.joinable()) {
      thread_.join();
    }
  }

private:
  void play()
  {
    const platform::unique_fd peer(accept(listener_.get(), nullptr, nullptr));
    read_lines(peer.get(), 1);
    say(peer.get(), what_.answer);
    read_lines(peer.get(), what_.reads.value_or(SIZE_MAX));
    say(peer.get(), what_.then);
    if (what_.stays) {
      pollfd left{peer.get(), POLLRDHUP, 0};
      do {
        left.revents = 0;
      } while (poll(&left, 1, 20'000) > 0 && (left.revents & POLLHUP) == 0);
    }
  }
  static void say(int fd, const std::string &text) { send(fd, text.data(), text.size(), MSG_NOSIGNAL); }
  static void read_lines(int fd, size_t count)
  {
    char byte;
    while (count > 0 && recv(fd, &byte, 1, 0) == 1) {
      count -= byte == '\n' ? 1 : 0;
    }
  }

  part what_;
  platform::unique_fd listener_;
  std::thread thread_;
};

class client_test : public testing::Test
{
protected:
  void SetUp() override
  {
    std::string name = (fs::temp_directory_path() / "kesh_client_XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
  }
  void TearDown() override { fs::remove_all(directory); }
  std::string path(const char *name) const { return (directory / name).string(); }

  fs::path directory;
};

// Each line has one fate, whatever the daemon does, and no fate is better than what is known.
TEST(vrrp_fifo, tells_the_states_of_one_instance_in_their_order)
{
  const struct {
    const char *line, *instance, *word;
  } cases[] = {
      {"INSTANCE \"cluster\" MASTER 130", "", "MASTER"},
      {"INSTANCE \"cluster\" BACKUP 130", "cluster", "BACKUP"},
      {"INSTANCE \"cluster\" FAULT 130", "other", ""},
      {"INSTANCE \"a \" b\" STOP 1\r", "a \" b", "STOP"},
      {"INSTANCE \"cluster\" MASTER_RX_LOWER_PRI 130", "", ""},
      {"GROUP \"cluster\" MASTER 0", "", ""},
      {"INSTANCE cluster MASTER", "", ""},
      {"INSTANCE \" MASTER", "", ""},
      {"", "", ""},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(kesh::vrrp_word_of(c.line, c.instance).value_or(""), c.word) << c.line;
  }

  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::string text = "INSTANCE \"c\" MASTER 1\nINSTANCE \"c\" BACKUP 1\nINSTANCE \"c\" MAS";
  ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  std::vector<std::string> noted;
  const auto note = [&](const std::string &word) {
    noted.push_back(word);
    if (word == "BACKUP") {
      close(ends[1]);
    }
    return 0;
  };
  EXPECT_EQ(kesh::vrrp_follow("/dev/fd/" + std::to_string(ends[0]), "", note), kesh::EXIT_OK);
  close(ends[0]);
  EXPECT_EQ(noted, (std::vector<std::string>{"MASTER", "BACKUP", "STOP"})) << "the last one: keepalived went away";
}

TEST_F(client_test, counts_each_line_once)
{
  using part = fake_daemon::part;
  const std::string three = "a\nb\nc\n";
  std::string many;
  for (int i = 0; i < 100'000; i++) {
    many += "line that fills the buffers of the socket\n";
  }
  const struct {
    const char *what;
    std::string input;
    part plays;
    int code;
    std::optional<uint64_t> acknowledged, refused, unknown;  // none: any number but 0
  } cases[] = {
      {"all is well", three, {.then = "ok 1 7 50 1 11\nok 3 9 50 3 13\nok 2 8 50 1 12\ndone\n"}, 0, 3, 0, 0},
      {"no newline at the end", "a\nb", {.then = "ok 1 7 50 1 11\nok 2 8 50 1 12\ndone\n"}, 0, 2, 0, 0},
      {"refused", three, {.then = "ok 1 7 50 1 11\nrefused 2 too late\nrefused 3 a line before\ndone\n"}, 5, 1, 2, 0},
      {"one unknown",
       three,
       {.then = "refused 2 too late\nunknown 1 7 2 no quorum\nok 3 9 50 1 11\ndone\n"},
       6,
       1,
       1,
       1},
      {"went away", three, {.reads = 3, .then = "ok 1 7 50 1 11\n"}, 6, 1, 0, 2},
      {"went away with half a verdict", three, {.reads = 3, .then = "ok 1 7 50 1 11\nok 2 8 50 1 1"}, 6, 1, 0, 2},
      {"is silent", three, {.reads = 3, .then = "ok 1 7 50 1 11\n", .stays = true}, 6, 1, 0, 2},
      {"says no done", three, {.then = "ok 1 7 50 1 11\nok 3 9 50 3 13\nok 2 8 50 1 12\n", .stays = true}, 1, 3, 0, 0},
      {"reads no more", many, {.reads = 0, .stays = true}, 6, 0, {}, {}},
      {"refuses while much is to be sent", many, {.reads = 9, .then = "refused 1 full\n"}, 6, 0, {}, {}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove(path("socket"));
    std::ofstream(path("input")) << c.input;
    const fake_daemon daemon(path("socket"), c.plays);
    const kesh::submit_options options{.input = path("input"), .timeout_s = 0.05, .latency_path = "", .as_json = true};
    const auto begun = steady_clock::now();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int code = kesh::submit_command(path("socket"), options);
    const auto summary = nlohmann::json::parse(testing::internal::GetCapturedStdout());
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(code, c.code) << said;
    EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(10));
    EXPECT_EQ(said.empty(), c.code == 0) << said;
    const auto expect_count = [&](const char *name, std::optional<uint64_t> count) {
      const auto found = summary.at(name).get<uint64_t>();
      EXPECT_TRUE(count ? found == *count : found != 0) << name << ' ' << found << ": " << said;
    };
    expect_count("acknowledged", c.acknowledged);
    expect_count("not_submitted", c.refused);
    expect_count("unknown", c.unknown);
    const auto lines = std::count(c.input.begin(), c.input.end(), '\n') + (c.input.back() == '\n' ? 0 : 1);
    EXPECT_EQ(summary.at("lines"), lines);
    EXPECT_EQ(summary.at("life"), "00ff");
  }
}

TEST_F(client_test, waits_for_no_daemon_that_hangs)
{
  const fake_daemon daemon(path("socket"), {.accepts = false});
  testing::internal::CaptureStderr();
  const kesh::submit_options options{.input = "/dev/null", .timeout_s = 0.05, .latency_path = ""};
  EXPECT_EQ(kesh::submit_command(path("socket"), options), kesh::EXIT_UNREACHABLE);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("does not answer in time"), std::string::npos);
}

// The kernel lets 16 KiB wait: a queue that nobody empties takes no sign after half an hour.
TEST_F(client_test, alive_empties_the_queue_and_tells_how_old_the_last_sign_is)
{
  const key_t key = static_cast<key_t>(0x56580000 + getpid() % 0xffff);
  const auto said = [&](uint32_t max_age_s, int code) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(kesh::alive_command(key, max_age_s), code);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_NE(said(10, kesh::EXIT_UNREACHABLE).find("no library has begun"), std::string::npos);
  const int queue = msgget(key, IPC_CREAT | IPC_EXCL | 0600);
  ASSERT_GE(queue, 0);
  const std::unique_ptr<const int, void (*)(const int *)> removed(
      &queue, [](const int *id) { msgctl(*id, IPC_RMID, nullptr); });
  EXPECT_EQ(said(10, kesh::EXIT_REFUSED), "not alive: no sign of life was given yet\n");
  const struct {
    long type = 1;
    char text[8] = {};
  } sign;
  EXPECT_EQ(msgsnd(queue, &sign, sizeof sign.text, 0), 0);
  EXPECT_EQ(said(10, kesh::EXIT_OK).substr(0, 6), "alive:");
  while (msgsnd(queue, &sign, sizeof sign.text, IPC_NOWAIT) == 0) {
  }
  const std::jthread library([&] { EXPECT_EQ(msgsnd(queue, &sign, sizeof sign.text, 0), 0); });  // waits for room
  EXPECT_EQ(said(10, kesh::EXIT_OK).substr(0, 6), "alive:");
}

TEST_F(client_test, health_and_vrrp_are_for_keepalived)
{
  using enum kesh::health_question;
  const std::string good = R"({"ok":true,"ready":{"yes":true,"reason":""},"eligible":{"yes":true,"reason":""}})";
  const std::string bad =
      R"({"ok":true,"ready":{"yes":false,"reason":"a"},"eligible":{"yes":false,"reason":"no text"}})";
  const struct {
    std::string answer;
    kesh::health_question asked;
    int code;
    const char *text;
  } cases[] = {{good, live, 0, "live\n"},         {bad, live, 0, "live\n"},
               {good, ready, 0, "ready\n"},       {bad, ready, 5, "not ready: a\n"},
               {good, eligible, 0, "eligible\n"}, {bad, eligible, 5, "not eligible: no text\n"}};
  for (const auto &c : cases) {
    fs::remove(path("socket"));
    const fake_daemon daemon(path("socket"), {.answer = c.answer + '\n'});
    testing::internal::CaptureStdout();
    const int code = kesh::health_command(path("socket"), c.asked, false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.text);
    EXPECT_EQ(code, c.code);
  }
  fs::remove(path("socket"));
  // Before the daemon is there, too: the file is what counts.
  EXPECT_EQ(kesh::vrrp_command(path("socket"), path("vrrp"), "MASTER"), kesh::EXIT_OK);
  std::string word;
  std::getline(std::ifstream(path("vrrp")), word);
  EXPECT_EQ(word, "MASTER");
  testing::internal::CaptureStderr();
  EXPECT_EQ(kesh::vrrp_command(path("socket"), path("vrrp"), "master"), kesh::EXIT_USAGE);
  EXPECT_EQ(kesh::vrrp_command(path("socket"), path("none/vrrp"), "FAULT"), kesh::EXIT_CONFIG);
  testing::internal::GetCapturedStderr();
}

TEST(journal_row, is_read_and_printed)
{
  const std::string row = "12\t7\tab12ab12ab120003\t3.00000000000000ff.5\t2\t1700000000\tA\\\\B\\x0a\tC";
  kesh::journal_row read;
  ASSERT_TRUE(kesh::journal_row_parse(row, read));
  EXPECT_EQ(kesh::journal_row_text(read, kesh::journal_form::text), "A\\B\n\tC\n");
  EXPECT_EQ(kesh::journal_row_text(read, kesh::journal_form::tags),
            "12\tab12ab12ab120003\t3.00000000000000ff.5\t2\tA\\\\B\\x0a\tC\n");
  EXPECT_EQ(nlohmann::json::parse(kesh::journal_row_text(read, kesh::journal_form::json)),
            nlohmann::json::parse(R"({"line":12,"n":7,"hash":"ab12ab12ab120003","node":3,"life":"00000000000000ff",
                                      "sequence":5,"attempt":2,"at":1700000000,"text":"A\\B\n\tC"})"));
  ASSERT_TRUE(kesh::journal_row_parse("1\t1\th\t3.ff.5\t2\t17\t\xff\xfe", read));
  const auto bytes = nlohmann::json::parse(kesh::journal_row_text(read, kesh::journal_form::json));
  EXPECT_EQ(bytes.at("text_hex"), "fffe");
  EXPECT_FALSE(bytes.contains("text"));
  for (size_t size = 0; size < row.find('A'); size++) {
    EXPECT_FALSE(kesh::journal_row_parse(row.substr(0, size), read)) << size;
  }
  EXPECT_FALSE(kesh::journal_row_parse("1\t1\th\t3.ff\t2\t17\ttext", read));
  EXPECT_FALSE(kesh::journal_row_parse("1\t1\th\t3.ff.5\t2\t17\t\\x", read));
}

}  // namespace
