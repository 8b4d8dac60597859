#include "hooks.h"

#include <exception>
#include <string>

#include "file_record.h"
#include "heard.h"
#include "journal.h"
#include "line_record.h"
#include "platform.h"
#include "vx_cons.h"

namespace kesh
{

namespace
{

constexpr uint32_t DATA_TYPE_LINES = 0;

// The hooks carry no argument of ours, hence two plain pointers; set before the hooks are registered.
journal *hooked_journal = nullptr;
heard *hooked_heard = nullptr;

std::string_view as_text(const uint8_t *data, uint32_t length)
{
  return {reinterpret_cast<const char *>(data), length};
}

void deliver(std::string_view bytes, bool full_state)
{
  journal_line line;
  if (full_state) {
    hooked_journal->adopt(bytes);
  } else if (line_record_decode(bytes, line)) {
    hooked_journal->apply(line);
  } else {
    hooked_journal->note_damaged();
    platform::log_line(platform::log_level::error,
                       "journal: a payload of " + std::to_string(bytes.size()) + " bytes is no line; left out");
  }
}

/// A delivery that cannot be carried out would leave a hole: the journal is given up until a restart.
void deliver_hook(const uint8_t *data, uint32_t length, uint32_t full_state)
{
  try {
    deliver(as_text(data, length), full_state != 0);
  } catch (const std::exception &failure) {
    hooked_journal->note_broken(failure.what());
  }
}

int get_state_hook(uint8_t **state, uint32_t *length)
{
  try {
    if (hooked_journal->encode_state(state, length)) {
      return 0;
    }
    hooked_journal->note_broken("no memory for a state of the journal, or it is too large");
  } catch (const std::exception &failure) {
    hooked_journal->note_broken(failure.what());
  }
  return -1;
}

void clmsg_hook(const uint8_t *data, uint32_t length, uint32_t)
{
  try {
    uint8_t node = 0;
    std::string_view text;
    if (!say_message_decode(as_text(data, length), node, text)) {
      return;
    }
    hooked_heard->add(node, text);
    std::string line = "node " + std::to_string(node) + " says: ";
    text_escape(line, text);
    platform::log_line(platform::log_level::info, line);
  } catch (const std::exception &) {
    // Cluster messages may get lost anyway.
  }
}

}  // namespace

void hooks_register(journal &lines, heard &messages)
{
  hooked_journal = &lines;
  hooked_heard = &messages;
  vx_cons_register_data_hooks(DATA_TYPE_LINES, get_state_hook, deliver_hook);
  vx_cons_register_clmsg_hook(0, clmsg_hook);
}

}  // namespace kesh
