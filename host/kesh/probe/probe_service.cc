#include "probe/probe_service.h"

#include <sys/random.h>

#include <chrono>
#include <exception>
#include <thread>

namespace kesh
{

namespace
{

using clock = std::chrono::steady_clock;
using platform::lock_scope;
using std::chrono::milliseconds;

// Asks to one node come twice in it, by both ways: half of what it answers.
constexpr milliseconds PACE{10};
constexpr milliseconds LAST_ANSWERS{1000};
constexpr milliseconds LOOK_AGAIN{100};
// IP packets: the least that every host takes, tunnels, PPPoE, Ethernet, FDDI, jumbo frames.
constexpr uint32_t PACKET_SIZES[] = {576,  1000, 1280, 1400, 1420, 1440, 1450, 1460,
                                     1480, 1492, 1500, 2000, 4352, 7000, 8000, 9000};
constexpr int TRIES = 3;  // of a size

int64_t now_us()
{
  return std::chrono::duration_cast<std::chrono::microseconds>(clock::now().time_since_epoch()).count();
}

std::vector<uint32_t> others_than(uint32_t node, uint32_t node_count)
{
  std::vector<uint32_t> others;
  for (uint32_t other = 1; other <= node_count; ++other) {
    if (other != node) {
      others.push_back(other);
    }
  }
  return others;
}

}  // namespace

probe_service::probe_service(uint32_t node, uint32_t node_count, send_function send)
    : node_(node), others_(others_than(node, node_count)), send_(std::move(send))
{
}

void probe_service::receive(uint32_t from, std::string_view bytes) noexcept
{
  try {
    const auto came = probe_decode(bytes);
    if (!came || from == node_ || from < 1 || from > HELLO_NODES_MAX) {
      return;
    }
    if (came->kind == probe_kind::ask) {
      if (came->asker == from) {
        answer(from, *came);
      }
      return;
    }
    const lock_scope scope(lock_);
    if (run_ && came->asker == node_ && came->session == run_->session) {
      run_->report.answered(from, came->number, now_us());
      answered_.signal();
    }
  } catch (const std::exception &) {
    // No memory: it counts as lost.
  }
}

void probe_service::answer(uint32_t from, const probe_message &asked)
{
  {
    const lock_scope scope(lock_);
    if (!limit_.allows(from, now_us() / 1000)) {
      return;
    }
  }
  probe_message reply = asked;
  reply.kind = probe_kind::answer;
  send_(from, probe_encode(reply));
}

void probe_service::ask(uint32_t to, const probe_plan &plan, uint32_t packet_size, bool counts)
{
  probe_message asked;
  asked.asker = static_cast<uint8_t>(node_);
  asked.size = packet_size - plan.packet_extra;
  {
    const lock_scope scope(lock_);
    asked.session = run_->session;
    asked.number = run_->report.ask(to, counts, packet_size, now_us());
  }
  if (!send_(to, probe_encode(asked))) {
    const lock_scope scope(lock_);
    run_->report.not_sent(asked.number);
  }
}

void probe_service::ask_all(const probe_plan &plan, uint32_t packet_size, bool counts)
{
  for (const uint32_t node : others_) {
    ask(node, plan, packet_size, counts);
  }
  if (plan.by_multicast) {
    ask(probe_report::TO_ALL, plan, packet_size, counts);
  }
}

void probe_service::ask_in_turn(const probe_plan &plan, const std::function<bool()> &must_end)
{
  auto next = clock::now();
  const auto ask_next = [&](uint32_t packet_size, bool counts) {
    ask_all(plan, packet_size, counts);
    next += PACE;
    std::this_thread::sleep_until(next);
  };
  for (uint32_t i = 0; i < plan.count && !must_end(); ++i) {
    ask_next(plan.packet_extra + PROBE_SIZE, true);
  }
  for (const uint32_t packet_size : PACKET_SIZES) {
    for (int i = 0; i < TRIES && !must_end(); ++i) {
      ask_next(packet_size, false);
    }
  }
}

void probe_service::await_answers(const std::function<bool()> &must_end)
{
  const auto deadline = clock::now() + LAST_ANSWERS;
  for (auto now = clock::now(); now < deadline && !must_end(); now = clock::now()) {
    const lock_scope scope(lock_);
    if (run_->report.is_complete()) {
      return;
    }
    answered_.wait_until(lock_, std::min(deadline, now + LOOK_AGAIN));
  }
}

bool probe_service::run(const probe_plan &plan, const std::function<bool()> &must_end, std::vector<probe_peer> &result)
{
  auto begun = std::make_unique<open_run>(open_run{0, probe_report(others_)});
  if (getrandom(&begun->session, sizeof begun->session, 0) != sizeof begun->session) {
    begun->session = static_cast<uint32_t>(now_us());
  }
  {
    const lock_scope scope(lock_);
    if (run_) {
      return false;
    }
    run_ = std::move(begun);
  }
  // The run is this thread's until it is taken away, whatever is thrown.
  const auto end = [this] {
    const lock_scope scope(lock_);
    return std::move(run_);
  };
  try {
    ask_in_turn(plan, must_end);
    await_answers(must_end);
  } catch (...) {
    end();
    throw;
  }
  result = end()->report.result();
  return true;
}

}  // namespace kesh
