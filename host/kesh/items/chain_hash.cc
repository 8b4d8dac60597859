#include "items/chain_hash.h"

#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>

namespace kesh
{

namespace
{

void check(bool done)
{
  if (!done) {
    throw std::runtime_error("SHA-256 failed: no memory, or libcrypto does not offer it");
  }
}

}  // namespace

bool hash_assign(chain_hash &to, std::string_view bytes)
{
  if (bytes.size() != to.size()) {
    return false;
  }
  std::copy(bytes.begin(), bytes.end(), to.begin());
  return true;
}

std::string hash_text(const chain_hash &hash)
{
  std::string text;
  for (const uint8_t byte : hash) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 0xf];
  }
  return text;
}

void hasher::freer::operator()(evp_md_ctx_st *context) const
{
  EVP_MD_CTX_free(context);
}

hasher::hasher() : context_(EVP_MD_CTX_new())
{
  check(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void hasher::add(std::string_view bytes)
{
  check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
}

chain_hash hasher::finish()
{
  chain_hash hash;
  check(EVP_DigestFinal_ex(context_.get(), hash.data(), nullptr) == 1);
  check(EVP_DigestInit_ex(context_.get(), nullptr, nullptr) == 1);
  return hash;
}

chain_hash chain_start()
{
  return hasher().finish();
}

chain_hash chain_next(const chain_hash &before, std::string_view payload_bytes)
{
  hasher hash;
  hash.add(hash_bytes(before));
  hash.add(payload_bytes);
  return hash.finish();
}

}  // namespace kesh
