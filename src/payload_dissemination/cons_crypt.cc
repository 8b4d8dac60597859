#include "payload_dissemination/cons_crypt.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "common/cons_mutex.h"
#include "vx_host.h"

namespace
{

constexpr int PASSPHRASE_LENGTH = 93;

// Shared by all nodes. Nodes with different pass phrases cannot read each other's payloads.
constexpr uint8_t cons_passphrase[] = {
    0x91, 0x6f, 0x8d, 0x87, 0x7e, 0x1f, 0x9c, 0x40, 0x93, 0xcc, 0x3c, 0x2e, 0xbe, 0x58, 0x21, 0xbb, 0x49, 0x07, 0xe9,
    0xaa, 0x98, 0xe3, 0xa7, 0x71, 0xeb, 0xb6, 0x99, 0x80, 0xdf, 0x0c, 0x4e, 0x89, 0x8e, 0x38, 0x2d, 0x19, 0x3b, 0x2e,
    0x0a, 0x6b, 0x27, 0x43, 0xe1, 0x38, 0xa2, 0x4f, 0x81, 0x41, 0x7e, 0x1e, 0x4c, 0xb5, 0x23, 0x4e, 0x7e, 0xf8, 0x72,
    0x19, 0xd9, 0x9d, 0x84, 0xa0, 0xeb, 0xe1, 0xcc, 0xae, 0x78, 0xf8, 0x75, 0x36, 0x57, 0x9a, 0x52, 0xae, 0xaa, 0xa6,
    0x82, 0x73, 0x74, 0x88, 0xb5, 0x3e, 0xbc, 0xbc, 0xf7, 0x3f, 0x7a, 0x9d, 0x61, 0xfc, 0xc9, 0x63, 0x7c,
};
static_assert(sizeof cons_passphrase == PASSPHRASE_LENGTH);

// Derived at the first call and kept for the life of the process.
struct cipher_state {
  cons_mutex lock{lock_rank::leaf};
  bool is_derived CONS_GUARDED_BY(lock) = false;
  const EVP_CIPHER *cipher CONS_GUARDED_BY(lock) = nullptr;
  EVP_CIPHER_CTX *context CONS_GUARDED_BY(lock) = nullptr;
  uint8_t key[EVP_MAX_KEY_LENGTH] CONS_GUARDED_BY(lock) = {};
  uint8_t iv[EVP_MAX_IV_LENGTH] CONS_GUARDED_BY(lock) = {};
};
constinit cipher_state state;

void derive() CONS_REQUIRES(state.lock)
{
  // The exit handler would free memory that a messaging thread still uses while the process ends.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  state.cipher = EVP_aes_128_cfb128();
  EVP_BytesToKey(state.cipher, EVP_md5(), nullptr, cons_passphrase, PASSPHRASE_LENGTH, 1, state.key, state.iv);
  state.context = EVP_CIPHER_CTX_new();
  state.is_derived = state.context != nullptr;
}

}  // namespace

int cons_crypt(uint8_t *output, const uint8_t *input, uint32_t length, int encrypt)
{
  cons_lock lock(state.lock);
  if (!state.is_derived) {
    derive();
  }
  int written = 0;
  if (!state.is_derived || EVP_CipherInit_ex(state.context, state.cipher, nullptr, state.key, state.iv, encrypt) == 0 ||
      EVP_CipherUpdate(state.context, output, &written, input, static_cast<int>(length)) == 0) {
    vx_log("%s(): EVP_CipherUpdate() failed", "cons_crypt");
    return -1;
  }
  int final_written = 0;
  if (EVP_CipherFinal_ex(state.context, output + written, &final_written) == 0) {
    vx_log("%s(): EVP_CipherFinal() failed", "cons_crypt");
    return -1;
  }
  return 0;
}
