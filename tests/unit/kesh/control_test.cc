#include "control/server.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>
#include <fstream>

#include "control/request.h"
#include "watched.h"

namespace
{

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kesh::item_fate;

class test_client
{
public:
  explicit test_client(const std::string &path) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    const timeval timeout{20, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  }
  /// Returns how much was sent: all but when `flags` say not to wait.
  size_t send(std::string_view bytes, int flags = 0)
  {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t sent = ::send(fd.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | flags);
      if (sent <= 0) {
        break;
      }
      done += static_cast<size_t>(sent);
    }
    return done;
  }
  /// "" at the end of the connection.
  std::string line()
  {
    size_t end;
    while ((end = buffer.find('\n')) == std::string::npos) {
      char bytes[4096];
      const ssize_t got = recv(fd.get(), bytes, sizeof bytes, 0);
      if (got <= 0) {
        EXPECT_TRUE(got == 0 || errno == ECONNRESET) << strerror(errno);
        return "";
      }
      buffer.append(bytes, static_cast<size_t>(got));
    }
    const std::string result = buffer.substr(0, end);
    buffer.erase(0, end + 1);
    return result;
  }
  std::string ask(const std::string &request)
  {
    send(request + '\n');
    return line();
  }
  void end_input() { shutdown(fd.get(), SHUT_WR); }

  platform::unique_fd fd;
  std::string buffer;
};

/// Keeps what was pushed until the test answers it, or answers at once.
class fake_taker : public kesh::item_taker
{
public:
  uint64_t open_client(const kesh::client_options &options, std::string &refusal) override
  {
    refusal = refuses;
    receiver = options.receiver;
    timeout = options.timeout;
    return refuses.empty() ? state.with([&] { return clients++, ++last; }) : 0;
  }
  kesh::push_verdict push(uint64_t client, std::span<kesh::new_item> items) override
  {
    std::vector<kesh::item_result> results;
    for (auto &one : items) {
      if (one.text == "full") {
        break;
      }
      const std::string text = std::move(one.text);
      results.push_back({item_fate::applied, 1, one.number, 10 + one.number, 20 + one.number, 30, text.size(), ""});
    }
    state.with([&] {
      for (const auto &one : results) {
        pushed.emplace_back(client, one);
      }
    });
    if (answers_at_once) {
      receiver->on_results(client, results);
    }
    return {results.size(), "too many lines are open on this node (limit 3)"};
  }
  void close_client(uint64_t) override
  {
    state.with([&] { clients--; });
  }

  void answer(size_t index, item_fate fate = item_fate::applied, const char *reason = "")
  {
    auto [client, result] = wait_for_push(index);
    result.fate = fate;
    result.reason = reason;
    receiver->on_results(client, {&result, 1});
  }
  std::pair<uint64_t, kesh::item_result> wait_for_push(size_t index)
  {
    return state.await([&] { return pushed.size() > index; }, [&] { return pushed.at(index); });
  }
  void wait_for_clients(size_t count)
  {
    state.await([&] { return clients == count; });
  }
  size_t pushed_count()
  {
    return state.with([&] { return pushed.size(); });
  }

  std::atomic<bool> answers_at_once = true;
  std::string refuses;  // set before the request
  std::chrono::nanoseconds timeout{0};

private:
  watched state;
  kesh::result_receiver *receiver = nullptr;
  std::vector<std::pair<uint64_t, kesh::item_result>> pushed;
  uint64_t last = 0;
  size_t clients = 0;
};

class control_test : public testing::Test
{
protected:
  void SetUp() override
  {
    std::string name = (fs::temp_directory_path() / "kesh_control_XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    settings.socket_path = (directory / "socket").string();
    settings.submit_fields = {{"node", 1}};
  }
  void TearDown() override
  {
    state.with([&] { is_over = true; });
    server.reset();
    fs::remove_all(directory);
  }

  void start()
  {
    using kind = kesh::operation_class;
    using kesh::control_peer;
    using nlohmann::json;
    kesh::operation_table table;
    table["status"] = {kind::question, [](const json &, control_peer &peer) { peer.accept({{"status", "fine"}}); }};
    table["number"] = {kind::question, [](const json &request, control_peer &peer) {
                         peer.accept({{"n", kesh::request_number<int64_t>(request, "n", 1, 9, 5)}});
                       }};
    table["stop"] = {kind::ending, [this](const json &, control_peer &peer) {
                       peer.accept();
                       peer.keep_open();
                       state.with([&] { stop_asked = true; });
                     }};
    table["command"] = {kind::command, [this](const json &, control_peer &peer) {
                          peer.accept();
                          state.await([&] { return is_over; });
                        }};
    table["follow"] = {kind::stream, [this](const json &, control_peer &peer) {
                         peer.accept();
                         peer.when_gone([this] { state.with([] {}); });
                         state.await([&] { return peer.is_gone(); });
                       }};
    server = std::make_unique<kesh::control_server>(settings, table, taker);
    std::string error;
    ASSERT_TRUE(server->start(error)) << error;
  }
  test_client client() const { return test_client(settings.socket_path); }
  std::string ask(const std::string &request) const { return client().ask(request); }
  void expect_status() const { EXPECT_EQ(ask(R"({"op":"status"})"), R"({"ok":true,"status":"fine"})"); }
  static void expect_has(const std::string &text, const std::string &part)
  {
    EXPECT_NE(text.find(part), std::string::npos) << text;
  }

  fs::path directory;
  kesh::control_settings settings;
  fake_taker taker;
  watched state;
  bool is_over = false;
  bool stop_asked = false;
  std::unique_ptr<kesh::control_server> server;
};

const std::string SUBMIT = R"({"op":"submit"})";

// Somebody's file must not go, and two daemons must not share a socket.
TEST_F(control_test, takes_only_a_path_that_is_free_or_was_a_socket)
{
  std::string error;
  std::ofstream(settings.socket_path) << "precious";
  EXPECT_FALSE(kesh::control_listener().open(settings.socket_path, error));
  expect_has(error, "is not a socket");
  EXPECT_EQ(fs::file_size(settings.socket_path), 8u);
  fs::remove(settings.socket_path);
  {
    kesh::control_listener first, second;
    ASSERT_TRUE(first.open(settings.socket_path, error)) << error;
    struct stat made;
    ASSERT_EQ(lstat(settings.socket_path.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777, 0600u);
    EXPECT_FALSE(second.open(settings.socket_path, error));
    expect_has(error, "in use");
    fs::rename(settings.socket_path, directory / "stale");  // as a daemon that was killed leaves it
    EXPECT_TRUE(second.open(settings.socket_path, error)) << error;
    first.close();  // must not take the other's file away
    EXPECT_TRUE(fs::exists(settings.socket_path));
  }
  EXPECT_FALSE(fs::exists(settings.socket_path));
  kesh::control_listener third;
  EXPECT_TRUE(third.open((directory / "stale").string(), error)) << error;
  EXPECT_FALSE(third.open(std::string(200, 'x'), error));
}

TEST_F(control_test, checks_requests)
{
  start();
  const struct {
    std::string request, part;
  } rows[] = {{"nonsense", "no JSON object"},
              {R"(["op"])", "no JSON object"},
              {R"({"op":7})", "no JSON object"},
              {R"({"op":"status","x":1e999})", "no JSON object"},
              {R"({"op":"fly"})", "unknown operation"},
              {std::string(70'000, ' '), "longer than 65536"},
              {R"({"op":"number"})", R"("n":5)"},
              {R"({"op":"number","n":9})", R"("n":9)"},
              {R"({"op":"number","n":10})", "n has to be a whole number from 1 to 9"},
              {R"({"op":"number","n":-1})", "from 1 to 9"},
              {R"({"op":"number","n":18446744073709551615})", "from 1 to 9"},
              {R"({"op":"number","n":1e300})", "from 1 to 9"},
              {R"({"op":"number","n":NaN})", "no JSON object"},
              {R"({"op":"number","n":"5"})", "from 1 to 9"},
              {R"({"op":"number","n":null})", "from 1 to 9"},
              {R"({"op":"submit","window":0})", "window has to be a whole number from 1 to 4096"},
              {R"({"op":"submit","threads":5000})", "threads has to be"},
              {R"({"op":"submit","timeout_s":-1})", "timeout_s has to be a number from 0.001"},
              {R"({"op":"submit","timeout_s":1e300})", "timeout_s has to be"},
              {R"({"op":"submit","timeout_s":0.25})", R"("node":1)"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.request.substr(0, 60));
    expect_has(ask(row.request), row.part);
  }
  EXPECT_EQ(taker.timeout, 250ms);
}

TEST_F(control_test, answers_lines_as_they_end)
{
  start();
  taker.answers_at_once = false;
  auto submitter = client();
  // The third line waits for room in the window; a piece of the next comes later.
  submitter.send("{\"op\":\"submit\",\"threads\":2}\none\n\nthr");
  expect_has(submitter.line(), R"("ok":true)");
  taker.answer(1);
  EXPECT_EQ(submitter.line(), "ok 2 12 30 1 22");
  submitter.send("ee\nfour\nfive\n");
  taker.wait_for_push(2);
  EXPECT_EQ(taker.pushed_count(), 3u);
  taker.answer(2, item_fate::unknown, "no result in time");
  EXPECT_EQ(submitter.line(), "unknown 3 13 1 no result in time");
  EXPECT_EQ(submitter.line(), "refused 4 not submitted, a line before it was not");
  EXPECT_EQ(submitter.line(), "refused 5 not submitted, a line before it was not");
  submitter.send("half a li");
  submitter.end_input();
  EXPECT_EQ(submitter.line(), "refused 6 cut: no newline ends it");
  taker.answer(0);
  EXPECT_EQ(submitter.line(), "ok 1 11 30 1 21");
  EXPECT_EQ(submitter.line(), "done");
  EXPECT_EQ(submitter.line(), "");
  taker.wait_for_clients(0);

  auto refused = client();
  refused.send(SUBMIT + "\na\nfull\nb\n");
  refused.end_input();
  refused.line();
  EXPECT_EQ(refused.line(), "refused 2 too many lines are open on this node (limit 3)");
  EXPECT_EQ(refused.line(), "refused 3 not submitted, a line before it was not");
  taker.answer(3);
  EXPECT_EQ(refused.line(), "ok 1 11 30 1 21");
  EXPECT_EQ(refused.line(), "done");
  taker.refuses = "too many clients submit (limit 1)";
  expect_has(ask(SUBMIT), "limit 1");
}

TEST_F(control_test, bounds_the_size_of_lines)
{
  settings.input = {.line_max = 1 << 20, .arriving_max = 1 << 20};
  start();
  auto large = client(), other = client();
  large.ask(SUBMIT);
  std::string line(1 << 20, 'x');
  large.send(line);  // whole but for its newline
  for (int i = 0; i < 8; i++) {
    expect_status();  // a round of the server, which reads what is left of the line
  }
  other.ask(SUBMIT);
  other.send(std::string(300 << 10, 'y') + "\nafter\n");
  other.end_input();
  EXPECT_EQ(other.line(), "refused 1 too many bytes of lines arrive at once (limit 1048576)");
  EXPECT_EQ(other.line(), "refused 2 not submitted, a line before it was not");
  EXPECT_EQ(other.line(), "done");
  large.send("\n");
  EXPECT_EQ(large.line(), "ok 1 11 30 1 21");
  EXPECT_EQ(taker.wait_for_push(0).second.size, line.size());
  large.send(line + "xx\n");
  large.end_input();
  EXPECT_EQ(large.line(), "refused 2 it has more than 1048576 bytes");
  EXPECT_EQ(large.line(), "done");
}

// However many submit, or were left with half a request: all are served, and questions have their answers.
TEST_F(control_test, serves_a_thousand_and_those_who_come_after_abandoned_ones)
{
  settings.request_timeout = 500ms;
  start();
  std::vector<test_client> submitters, abandoned;
  for (int i = 0; i < 130; i++) {
    abandoned.push_back(client());
    abandoned.back().send(i % 2 == 0 ? "" : "{\"op\":");
  }
  expect_status();
  taker.answers_at_once = false;
  for (size_t i = 0; i < 1000; i++) {
    submitters.push_back(client());
    submitters.back().send(SUBMIT + "\nfirst\nsecond\n");
  }
  taker.wait_for_push(1999);
  expect_status();
  for (size_t i = 0; i < 2000; i++) {
    taker.answer(i);
  }
  for (auto &one : submitters) {
    one.end_input();
    expect_has(one.line(), "ok");
    EXPECT_EQ(one.line(), "ok 1 11 30 1 21");
    EXPECT_EQ(one.line(), "ok 2 12 30 1 22");
    EXPECT_EQ(one.line(), "done");
  }
  taker.wait_for_clients(0);
  for (auto &one : abandoned) {
    expect_has(one.line(), "no request came within 500 ms");
    EXPECT_EQ(one.line(), "");
  }
  expect_status();
}

TEST_F(control_test, ends_a_request_that_only_trickles)
{
  settings.request_timeout = 200ms;
  start();
  auto slow = client();
  pollfd readable{slow.fd.get(), POLLIN, 0};
  for (int i = 0; i < 1000 && poll(&readable, 1, 20) == 0; i++) {
    slow.send("{");
  }
  expect_has(slow.line(), "no request came");
}

// It is not buffered without end: its lines stay in the socket. Once it reads, all are answered.
TEST_F(control_test, stops_reading_a_client_that_does_not_read)
{
  start();
  auto lazy = client();
  lazy.ask(R"({"op":"submit","window":4096})");
  std::string lines;
  for (int i = 0; i < 300; i++) {
    lines += std::string(99, 'x') + '\n';
  }
  size_t sent = 0;
  size_t pushed = 0;
  // Until a whole round of another client passes in which nothing moved.
  for (size_t more = 1; more > 0 || taker.pushed_count() > pushed;) {
    pushed = taker.pushed_count();
    more = lazy.send(std::string_view(lines).substr(sent % lines.size()), MSG_DONTWAIT);
    sent += more;
    expect_status();
    ASSERT_LT(sent, 10u << 20);
  }
  EXPECT_LT(taker.pushed_count(), 50'000u);
  lazy.end_input();
  for (size_t i = 1; i <= sent / 100; i++) {
    ASSERT_TRUE(lazy.line().starts_with("ok " + std::to_string(i) + ' '));
  }
  if (sent % 100 != 0) {
    expect_has(lazy.line(), "cut");
  }
  EXPECT_EQ(lazy.line(), "done");
}

TEST_F(control_test, frees_the_place_of_who_leaves)
{
  settings.submissions_max = 2;
  settings.operations.streams = 2;
  settings.operations.commands = 1;
  start();
  taker.answers_at_once = false;
  const struct {
    std::string request, refusal;
    size_t limit;
  } rows[] = {{SUBMIT, "too many clients submit (limit 2)", 2},
              {R"({"op":"follow"})", "too many streams at once (limit 2)", 2},
              {R"({"op":"command"})", "too many commands at once (limit 1)", 1}};
  std::vector<test_client> stay;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.request);
    for (size_t i = 0; i < row.limit; i++) {
      stay.push_back(client());
      expect_has(stay.back().ask(row.request), "true");
    }
    expect_has(ask(row.request), row.refusal);
    stay.back().send("a line that stays open\n");
    stay.pop_back();  // its handler still runs
    std::string answer;
    for (int i = 0; i < 10'000 && answer.find("true") == std::string::npos; i++) {
      stay.push_back(client());
      answer = stay.back().ask(row.request);
    }
    expect_has(answer, "true");
  }
  expect_status();
}

TEST_F(control_test, gives_the_oldest_connection_without_a_request_up_for_a_new_one)
{
  settings.requests_max = 3;
  start();
  std::vector<test_client> silent;
  for (int i = 0; i < 3; i++) {
    silent.push_back(client());
  }
  expect_status();
  expect_has(silent[0].line(), "too many connections without a request (limit 3)");
  expect_has(silent[2].ask(R"({"op":"status"})"), "fine");
}

// The client that asked for the stop sees the daemon's end, not that of the server; the others end with the server.
TEST_F(control_test, stops_while_others_wait)
{
  start();
  auto stopper = client(), follower = client(), submitter = client(), silent = client();
  follower.ask(R"({"op":"follow"})");
  taker.answers_at_once = false;
  submitter.send(SUBMIT + "\nline\n");
  taker.wait_for_push(0);
  expect_has(stopper.ask(R"({"op":"stop"})"), "true");
  state.await([&] { return stop_asked; });
  taker.answer(0, item_fate::not_submitted, "the daemon is stopping");
  server->stop();
  taker.wait_for_clients(0);
  submitter.line();
  EXPECT_EQ(submitter.line(), "refused 1 the daemon is stopping");
  EXPECT_EQ(submitter.line(), "");
  EXPECT_EQ(follower.line(), "");
  EXPECT_EQ(silent.line(), "");
  char byte;
  EXPECT_EQ(recv(stopper.fd.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_FALSE(fs::exists(settings.socket_path));
  server.reset();
  EXPECT_EQ(stopper.line(), "");
}

}  // namespace
