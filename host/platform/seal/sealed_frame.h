/// A sealed datagram, and the cipher of one sender's session under one key.
///
///   offset  width  content
///   0       1      magic 'S'
///   1       1      sender: the node, 1 to 16
///   2       1      channel, 3 to 7, or 0: a greeting; + 0x40: to the group; + 0x80: bulk
///   3       1      identifier of the key, 1 to 255
///   4       6      session: drawn at random by each start of the sender's messaging, big-endian
///   10      6      counter of the sender's datagrams in its session, from 1, big-endian
///   16      n      AES-256-GCM of what stands behind the word of a plain datagram, or of a greeting
///   16 + n  16     tag
///
/// Key: HKDF-SHA256 (RFC 5869) of the file's key, without salt, with info "kesh seal 1", sender (1), session (6).
/// Nonce: bytes 4 to 15, used once since the counter never repeats in a session. Authenticated with it: bytes 0 to 3
/// and the destination as the library names it, four bytes.
///
/// A greeting tells, for each node 1 to 16, the session of that node that its sender heard last, six bytes each, zeros:
/// none.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "message.h"
#include "seal/seal_keys.h"

namespace platform
{

inline constexpr size_t SEAL_HEADER_SIZE = 16;
inline constexpr size_t SEAL_TAG_SIZE = 16;
/// What a sealed datagram has more than a plain one.
inline constexpr size_t SEAL_OVERHEAD = SEAL_HEADER_SIZE + SEAL_TAG_SIZE - WORD_SIZE;
static_assert(PIECE_DATAGRAM_MAX + SEAL_OVERHEAD + 20 + 8 <= 1500, "IP and UDP headers and the largest sealed piece");

inline constexpr uint64_t SESSION_MAX = (uint64_t{1} << 48) - 1;
inline constexpr size_t SESSION_SIZE = 6;

struct sealed_head {
  uint8_t sender = 0;
  uint8_t channel = 0;
  bool is_to_group = false;
  bool is_bulk = false;
  uint8_t key_id = 0;
  uint64_t session = 0;
  uint64_t counter = 0;

  bool operator==(const sealed_head &) const = default;
};

void put_sealed_head(uint8_t *to, const sealed_head &head);
/// Nothing if the bytes are too few or no head can be like that. What is read is authentic only once the rest is
/// opened.
std::optional<sealed_head> read_sealed_head(std::span<const uint8_t> datagram);
bool is_sealed(std::span<const uint8_t> datagram);

void put_session(uint8_t *to, uint64_t session);
uint64_t read_session(const uint8_t *from);

/// Not synchronised.
class seal_cipher
{
public:
  /// Null if libcrypto refuses, for want of memory say.
  static std::unique_ptr<seal_cipher> derive(const seal_key &key, uint8_t sender, uint64_t session);

  /// Writes head, sealed content and tag to `to`: SEAL_HEADER_SIZE + content.size() + SEAL_TAG_SIZE bytes.
  bool seal(const sealed_head &head, uint32_t destination, std::span<const uint8_t> content, uint8_t *to);
  /// Writes the content, SEAL_HEADER_SIZE + SEAL_TAG_SIZE bytes less than the datagram, to `to`. False if it is not
  /// authentic; `to` then holds nothing of use.
  bool open(std::span<const uint8_t> datagram, uint32_t destination, uint8_t *to);

private:
  struct context_free {
    void operator()(EVP_CIPHER_CTX *gone) const noexcept { EVP_CIPHER_CTX_free(gone); }
  };
  using context = std::unique_ptr<EVP_CIPHER_CTX, context_free>;
  using derived_key = std::array<uint8_t, SEAL_KEY_SIZE>;

  bool begin(const derived_key &key);

  context sealing_;
  context opening_;
};

}  // namespace platform
