#include "daemon/hooks.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>
#include <thread>

#include "cluster/node_state_file.h"
#include "daemon/node_files.h"
#include "daemon/service.h"
#include "exit_codes.h"
#include "items/item_text.h"
#include "platform.h"
#include "store/library_records.h"
#include "vx_cons.h"

namespace kesh
{

namespace
{

constexpr uint32_t TYPES = 4;  // a full state is one hook call for each

// Hooks have no argument for the host, hence this pointer. Written only while no hook is registered, so none runs.
service *hooked = nullptr;

std::string_view as_bytes(const uint8_t *data, uint32_t length)
{
  return {reinterpret_cast<const char *>(data), length};
}

constexpr std::chrono::seconds LAST_WORDS_TIME{1};  // the disk may be what fails

/// If a hook returned, the library would take the payload as delivered here, or the state as made. So the process ends,
/// and the library delivers again when it starts.
[[noreturn]] void end_process(const std::string &why) noexcept
{
  try {
    platform::log_line(platform::log_level::error, "kesh ends: " + why);
    platform::log_flush(LAST_WORDS_TIME);
    std::string error;
    step_down(NODE_STATE_PATH, error);
  } catch (const std::exception &) {
    // No memory for the line either.
  }
  _exit(EXIT_STORE);
}

/// What the library has delivered before: it saves that after the hook's return.
library_entry delivered_before()
{
  const auto last = last_delivery_read();
  return last ? library_entry{.sender = last->sender, .msg_id = last->msg_id} : library_entry{};
}

void deliver_payload(std::string_view bytes, uint32_t type)
{
  payload decoded;
  std::string fault = "payloads have type " + std::to_string(DATA_TYPE);
  if (type != DATA_TYPE || !payload_decode(bytes, decoded, fault)) {
    hooked->watcher.damaged(type, bytes.size());
    end_process("a payload of " + std::to_string(bytes.size()) + " bytes, type " + std::to_string(type) +
                ", cannot be read: " + fault + "; the other nodes may understand it, so it is not passed over");
  }
  const applied result = hooked->lines.apply(bytes, decoded, delivered_before());
  hooked->watcher.delivered(decoded, result);
  std::vector<applied_item> items;
  items.reserve(result.items.size());
  for (const item_outcome &one : result.items) {
    items.push_back({one.sequence, one.line});
  }
  hooked->submissions->applied(decoded.origin, decoded.life, items);
}

void adopt_state()
{
  const adoption done = hooked->lines.commit_adopt(delivered_before(), library_log_start(CONS_DIRECTORY));
  constexpr const char *KINDS[] = {"kept", "extended", "replaced"};
  std::atomic<uint64_t> *const counters[] = {&hooked->states.kept, &hooked->states.extended, &hooked->states.replaced};
  const auto kind = static_cast<size_t>(done.kind);
  (*counters[kind])++;
  hooked->watcher.noted("adopted", std::string(KINDS[kind]) + ' ' + std::to_string(done.state_n));
  if (!done.aside.empty()) {
    hooked->states.put_aside++;
    platform::log_line(platform::log_level::error,
                       "store: the cluster's state at payload " + std::to_string(done.state_n) +
                           (done.is_too_far ? " has no lines any more of payloads that this node lacked"
                                            : " does not continue what this node had") +
                           "; what it had is kept as " + done.aside);
  } else if (done.kind != adoption_kind::kept) {
    platform::log_line(platform::log_level::info,
                       "store: brought to payload " + std::to_string(done.state_n) + " by a state of the cluster");
  }
  hooked->roll_overs.log_begins();
  hooked->link->changed();
}

/// Nothing of a full state is visible before its last hook call.
void deliver_state(std::string_view bytes, uint32_t type)
{
  if (type == DATA_TYPE) {
    hooked->lines.begin_adopt(bytes);
    hooked->states.bytes = bytes.size();
  } else if (!bytes.empty()) {
    hooked->watcher.damaged(type, bytes.size());
    platform::log_line(platform::log_level::error, "a state of " + std::to_string(bytes.size()) +
                                                       " bytes arrived for type " + std::to_string(type) +
                                                       ", which has none");
  }
  if (type + 1 == TYPES) {
    adopt_state();
  }
  hooked->watcher.adopted(type, bytes.size());
}

template <uint32_t type>
void deliver_hook(const uint8_t *data, uint32_t length, uint32_t full_state)
{
  try {
    hooked->watcher.hook_begins(type, false);
    if (full_state != 0) {
      deliver_state(as_bytes(data, length), type);
    } else {
      deliver_payload(as_bytes(data, length), type);
    }
  } catch (const std::exception &failure) {
    end_process(failure.what());
  }
}

/// Types 1 to 3 have no state. Type 0 always has one: "no state" would clear the journal of every node.
template <uint32_t type>
int get_state_hook(uint8_t **state, uint32_t *length)
{
  try {
    if (type != DATA_TYPE) {
      return -1;
    }
    hooked->watcher.hook_begins(type, true);
    hooked->roll_overs.state_begins();
    hooked->lines.encode_state(state, length);
    hooked->states.bytes = *length;
    hooked->watcher.state_made(*length);
    return 0;
  } catch (const std::exception &failure) {
    end_process(std::string("no state can be made: ") + failure.what());
  }
}

void clmsg_hook(const uint8_t *data, uint32_t length, uint32_t)
{
  try {
    uint8_t node = 0;
    std::string_view text;
    if (!say_message_decode(as_bytes(data, length), node, text)) {
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
  vx_cons_register_data_hooks(0, get_state_hook<0>, deliver_hook<0>);
  vx_cons_register_data_hooks(1, get_state_hook<1>, deliver_hook<1>);
  vx_cons_register_data_hooks(2, get_state_hook<2>, deliver_hook<2>);
  vx_cons_register_data_hooks(3, get_state_hook<3>, deliver_hook<3>);
  vx_cons_register_clmsg_hook(0, clmsg_hook);
}

}  // namespace kesh
