/// State behind fake_host.h, shared by its sources.
#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "fake_host.h"

namespace fake
{

struct failure {
  uint32_t calls = 0;
  uint32_t skip = 0;  ///< calls that still succeed
  uint32_t times = 0;
};

struct arrival {
  uint32_t channel = 0;
  bytes object;
};

/// Runs the hooks of some channels.
struct dispatcher {
  std::thread thread;
  std::deque<arrival> waiting;
  bool running = false;
};

struct host_state {
  std::mutex lock;
  std::condition_variable changed;
  uint64_t changes = 0;
  bool up = false;

  std::map<uint64_t, sent_message> queued;  ///< by handle
  std::vector<sent_message> sent;
  std::vector<dequeue_call> dequeued;
  uint64_t next_handle = 1;
  std::map<void *, uint32_t> in_hand;  ///< data area of messages allocated and not sent yet
  std::map<void (*)(void *), uint32_t> hooks;
  std::set<uint32_t> held;
  std::map<uint32_t, dispatcher *> dispatcher_of;
  std::array<dispatcher, 4> dispatchers;

  std::thread wire;
  std::deque<sent_message> on_wire;
  bool wire_busy = false;
  bool receiver_busy = false;
  bool loopback = true;
  bool repeats = false;
  std::function<void(const sent_message &)> receiver;

  std::array<failure, static_cast<size_t>(call::count)> failures;
  std::vector<std::string> log;
  std::string pause_part;  ///< empty: no line pauses
  bool is_paused = false;
  std::map<std::string, std::string> config;
  std::vector<std::string> config_calls;
  std::vector<std::string> number_calls;
  std::vector<uint32_t> tables;
  std::vector<std::string> violations;
  int64_t clock_back_s = 0;
  int live_threads = 0;
};

/// Never destroyed: threads of the library may still log while the process ends.
host_state &host();

/// Notes a change for wait_for. The lock is held.
void note_change();
/// Counts a call; true if it has to fail.
bool has_to_fail(call what);
/// Waits here if the test wants a pause at `what`.
void pause_if_asked(std::unique_lock<std::mutex> &lock, const std::string &what);
void start_messaging(dispatch mode);
void stop_messaging();

}  // namespace fake
