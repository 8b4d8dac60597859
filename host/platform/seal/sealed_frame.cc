#include "seal/sealed_frame.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <cstring>
#include <string>

#include "messaging_settings.h"

namespace platform
{
namespace
{

constexpr uint8_t MAGIC = 'S';
constexpr uint8_t TO_GROUP = 0x40;
constexpr uint8_t BULK = 0x80;
constexpr size_t NONCE_OFFSET = 4;
constexpr size_t AAD_SIZE = 8;
constexpr char INFO[] = "kesh seal 1";

using aad_bytes = std::array<uint8_t, AAD_SIZE>;

aad_bytes aad_of(const uint8_t *head, uint32_t destination)
{
  aad_bytes aad;
  memcpy(aad.data(), head, 4);
  memcpy(aad.data() + 4, &destination, 4);  // already in network order
  return aad;
}

bool hkdf(const seal_key &key, std::span<const uint8_t> info, std::span<uint8_t> to)
{
  const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kind(EVP_KDF_fetch(nullptr, "HKDF", nullptr), EVP_KDF_free);
  if (!kind) {
    return false;
  }
  const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(EVP_KDF_CTX_new(kind.get()),
                                                                          EVP_KDF_CTX_free);
  char digest[] = "SHA256";
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t *>(key.data()), key.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<uint8_t *>(info.data()), info.size()),
      OSSL_PARAM_construct_end()};
  return context && EVP_KDF_derive(context.get(), to.data(), to.size(), parameters) == 1;
}

}  // namespace

void put_session(uint8_t *to, uint64_t session)
{
  for (size_t i = 0; i < SESSION_SIZE; ++i) {
    to[i] = static_cast<uint8_t>(session >> 8 * (SESSION_SIZE - 1 - i));
  }
}

uint64_t read_session(const uint8_t *from)
{
  uint64_t session = 0;
  for (size_t i = 0; i < SESSION_SIZE; ++i) {
    session = session << 8 | from[i];
  }
  return session;
}

void put_sealed_head(uint8_t *to, const sealed_head &head)
{
  to[0] = MAGIC;
  to[1] = head.sender;
  to[2] = static_cast<uint8_t>(head.channel | (head.is_to_group ? TO_GROUP : 0) | (head.is_bulk ? BULK : 0));
  to[3] = head.key_id;
  put_session(to + 4, head.session);
  put_session(to + 10, head.counter);
}

bool is_sealed(std::span<const uint8_t> datagram)
{
  return !datagram.empty() && datagram[0] == MAGIC;
}

std::optional<sealed_head> read_sealed_head(std::span<const uint8_t> datagram)
{
  if (!is_sealed(datagram) || datagram.size() < SEAL_HEADER_SIZE + SEAL_TAG_SIZE) {
    return std::nullopt;
  }
  const uint8_t flags = datagram[2];
  const sealed_head head{.sender = datagram[1],
                         .channel = static_cast<uint8_t>(flags & ~(TO_GROUP | BULK)),
                         .is_to_group = (flags & TO_GROUP) != 0,
                         .is_bulk = (flags & BULK) != 0,
                         .key_id = datagram[3],
                         .session = read_session(datagram.data() + 4),
                         .counter = read_session(datagram.data() + 10)};
  const bool is_sound = head.sender >= 1 && head.sender <= NODES_MAX && head.key_id != 0 && head.session != 0 &&
                        head.counter != 0 && head.channel < CHANNEL_FIRST + CHANNEL_COUNT &&
                        (head.channel >= CHANNEL_FIRST || head.channel == 0);
  return is_sound ? std::optional(head) : std::nullopt;
}

std::unique_ptr<seal_cipher> seal_cipher::derive(const seal_key &key, uint8_t sender, uint64_t session)
{
  std::array<uint8_t, sizeof INFO - 1 + 1 + SESSION_SIZE> info;
  memcpy(info.data(), INFO, sizeof INFO - 1);
  info[sizeof INFO - 1] = sender;
  put_session(info.data() + sizeof INFO, session);
  derived_key derived;
  auto made = std::make_unique<seal_cipher>();
  const bool done = hkdf(key, info, derived) && made->begin(derived);
  OPENSSL_cleanse(derived.data(), derived.size());
  return done ? std::move(made) : nullptr;
}

bool seal_cipher::begin(const derived_key &key)
{
  sealing_.reset(EVP_CIPHER_CTX_new());
  opening_.reset(EVP_CIPHER_CTX_new());
  return sealing_ && opening_ &&
         EVP_EncryptInit_ex2(sealing_.get(), EVP_aes_256_gcm(), key.data(), nullptr, nullptr) == 1 &&
         EVP_DecryptInit_ex2(opening_.get(), EVP_aes_256_gcm(), key.data(), nullptr, nullptr) == 1;
}

bool seal_cipher::seal(const sealed_head &head, uint32_t destination, std::span<const uint8_t> content, uint8_t *to)
{
  put_sealed_head(to, head);
  const aad_bytes aad = aad_of(to, destination);
  EVP_CIPHER_CTX *const with = sealing_.get();
  int length = 0;
  return EVP_EncryptInit_ex2(with, nullptr, nullptr, to + NONCE_OFFSET, nullptr) == 1 &&
         EVP_EncryptUpdate(with, nullptr, &length, aad.data(), static_cast<int>(aad.size())) == 1 &&
         EVP_EncryptUpdate(with, to + SEAL_HEADER_SIZE, &length, content.data(), static_cast<int>(content.size())) ==
             1 &&
         EVP_EncryptFinal_ex(with, to + SEAL_HEADER_SIZE + content.size(), &length) == 1 &&
         EVP_CIPHER_CTX_ctrl(with, EVP_CTRL_AEAD_GET_TAG, SEAL_TAG_SIZE, to + SEAL_HEADER_SIZE + content.size()) == 1;
}

bool seal_cipher::open(std::span<const uint8_t> datagram, uint32_t destination, uint8_t *to)
{
  const size_t size = datagram.size() - SEAL_HEADER_SIZE - SEAL_TAG_SIZE;
  const aad_bytes aad = aad_of(datagram.data(), destination);
  std::array<uint8_t, SEAL_TAG_SIZE> tag;
  memcpy(tag.data(), datagram.data() + SEAL_HEADER_SIZE + size, tag.size());
  EVP_CIPHER_CTX *const with = opening_.get();
  int length = 0;
  return EVP_DecryptInit_ex2(with, nullptr, nullptr, datagram.data() + NONCE_OFFSET, nullptr) == 1 &&
         EVP_DecryptUpdate(with, nullptr, &length, aad.data(), static_cast<int>(aad.size())) == 1 &&
         EVP_DecryptUpdate(with, to, &length, datagram.data() + SEAL_HEADER_SIZE, static_cast<int>(size)) == 1 &&
         EVP_CIPHER_CTX_ctrl(with, EVP_CTRL_AEAD_SET_TAG, SEAL_TAG_SIZE, tag.data()) == 1 &&
         EVP_DecryptFinal_ex(with, to + size, &length) == 1;
}

}  // namespace platform
