// What the host reads of the wire and its disk, with the codecs of the library behind it.

#include <bit>

#include "bytes.h"
#include "cluster/agreement.h"
#include "cluster/hello.h"
#include "cluster/peers.h"
#include "config_file.h"
#include "fuzz_target.h"
#include "items/chain_hash.h"
#include "items/item_text.h"
#include "items/payload.h"
#include "message.h"
#include "ordered_broadcast/paxos_messages.h"
#include "platform.h"
#include "probe/probe_message.h"
#include "round_based_registers/register_messages.h"
#include "seal/sealing.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "store/database.h"
#include "store/state.h"
#include "vx_host.h"

namespace
{

std::string text_of(const std::vector<uint8_t> &bytes)
{
  return {bytes.begin(), bytes.end()};
}

}  // namespace

namespace
{

// Without the key nothing may count, whatever the head says.
void open_sealed(const std::vector<uint8_t> &datagram, uint32_t channel)
{
  static const std::unique_ptr<platform::sealing> seals = [] {
    platform::seal_keys keys;
    std::string error;
    platform::seal_keys_parse("seal 1 " + std::string(64, 'a'), "keys", keys, error);
    auto made = std::make_unique<platform::sealing>();
    made->begin(1, 1, keys);
    return made;
  }();
  const auto head = platform::read_sealed_head(datagram);
  std::vector<uint8_t> content(datagram.size());
  require(seals->open(datagram, head ? head->sender : 1, channel, content.data()).dropped.has_value(),
          "nobody else has the key");
}

}  // namespace

// Input: the channel, then a datagram.
void fuzz_datagram(std::span<const uint8_t> input)
{
  input_reader in(input);
  const uint8_t channel = in.byte();
  const std::vector<uint8_t> datagram = in.rest();
  open_sealed(datagram, channel);
  const platform::datagram_check check = platform::check_datagram(datagram.data(), datagram.size(), channel);
  if (check != platform::datagram_check::good && check != platform::datagram_check::bulk) {
    return;
  }
  cons_service.node_count = NODES_MAX;
  const auto payload = received_message(datagram.data()).payload();
  require(payload.size() == datagram.size() - MSG_WORD_SIZE - ENVELOPE_SIZE, "the payload is what came");
  const auto reg = rb_reg_parse(payload);
  require(!reg || reg->value.empty() || reg->value.data() + reg->value.size() <= payload.data() + payload.size(),
          "a value lies within its message");
  const auto decide = decide_parse(payload);
  require(!decide || id_batch_valid(decide->batch), "a decision has a sound log");
  const auto entry = forward_parse(payload);
  require(!entry || is_member(entry->sender), "a FORWARD names a node");
}

// Input: a value, a zero, a configuration file.
void fuzz_config(std::span<const uint8_t> input)
{
  const std::string all(input.begin(), input.end());
  const std::string value = all.substr(0, all.find('\0'));
  const std::string text = all.substr(std::min(value.size() + 1, all.size()));
  platform::config_file file, again;
  std::string error;
  if (!file.parse(text, "file", error)) {
    return;
  }
  const std::string kept = file.text();
  require(kept == text || kept == text + '\n', "a file stays as it was");
  for (size_t pos = 0; pos < kept.size(); pos = kept.find('\n', pos) + 1) {
    const std::string key = kept.substr(pos, kept.find_first_of("= \t", pos) - pos);
    if (platform::config_key_is_valid(key) && file.find(key) != nullptr) {
      file.set(key, value);
      require(again.parse(file.text(), "file", error), "what was changed can be read");
      require(again.find(key) != nullptr && again.find(key)->value == value, "and has the value");
    }
  }
}

// Input: what it is, then its bytes. The checksum of a state is put right: nothing else would get far.
void fuzz_kesh(std::span<const uint8_t> input)
{
  input_reader in(input);
  const bool is_state = in.flag();
  std::string bytes = text_of(in.rest());
  std::string fault;
  kesh::payload payload;
  if (kesh::payload_decode(bytes, payload, fault)) {
    require(kesh::payload_encode(payload) == bytes, "a payload that is taken is one that is given");
  }
  std::string text;
  if (kesh::text_unescape(bytes, text)) {
    std::string again;
    std::string same;
    kesh::text_escape(again, text);
    require(kesh::text_unescape(again, same) && same == text, "a text that is escaped can be read");
  }
  if (!is_state) {
    return;
  }
  kesh::hasher hash;
  hash.add(bytes);
  bytes += kesh::hash_bytes(hash.finish());
  kesh::store_state state;
  try {
    kesh::state_decode(bytes, state);
  } catch (const kesh::store_failure &) {
    return;
  }
  require(state.rows.size() == state.n - state.base_n, "a state has all its rows");
  require(state.hash_at(state.n) == state.hash, "the last row is the state's");
}

// Input: hellos, one per line, as node 1 of 16 hears them.
void fuzz_hello(std::span<const uint8_t> input)
{
  const std::string all(input.begin(), input.end());
  const auto probe = kesh::probe_decode(all);
  require(!probe || kesh::probe_decode(kesh::probe_encode(*probe)) == probe, "a probe stays what it is");
  kesh::peers heard({{"c", "02:00:00:00:00:01", 1}, 0, 16, 1, 1});
  kesh::agreement judge(16, [](const kesh::told_position &own, uint64_t) { return std::optional(own.hash); });
  for (size_t pos = 0; pos < all.size();) {
    const std::string_view line = std::string_view(all).substr(pos, all.find('\n', pos) - pos);
    pos += line.size() + 1;
    const auto said = kesh::hello_decode(line);
    if (!said) {
      continue;
    }
    const std::string again = kesh::hello_encode(*said);
    require(again.size() <= kesh::HELLO_MAX, "a hello fits its datagram");
    const auto second = kesh::hello_decode(again);
    require(second && second->position == said->position && second->heard == said->heard, "a hello stays what it is");
    if (heard.heard(*said, 0) == kesh::hello_kind::member) {
      judge.own({1, true, said->position.n / 2, {}, std::nullopt});
      judge.heard(said->node, said->position);
      require(!judge.barred() || std::popcount(judge.barred()->nodes) > 8, "a quorum of witnesses bars, nothing less");
    }
    require(heard.lines(0).size() <= kesh::HELLO_NODES_MAX, "one line per node");
  }
}
