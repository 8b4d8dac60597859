#include "seal/sealing.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <string>

using namespace platform;

namespace
{

const std::string KEY_1(64, '1');
const std::string KEY_2(64, '2');

seal_keys keys_of(const std::string &text)
{
  seal_keys keys;
  std::string error;
  EXPECT_TRUE(seal_keys_parse(text, "keys", keys, error)) << error;
  return keys;
}

std::string hex(std::span<const uint8_t> bytes)
{
  std::string text;
  for (const uint8_t byte : bytes) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

seal_key counting_key()
{
  seal_key key;
  for (size_t i = 0; i < key.size(); ++i) {
    key[i] = static_cast<uint8_t>(i);
  }
  return key;
}

const sealed_head HEAD{
    .sender = 3, .channel = 4, .is_to_group = true, .key_id = 9, .session = 0x0102030405f6, .counter = 7};

std::vector<uint8_t> sealed_content()
{
  const std::string text = "content";
  std::vector<uint8_t> bytes(SEAL_HEADER_SIZE + text.size() + SEAL_TAG_SIZE);
  const std::span<const uint8_t> content(reinterpret_cast<const uint8_t *>(text.data()), text.size());
  EXPECT_TRUE(seal_cipher::derive(counting_key(), 3, HEAD.session)->seal(HEAD, GROUP_ADDRESS, content, bytes.data()));
  return bytes;
}

}  // namespace

TEST(seal_keys, a_file_says_which_keys_and_a_bad_one_says_where)
{
  const seal_keys both =
      keys_of("# the new one\n\nseal 2 " + KEY_2 + "\r\n accept 1\t" + KEY_1 + " # old\naccept plain");
  EXPECT_EQ(both.seals_with, 2);
  EXPECT_EQ(both.known.size(), 2u);
  EXPECT_EQ(both.known.at(1)[31], 0x11);
  EXPECT_TRUE(both.accepts_plain);
  EXPECT_FALSE(keys_of("seal 255 " + KEY_1).accepts_plain);
  const seal_keys plain = keys_of("seal plain\naccept 1 " + KEY_1);
  EXPECT_EQ(plain.seals_with, std::nullopt);
  EXPECT_TRUE(plain.accepts_plain);

  const struct {
    std::string text, error;
  } bad[] = {
      {"", "keys: no line says seal: which key is this node to send with?"},
      {"accept 1 " + KEY_1, "keys: no line says seal: which key is this node to send with?"},
      {"seal plain\nseal 1 " + KEY_1, "keys: line 2: a second line says seal"},
      {"\nsae 1 " + KEY_1, "keys: line 2: a line begins with seal or accept"},
      {"seal 0 " + KEY_1, "keys: line 1: expected an identifier from 1 to 255 and a key, or plain"},
      {"seal 256 " + KEY_1, "keys: line 1: expected an identifier from 1 to 255 and a key, or plain"},
      {"seal 1", "keys: line 1: expected an identifier from 1 to 255 and a key, or plain"},
      {"seal 1 " + KEY_1 + " x", "keys: line 1: expected an identifier from 1 to 255 and a key, or plain"},
      {"seal 1 " + KEY_1.substr(1), "keys: line 1: a key has 64 hexadecimal digits"},
      {"seal 1 g" + KEY_1.substr(1), "keys: line 1: a key has 64 hexadecimal digits"},
      {"seal 1 " + KEY_1 + "\naccept 1 " + KEY_2, "keys: line 2: a second key with this identifier"},
  };
  for (const auto &one : bad) {
    seal_keys keys = both;
    std::string error;
    EXPECT_FALSE(seal_keys_parse(one.text, "keys", keys, error)) << one.text;
    EXPECT_EQ(error, one.error);
    EXPECT_EQ(keys, both) << "the former ones stay";
  }

  const std::string path = std::filesystem::temp_directory_path() / ("seal_test." + std::to_string(getpid()));
  std::ofstream(path) << "seal 7 " << seal_key_generate() << '\n';
  seal_keys loaded;
  std::string error;
  chmod(path.c_str(), 0640);
  EXPECT_FALSE(seal_keys_load(path, loaded, error));
  EXPECT_EQ(error, path + ": others may read or change it: chmod 600");
  chmod(path.c_str(), 0600);
  EXPECT_TRUE(seal_keys_load(path, loaded, error)) << error;
  EXPECT_EQ(loaded.seals_with, 7);
  std::filesystem::remove(path);
  EXPECT_FALSE(seal_keys_load("/", loaded, error));
  EXPECT_EQ(error, "/: is no key file");
}

TEST(replay_window, takes_each_counter_once_whatever_the_order)
{
  std::mt19937_64 random(1);
  replay_window window;
  std::set<uint64_t> seen;
  uint64_t top = 1000;
  window.begin(top);
  for (int i = 0; i < 300'000; ++i) {
    const uint64_t jump = random() % 5000 == 0 ? random() % 200'000 : random() % 4;
    const uint64_t counter = random() % 2 == 0 ? top + jump : top - std::min<uint64_t>(top - 1, random() % 70'000);
    const bool is_new = counter > 1000 && counter + replay_window::SIZE > top && !seen.contains(counter);
    ASSERT_EQ(window.is_new(counter), is_new) << counter << " with top " << top;
    if (is_new) {
      window.mark(counter);
      seen.insert(counter);
      top = std::max(top, counter);
    }
  }
}

// Computed with another implementation of HKDF and AES-GCM.
TEST(sealed_frame, is_what_its_layout_says)
{
  EXPECT_EQ(hex(sealed_content()), "530344090102030405f6000000000007d4dcaa8314372ab181136afd6de32acde093c955f96fcb");
  EXPECT_EQ(read_sealed_head(sealed_content()), HEAD);
}

TEST(sealed_frame, opens_only_as_it_was_sealed)
{
  const std::vector<uint8_t> good = sealed_content();
  const auto cipher = seal_cipher::derive(counting_key(), 3, HEAD.session);
  uint8_t content[64];
  const auto opens = [&](seal_cipher &with, const std::vector<uint8_t> &bytes, uint32_t destination) {
    return read_sealed_head(bytes) && with.open(bytes, destination, content);
  };
  EXPECT_TRUE(opens(*cipher, good, GROUP_ADDRESS));
  EXPECT_EQ(memcmp(content, "content", 7), 0);
  EXPECT_FALSE(opens(*cipher, good, node_name(1)));
  for (size_t i = 0; i < good.size(); ++i) {
    std::vector<uint8_t> changed = good;
    changed[i] ^= 1;
    EXPECT_FALSE(opens(*cipher, changed, GROUP_ADDRESS)) << "byte " << i;
    changed.resize(i);
    EXPECT_FALSE(opens(*cipher, changed, GROUP_ADDRESS)) << i << " bytes";
  }
  seal_key other = counting_key();
  other[31] ^= 1;
  EXPECT_FALSE(opens(*seal_cipher::derive(other, 3, HEAD.session), good, GROUP_ADDRESS));
  EXPECT_FALSE(opens(*seal_cipher::derive(counting_key(), 2, HEAD.session), good, GROUP_ADDRESS));
  EXPECT_FALSE(opens(*seal_cipher::derive(counting_key(), 3, HEAD.session + 1), good, GROUP_ADDRESS));
  EXPECT_TRUE(opens(*cipher, good, GROUP_ADDRESS)) << "a failure leaves nothing behind";
}

namespace
{

/// A node without sockets: datagrams are handed over by the test.
struct end {
  end(uint32_t number, uint64_t session, const std::string &keys) : node(number) { begin(session, keys); }
  void begin(uint64_t session, const std::string &keys) { seals.begin(node, session, keys_of(keys)); }

  std::vector<uint8_t> send(uint32_t destination = GROUP_ADDRESS)
  {
    message_ptr one = message_new(ENVELOPE_SIZE);
    memset(one->object(), 0, one->datagram_size());
    one->channel = 4;
    one->destination = destination;
    write_word(*one, 4, false);
    std::vector<uint8_t> room(one->datagram_size() + SEAL_OVERHEAD);
    const auto sent = seals.seal(*one, room);
    return {sent.begin(), sent.end()};
  }
  /// "taken", or why not.
  std::string hear(const end &from, const std::vector<uint8_t> &bytes)
  {
    if (!is_sealed(bytes)) {
      return seals.accepts_plain() ? "taken" : "unsealed";
    }
    std::vector<uint8_t> content(bytes.size());
    const opened got = seals.open(bytes, from.node, 4, content.data());
    return got.dropped ? drop_reason_name(*got.dropped) : "taken";
  }
  /// Hears all greetings of the other. Whether one asks for an answer.
  bool meet(end &from)
  {
    bool wants = false;
    for (const auto &one : from.seals.greetings()) {
      std::vector<uint8_t> content(one.size());
      wants |= seals.open(one, from.node, GREETING_PORT_CHANNEL, content.data()).wants_answer;
    }
    return wants;
  }

  uint32_t node;
  sealing seals;
};

}  // namespace

TEST(sealing, a_session_counts_once_it_has_shown_that_it_is_of_now)
{
  const std::string key = "seal 1 " + KEY_1;
  end one(1, 101, key);
  end two(2, 202, key);
  EXPECT_EQ(one.hear(two, two.send()), "unconfirmed");
  EXPECT_TRUE(one.meet(two)) << "one has news for two";
  EXPECT_EQ(one.hear(two, two.send()), "unconfirmed") << "two does not know one yet: it could be a recording";
  EXPECT_TRUE(two.meet(one));
  EXPECT_EQ(two.hear(one, one.send()), "taken") << "one's greeting knew two";
  const auto early = two.send();
  EXPECT_FALSE(one.meet(two));
  EXPECT_EQ(one.hear(two, early), "replayed") << "sealed before the greeting that counted";
  const auto first = two.send();
  const auto second = two.send();
  EXPECT_EQ(one.hear(two, second), "taken");
  EXPECT_EQ(one.hear(two, first), "taken");
  EXPECT_EQ(one.hear(two, first), "replayed");
  EXPECT_EQ(one.hear(two, two.send(node_name(1))), "taken");
  EXPECT_EQ(one.hear(two, two.send(node_name(3))), "forged") << "for another node";
  auto changed = two.send();
  changed.back() ^= 1;
  EXPECT_EQ(one.hear(two, changed), "forged");
  EXPECT_EQ(one.hear(end(3, 1, key), two.send()), "stranger") << "another address";
  EXPECT_EQ(one.hear(one, one.send()), "taken") << "the group brings back what a node sends";
  EXPECT_EQ(one.seals.key_of(2), 1);
  EXPECT_EQ(one.seals.key_of(3), std::nullopt);

  // Node 2 begins anew. What was recorded of its former session never counts again, its greetings neither.
  const auto recorded = two.send();
  const auto recorded_greeting = two.seals.greetings();
  two.begin(203, key);
  EXPECT_TRUE(one.meet(two));
  EXPECT_EQ(one.hear(two, recorded), "taken") << "the new session has not shown itself yet";
  EXPECT_TRUE(two.meet(one));
  one.meet(two);
  EXPECT_EQ(one.hear(two, two.send()), "taken");
  uint8_t content[256];
  EXPECT_EQ(one.seals.open(recorded_greeting[0], 2, GREETING_PORT_CHANNEL, content).dropped, drop_reason::replayed);
  EXPECT_EQ(one.hear(two, two.send()), "taken");
  // Node 1 begins anew, too: recordings tell it nothing.
  const auto of_now = two.send();
  one.begin(102, key);
  EXPECT_EQ(one.hear(two, of_now), "unconfirmed");
  EXPECT_TRUE(one.meet(two));
  EXPECT_EQ(one.hear(two, two.send()), "unconfirmed");
}

TEST(sealing, a_key_is_introduced_and_rotated_without_a_gap)
{
  end nodes[] = {{1, 101, "seal plain"}, {2, 202, "seal plain"}};
  const auto both_hear = [&] {
    for (int i = 0; i < 3; ++i) {  // greetings go all the time
      nodes[0].meet(nodes[1]);
      nodes[1].meet(nodes[0]);
    }
    EXPECT_EQ(nodes[0].hear(nodes[1], nodes[1].send()), "taken");
    EXPECT_EQ(nodes[1].hear(nodes[0], nodes[0].send()), "taken");
  };
  const std::string first = " 1 " + KEY_1 + "\n", second = " 2 " + KEY_2 + "\n";
  for (const std::string &step :
       {"seal plain\naccept" + first, "seal" + first + "accept plain", "seal" + first,
        "seal" + first + "accept" + second, "seal" + second + "accept" + first, "seal" + second}) {
    SCOPED_TRACE(step);
    for (end &one : nodes) {
      one.seals.set_keys(keys_of(step));
      both_hear();
    }
  }
  EXPECT_EQ(nodes[0].seals.key_of(2), 2);
  nodes[0].seals.set_keys(keys_of("seal plain"));
  EXPECT_EQ(nodes[1].hear(nodes[0], nodes[0].send()), "unsealed");
  EXPECT_EQ(nodes[0].hear(nodes[1], nodes[1].send()), "unknown_key");
  nodes[0].seals.set_keys(keys_of("seal 2 " + KEY_1));
  EXPECT_EQ(nodes[0].hear(nodes[1], nodes[1].send()), "forged") << "another key of the same identifier";
}
