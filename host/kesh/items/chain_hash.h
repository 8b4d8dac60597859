/// The chain over payloads: H(0) is the SHA-256 of nothing, H(n) the SHA-256 of H(n-1) and the bytes of payload n.
/// Two nodes whose H(n) are equal have applied the same n payloads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace kesh
{

using chain_hash = std::array<uint8_t, 32>;

inline std::string_view hash_bytes(const chain_hash &hash)
{
  return {reinterpret_cast<const char *>(hash.data()), hash.size()};
}

/// False if `bytes` is no hash's size.
bool hash_assign(chain_hash &to, std::string_view bytes);

/// 64 hexadecimal digits.
std::string hash_text(const chain_hash &hash);

/// A SHA-256 in pieces. Throws std::runtime_error where the cryptographic library fails. Needs little stack.
class hasher
{
public:
  hasher();
  void add(std::string_view bytes);
  /// The hash of what was added; the next add() begins anew.
  chain_hash finish();

private:
  struct freer {
    void operator()(evp_md_ctx_st *context) const;
  };
  std::unique_ptr<evp_md_ctx_st, freer> context_;
};

/// H(0).
chain_hash chain_start();
chain_hash chain_next(const chain_hash &before, std::string_view payload_bytes);

}  // namespace kesh
