#include "hooks.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>

#include "file_record.h"
#include "line_record.h"
#include "pattern_state.h"
#include "platform.h"
#include "service.h"
#include "vx_cons.h"

namespace kesh
{

namespace
{

// Hooks have no argument for the host, hence this pointer. Written only while no hook is registered, so none runs.
service *hooked = nullptr;

std::string_view as_text(const uint8_t *data, uint32_t length)
{
  return {reinterpret_cast<const char *>(data), length};
}

void mark(const char *point)
{
  if (hooked->configured.trace.marks) {
    platform::messaging_mark(point);
  }
}

/// Test aid: makes a hook slow. 0 also ends a pause that has begun.
void take_time(const std::atomic<uint32_t> &wait_ms)
{
  using std::chrono::milliseconds;
  const auto entered = std::chrono::steady_clock::now();
  for (;;) {
    const auto left = entered + milliseconds(wait_ms) - std::chrono::steady_clock::now();
    if (left <= left.zero()) {
      return;
    }
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, milliseconds(50)));
  }
}

/// Notes an event, and the state of the journal after it.
template <typename... words>
void note_with_journal(std::string_view event, const words &...rest)
{
  if (hooked->events.on()) {
    const journal_status now = hooked->lines.status();
    hooked->events.note(event, rest..., now.lines, hex_text(now.hash, 16));
  }
}

void refuse(std::string_view bytes, uint32_t type, uint64_t entered_ns)
{
  hooked->lines.note_damaged();
  hooked->events.note("damaged", entered_ns, type, bytes.size());
  platform::log_line(platform::log_level::error, "journal: a payload of " + std::to_string(bytes.size()) +
                                                     " bytes, type " + std::to_string(type) + ", is no line; left out");
}

void deliver_line(std::string_view bytes, uint64_t entered_ns)
{
  journal_line line;
  if (!line_record_decode(bytes, line)) {
    refuse(bytes, DATA_TYPE_LINES, entered_ns);
    return;
  }
  const record_kind kind = hooked->lines.apply(line);
  if (hooked->events.on()) {
    // A line that is delivered again after a restart is "doubled" here: the trace tells what happened, not its excuse.
    const char *what = kind == record_kind::line ? "applied" : kind == record_kind::repeated ? "repeated" : "doubled";
    note_with_journal("deliver", entered_ns, tag_text(line.tag), line.attempt, what);
  }
}

void deliver_state(std::string_view bytes, uint32_t type, uint64_t entered_ns)
{
  const bool readable = type == DATA_TYPE_LINES ? hooked->lines.adopt(bytes) : pattern_state_matches(type, bytes);
  if (!readable) {
    hooked->events.note("damaged", entered_ns, type, bytes.size());
    platform::log_line(platform::log_level::error, "a state of type " + std::to_string(type) + " and " +
                                                       std::to_string(bytes.size()) + " bytes arrived damaged");
  }
  note_with_journal("adopt", entered_ns, type, bytes.size());
}

/// A failed delivery would leave a hole, so the journal is given up until a restart.
template <uint32_t type>
void deliver_hook(const uint8_t *data, uint32_t length, uint32_t full_state)
{
  try {
    const uint64_t entered_ns = trace::now_ns();
    mark("deliver-enter");
    if (type == DATA_TYPE_LINES) {
      take_time(hooked->delays.deliver_ms);
    }
    if (full_state != 0) {
      deliver_state(as_text(data, length), type, entered_ns);
    } else if (type == DATA_TYPE_LINES) {
      deliver_line(as_text(data, length), entered_ns);
    } else {
      refuse(as_text(data, length), type, entered_ns);
    }
    mark("deliver-leave");
  } catch (const std::exception &failure) {
    hooked->lines.note_broken(failure.what());
  }
}

bool make_state(uint32_t type, uint8_t **state, uint32_t *length)
{
  if (type == DATA_TYPE_LINES) {
    take_time(hooked->delays.state_ms);
    return hooked->lines.encode_state(state, length);
  }
  *length = hooked->configured.trace.state_bytes[type];
  *state = *length == 0 ? nullptr : pattern_state_make(type, *length);
  return *state != nullptr;
}

/// Any answer to the library would replace the journal of every node: this one ends, and another one leads.
[[noreturn]] void end_without_state(const char *why)
{
  try {
    platform::log_line(platform::log_level::error, std::string("journal: no state can be made of it: ") + why);
  } catch (const std::exception &) {
    // No memory for the line either.
  }
  std::abort();
}

/// Only the patterns of the test aid may be "no state".
template <uint32_t type>
int get_state_hook(uint8_t **state, uint32_t *length)
{
  try {
    const bool made = make_state(type, state, length);
    note_with_journal("get-state", type, made ? *length : 0);
    mark("state-leave");
    if (!made && type == DATA_TYPE_LINES) {
      end_without_state("no memory, or it is too large");
    }
    return made ? 0 : -1;
  } catch (const std::exception &failure) {
    end_without_state(failure.what());
  }
}

void clmsg_hook(const uint8_t *data, uint32_t length, uint32_t)
{
  try {
    uint8_t node = 0;
    std::string_view text;
    if (!say_message_decode(as_text(data, length), node, text)) {
      return;
    }
    hooked->messages.add(node, text);
    std::string line = "node " + std::to_string(node) + " says: ";
    text_escape(line, text);
    platform::log_line(platform::log_level::info, line);
  } catch (const std::exception &) {
    // A cluster message may get lost anyway.
  }
}

}  // namespace

void hooks_register(service &host)
{
  hooked = &host;
  vx_cons_register_data_hooks(DATA_TYPE_LINES, get_state_hook<0>, deliver_hook<0>);
  if (host.events.on()) {
    vx_cons_register_data_hooks(1, get_state_hook<1>, deliver_hook<1>);
    vx_cons_register_data_hooks(2, get_state_hook<2>, deliver_hook<2>);
    vx_cons_register_data_hooks(3, get_state_hook<3>, deliver_hook<3>);
  }
  vx_cons_register_clmsg_hook(0, clmsg_hook);
}

}  // namespace kesh
