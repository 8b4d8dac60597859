#include "submit/outbox.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace
{

using namespace std::chrono_literals;
using kesh::outbox;

/// Runs scripts of "COMMAND = WHAT COMES OF IT" against an outbox. Clients have one letter: S stops at its first
/// failure, Z has 10 ms for an item, all others 1 s. "A2" is the second item of A, "A2/3" its third attempt.
///   push A 2 [SIZE]   take   down (take, not active)   applied A1   ok SLOT   fail SLOT   leave A   pass US   stop
class script_runner : public kesh::result_receiver
{
public:
  explicit script_runner(const kesh::submit_limits &limits) : box(1, 7, limits) {}

  void on_results(uint64_t client, std::span<const kesh::item_result> results) noexcept override
  {
    static constexpr const char *FATES[] = {"applied", "refused", "unknown"};
    for (const auto &one : results) {
      add(names.at(client) + std::to_string(one.number) + ' ' + FATES[static_cast<int>(one.fate)]);
    }
  }

  std::string run(const std::string &command)
  {
    said.clear();
    std::istringstream words(command);
    std::string what, name;
    words >> what >> name;
    const size_t slot = name == "1" ? 1 : 0;
    if (what == "push") {
      push(name, words);
    } else if (what == "take" || what == "down") {
      take(what == "take");
    } else if (what == "applied") {
      box.applied(sequences.at(name), 50, now);
    } else if (what == "ok" || what == "fail") {
      box.ended(slot, what == "ok", now);
    } else if (what == "leave") {
      box.close_client(clients.at(name));
    } else if (what == "pass") {
      now += std::chrono::microseconds(std::stoi(name));
      box.expire(now);
    } else if (what == "stop") {
      box.stop(now);
    }
    box.take_results().hand_out();
    return said;
  }

  outbox box;

private:
  void add(const std::string &words) { said += (said.empty() ? "" : ", ") + words; }

  void push(const std::string &name, std::istringstream &words)
  {
    if (!clients.contains(name)) {
      std::string refusal;
      const uint64_t id = box.open_client({this, name == "Z" ? 10ms : 1000ms, name == "S"}, refusal);
      if (id == 0) {
        return add(refusal);
      }
      clients[name] = id;
      names[id] = name;
    }
    size_t count = 0;
    size_t size = 10;
    words >> count >> size;
    std::vector<kesh::new_item> items;
    for (size_t i = 0; i < count; i++) {
      const uint64_t number = ++numbers[name];
      std::string text = name + std::to_string(number) + ' ';
      text.resize(std::max<size_t>(count == 0 ? 0 : size, text.size()), '.');
      items.push_back({number, std::move(text)});
    }
    const auto verdict = box.push(clients[name], items, now);
    if (verdict.taken < count) {
      add(std::to_string(verdict.taken) + " taken, " + verdict.refusal);
    }
  }

  void take(bool is_active)
  {
    const auto step = box.take(now, is_active);
    if (step.out) {
      std::string items = std::to_string(step.out->slot) + ':';
      for (const auto &one : step.out->content.items) {
        const std::string name(one.bytes.substr(0, one.bytes.find(' ')));
        sequences[name] = one.sequence;
        items += ' ' + name + (one.attempt > 1 ? '/' + std::to_string(one.attempt) : "");
      }
      add(items);
    } else if (step.look_again != outbox::NEVER) {
      add("wait " +
          std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(step.look_again - now).count()));
    } else {
      add("nothing");
    }
  }

  outbox::time_point now{1h};
  std::map<std::string, uint64_t> clients, numbers, sequences;
  std::map<uint64_t, std::string> names;
  std::string said;
};

/// Steps are separated by "; ".
void run(const char *name, const std::string &steps, const kesh::submit_limits &limits)
{
  SCOPED_TRACE(name);
  script_runner runner(limits);
  for (size_t start = 0; start < steps.size();) {
    const size_t end = std::min(steps.find("; ", start), steps.size());
    const std::string step = steps.substr(start, end - start);
    const size_t sign = step.find(" = ");
    SCOPED_TRACE(step);
    EXPECT_EQ(runner.run(step.substr(0, sign)), sign == std::string::npos ? "" : step.substr(sign + 3));
    start = end + 2;
  }
}

TEST(outbox, decides_what_goes_out)
{
  const kesh::submit_limits small{.payload_bytes = 1000, .payload_items = 5};
  // clang-format off
  const char *const scripts[][2] = {
    {"a client's newer items wait for its payload, another's until they fill one",
     "push A 2; take = 0: A1 A2; push A 1; push B 1; take = nothing; push B 1 1000; take = 1: B1; push C 1; take = nothing; "
     "applied A1 = A1 applied; take = nothing; applied A2 = A2 applied; ok 0; take = 0: C1 A3"},
    {"a client goes on once its items are applied, before the call returns",
     "push A 1; take = 0: A1; push A 1; applied A1 = A1 applied; take = 1: A2"},
    {"no third payload beside one older than the newest",
     "push A 1; take = 0: A1; push B 1 1000; take = 1: B1; ok 1 = B1 unknown; push C 1 1000; take = nothing; "
     "ok 0 = A1 unknown; take = wait 300; pass 300; take = 0: C1"},
    {"after several clients the next payload waits for as many, or for the time",
     "push A 1; push B 1; take = 0: A1 B1; ok 0 = A1 unknown, B1 unknown; push A 1; take = wait 300; "
     "pass 100; take = wait 200; push B 1; take = 0: A2 B2; ok 0 = A2 unknown, B2 unknown; push A 1; "
     "take = wait 300; pass 300; take = 0: A3; ok 0 = A3 unknown; push A 1; take = wait 300; pass 300; take = 0: A4; "
     "ok 0 = A4 unknown; push A 1; take = 0: A5"},
    {"the time is an eighth of what the last payload took, from 0.3 to 25 ms",
     "push A 1; push B 1; take = 0: A1 B1; pass 8000; applied A1 = A1 applied; pass 800; applied B1 = B1 applied; ok 0; "
     "push A 1; take = wait 1100; pass 1100; take = 0: A2; pass 400000; applied A2 = A2 applied; ok 0; push B 1; "
     "take = wait 25000"},
    {"two halves of the clients that took turns come together",
     "push A 1; push B 1; take = 0: A1 B1; push C 1; push D 1; applied A1 = A1 applied; applied B1 = B1 applied; "
     "take = 1: C1 D1; ok 0; push A 1; push B 1; applied C1 = C1 applied; applied D1 = D1 applied; take = wait 300; "
     "push D 1; ok 1; push C 1; take = 0: A2 B2 D2 C2"},
    {"a payload is filled by turns of clients, and the rest comes next",
     "push A 9 100; push B 1; take = 0: A1 A2 A3 A4 A5; push C 1 600; take = 1: B1 C1; "
     "ok 0 = A1 unknown, A2 unknown, A3 unknown, A4 unknown, A5 unknown; ok 1 = B1 unknown, C1 unknown; "
     "push B 1; take = wait 300; pass 300; take = 0: A6 A7 A8 A9 B2"},
    {"a large item goes alone, and none overtakes it for being small",
     "push A 1; push B 1 5000; push C 1; take = 0: A1; take = 1: B1"},
    {"both payloads fail: one payload repeats them, alone, before anything new",
     "push A 2; take = 0: A1 A2; push B 1 1000; take = 1: B1; push C 1; fail 1; take = nothing; "
     "applied A1 = A1 applied; fail 0; take = wait 20000; pass 20000; take = 0: A2/2 B1/2; take = nothing; "
     "applied B1 = B1 applied; push B 1; take = nothing; fail 0; pass 20000; take = 0: A2/3; "
     "applied A2 = A2 applied; ok 0; take = 0: C1 B2"},
    {"one fails, the other does not: only the failed one is repeated",
     "push A 1; take = 0: A1; push B 1 1000; take = 1: B1; fail 0; pass 20000; take = nothing; applied B1 = B1 applied; "
     "take = nothing; ok 1; take = 0: A1/2"},
    {"what failed is applied after all before its repeat",
     "push A 1; take = 0: A1; push B 1; fail 0; applied A1 = A1 applied; take = 0: B1; ok 0 = B1 unknown"},
    {"no repeat of an item whose time is up, and a result after it is dropped",
     "push Z 1; push A 1; take = 0: Z1 A1; fail 0; pass 10000 = Z1 unknown; pass 10000; take = 0: A1/2; "
     "applied Z1; push Z 1; take = nothing; pass 10000 = Z2 refused; applied A1 = A1 applied"},
    {"a deadline under way; the client's next waits until the call returns",
     "push Z 1; take = 0: Z1; pass 9999; push Z 1; pass 1 = Z1 unknown; take = nothing; applied Z1; ok 0; "
     "take = 0: Z2"},
    {"not active: items wait until their deadline, nothing goes out",
     "push Z 1; push A 1; down = nothing; pass 10000 = Z1 refused; down = nothing; take = 0: A1; fail 0; "
     "pass 20000; down = nothing; pass 970000 = A1 unknown; take = nothing; push B 1; take = 0: B1"},
    {"after a failure what waits of such a client is refused, and no other's",
     "push S 1; push A 1; take = 0: S1 A1; push S 2; push A 1; pass 999999; "
     "pass 1 = S1 unknown, S2 refused, S3 refused, A1 unknown, A2 refused; "
     "push S 1 = 0 taken, not submitted, a line before it was not; push A 1; ok 0; take = wait 300; pass 300; "
     "take = 0: A3"},
    {"a client leaves: what waits goes, what is under way has no result",
     "push A 1; take = 0: A1; push A 1; push B 1; leave A; leave B; take = nothing; fail 0; pass 20000; "
     "take = 0: A1/2; applied A1; ok 0; take = nothing"},
    {"stop: what waits ends at once, what failed too, what is under way with its call",
     "push A 2; take = 0: A1 A2; push B 1 1000; take = 1: B1; push C 1; fail 1; stop = C1 refused, B1 unknown; "
     "push C 1 = 0 taken, the daemon is stopping; take = nothing; applied A1 = A1 applied; "
     "fail 0 = A2 unknown; take = nothing; push D 1 = the daemon is stopping"},
  };
  // clang-format on
  for (const auto &[name, steps] : scripts) {
    run(name, steps, small);
  }
}

// A client with much to send does not keep the others out of the payload.
TEST(outbox, gives_each_client_its_turn)
{
  run("bytes of a turn", "push A 3 60000; push B 1; take = 0: A1 B1 A2 A3", {});
}

// Each limit refuses, by its name and value, and gives back what left. A1's bytes are in memory until its call returns.
TEST(outbox, keeps_its_limits)
{
  run("items and clients",
      "push A 3 = 2 taken, too many lines of one client are open (limit 2); "
      "push B 2 = 1 taken, too many lines are open on this node (limit 3); "
      "push C 1 = too many clients submit (limit 2); leave A; push C 1; take = 0: B1 C1; "
      "applied B1 = B1 applied; push B 3 = 2 taken, too many lines of one client are open (limit 2)",
      {.clients = 2, .items = 3, .client_items = 2});
  run("bytes",
      "push A 3 40 = 2 taken, too many bytes of one client are open (limit 100, 80 are open); "
      "push B 2 40 = 1 taken, too many bytes on this node are open (limit 150, 120 are open); take = 0: A1 A2 B1; "
      "applied A1 = A1 applied; push A 1 40 = 0 taken, too many bytes on this node are open (limit 150, 120 are open); "
      "ok 0 = A2 unknown, B1 unknown; "
      "push A 3 40 = 2 taken, too many bytes of one client are open (limit 100, 80 are open); leave A; push B 2 40",
      {.bytes = 150, .client_bytes = 100});
}

}  // namespace
