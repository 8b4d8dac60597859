// What the host reads of the wire and its disk, with the codecs of the library behind it.

#include <bit>
#include <fstream>

#include "bytes.h"
#include "checksum.h"
#include "cluster/agreement.h"
#include "cluster/hello.h"
#include "cluster/peers.h"
#include "config_file.h"
#include "fuzz_target.h"
#include "journal.h"
#include "message.h"
#include "ordered_broadcast/paxos_messages.h"
#include "platform.h"
#include "round_based_registers/register_messages.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

std::string text_of(const std::vector<uint8_t> &bytes)
{
  return {bytes.begin(), bytes.end()};
}

// Input: lines of a journal file, each without its checksum, a zero, the state that arrives then without its own.
void use_journal(const std::string &input)
{
  const std::string path = "/run/journal";
  const size_t end = std::min(input.find('\0'), input.size());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (size_t pos = 0; pos < end;) {
    const std::string record = input.substr(pos, std::min(input.find('\n', pos), end) - pos);
    file << kesh::hex_text(kesh::crc32_of(record), 8) << ' ' << record << '\n';
    pos += record.size() + 1;
  }
  file.close();
  kesh::journal lines, again;
  std::string error;
  if (!lines.open({.path = path, .keep_lines = 4, .keep_bytes = 100}, error)) {
    return;
  }
  std::string state = input.substr(std::min(end + 1, input.size()));
  kesh::put_le(state, kesh::crc32_of(state));
  lines.adopt(state);
  lines.apply({{1, 2, 3}, 1, "text"});
  uint8_t *encoded = nullptr;
  uint32_t size = 0;
  kesh::journal_state decoded;
  require(lines.encode_state(&encoded, &size), "a journal gives its state");
  const std::string given(encoded, encoded + size);
  std::free(encoded);
  require(kesh::journal_state_decode(given, decoded), "a state that is given can be taken");
  const bool is_failed = lines.failed();
  lines.close();
  require(again.open({.path = path}, error), "a journal that was written can be opened");
  require(is_failed || again.status().lines == lines.status().lines, "and has its lines");
}

bool is_log_quiet()
{
  std::string error;
  return vx_cfg_set("/dev/null", "log.file") == 0 && platform::log_open(error);
}

}  // namespace

// Input: the channel, then a datagram.
void fuzz_datagram(std::span<const uint8_t> input)
{
  input_reader in(input);
  const uint8_t channel = in.byte();
  const std::vector<uint8_t> datagram = in.rest();
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

// Input: what it is, then its bytes. Checksums are put right: nothing else would get far.
void fuzz_kesh(std::span<const uint8_t> input)
{
  static const bool is_quiet = is_log_quiet();
  input_reader in(input);
  const bool is_record = in.flag() && is_quiet;
  std::string bytes = text_of(in.rest());
  if (!is_record) {
    use_journal(bytes);
    return;
  }
  kesh::tag_index tags, second;
  std::string again;
  if (tags.decode(bytes)) {
    tags.encode(again);
    require(second.decode(again), "tags that are written can be read");
    tags.note({1, 2, 3}, 1);
    require(tags.note({1, 2, 3}, 1) == kesh::tag_seen::same_attempt, "a tag noted is known");
  }
  kesh::put_le(bytes, kesh::crc32_of(bytes));
  kesh::journal_line line;
  require(!kesh::line_record_decode(bytes, line) || kesh::line_record_encode(line) == bytes,
          "a line that is taken is one that is given");
}

// Input: hellos, one per line, as node 1 of 16 hears them.
void fuzz_hello(std::span<const uint8_t> input)
{
  const std::string all(input.begin(), input.end());
  kesh::peers heard({"c", "02:00:00:00:00:01", 1}, 1, 1);
  kesh::agreement judge(16, [](const kesh::store_position &own, uint64_t) { return std::optional(own.hash); });
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
