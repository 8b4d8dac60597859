// What a node reads of its disk, and the walk through a payload that has arrived.

#include <algorithm>

#include "instance.h"
#include "ordered_broadcast/delivery.h"
#include "payload_dissemination/cons_crypt.h"
#include "round_based_registers/register_store.h"

using wire::bytes;
using wire::operator+;

// Input: a register's file.
void fuzz_register_file(std::span<const uint8_t> input)
{
  constexpr size_t HEADER = 12;
  std::filesystem::create_directories(files::DIRECTORY);
  const bytes content(input.begin(), input.end());
  files::write("rb_reg.7", content);
  acceptor_state state;
  const bool is_sound = content.size() >= HEADER && wire::word_at(content, 8) <= content.size() - HEADER;
  require((store_load(7, state) == 0) == is_sound, "a file is taken if its value is whole");
  require(is_sound || (state.read_round == 0 && state.value.empty()), "a bad file changes nothing");
  if (is_sound) {
    require(store_save(7, state) == 0, "what was loaded can be saved");
    const bytes saved(content.begin(), content.begin() + static_cast<ptrdiff_t>(HEADER + state.value.length()));
    require(files::read("rb_reg.7") == saved, "what is saved is what was loaded");
  }
  forget_records();
}

// Input: the size of paxos_deliver, its bytes, then paxos_decide; one of even size is filled up, or cut, to its own.
void fuzz_records(std::span<const uint8_t> input)
{
  constexpr size_t DECIDE_SIZE = 1258;
  input_reader in(input);
  const bytes deliver = in.bytes(in.byte());
  bytes decide = in.rest();
  decide.resize(decide.size() % 2 == 0 ? DECIDE_SIZE : decide.size());
  const wire::log log = wire::log_at(decide, 4);
  const bool is_log_sound = wire::word_at(decide, 4) <= 250 && std::all_of(log.begin(), log.end(), [](wire::entry e) {
                              return e.first >= 1 && e.first <= 16 && e.second != 0;
                            });
  const bool is_sound = deliver.size() >= 5 && decide.size() >= DECIDE_SIZE && is_log_sound;

  instance node(3);
  files::write("paxos_deliver", deliver);
  files::write("paxos_decide", decide);
  require((node.start(false) == 0) == is_sound, "a node starts if its records are sound");
  if (is_sound) {
    wait_handled();
    fake::inject(4, 2, wire::decide(wire::word_at(decide, 0) + 1, {{1, 7}, {2, 8}}));
    wait_handled();
  }
}

// Input: the full-state flag, then the records, as they lie in a payload that was received whole.
void fuzz_payload(std::span<const uint8_t> input)
{
  // Never ended: nothing of it but the last delivery changes with an input.
  static auto *const node = new instance(3);
  static const int started = node->start(false);
  input_reader in(input);
  const bytes flag = wire::words({in.byte()});
  const bytes records = in.rest();
  const auto left = static_cast<uint32_t>(records.size());
  const bytes payload = flag + wire::words({left}) + records;
  bytes encrypted(payload.size()), received(payload.size());
  cons_crypt(encrypted.data(), payload.data(), left + 8, 1);
  cons_crypt(received.data(), encrypted.data(), left + 8, 0);
  require(started == 0 && received == payload, "a piece survives the cipher");

  uint32_t expected = 0;
  for (uint64_t pos = 0; left - pos >= 8 && left - pos - 8 >= wire::word_at(records, pos + 4);) {
    expected += wire::word_at(records, pos) <= 2 ? 1 : 0;
    pos += 8 + uint64_t{wire::word_at(records, pos + 4)};
  }
  hook_calls = 0;
  paxos_deliver(9, 2, received.data());
  require(hook_calls == expected, "every whole record with a hook is delivered, and nothing else");
  forget_records();
}
