#include "probe/probe_message.h"

#include "bytes.h"
#include "cluster/hello.h"

namespace kesh
{

namespace
{

constexpr std::string_view MAGIC = "VXP";
constexpr uint8_t VERSION = 1;

}  // namespace

bool is_probe(std::string_view bytes)
{
  return bytes.starts_with(MAGIC);
}

std::string probe_encode(const probe_message &from)
{
  std::string bytes(MAGIC);
  put_le(bytes, VERSION);
  put_le(bytes, static_cast<uint8_t>(from.kind));
  put_le(bytes, from.asker);
  put_le(bytes, uint16_t{0});
  put_le(bytes, from.session);
  put_le(bytes, from.number);
  put_le(bytes, from.size);
  bytes.resize(from.kind == probe_kind::ask ? from.size : PROBE_SIZE, '\0');
  return bytes;
}

std::optional<probe_message> probe_decode(std::string_view bytes)
{
  byte_reader in(bytes);
  if (in.bytes(MAGIC.size()) != MAGIC || in.le<uint8_t>() != VERSION) {
    return std::nullopt;
  }
  const auto kind = in.le<uint8_t>();
  probe_message read;
  read.kind = static_cast<probe_kind>(kind);
  read.asker = in.le<uint8_t>();
  in.bytes(2);
  read.session = in.le<uint32_t>();
  read.number = in.le<uint32_t>();
  read.size = in.le<uint32_t>();
  const bool is_ask = read.kind == probe_kind::ask;
  const bool is_whole = bytes.size() == (is_ask ? read.size : PROBE_SIZE) && read.size >= PROBE_SIZE;
  const bool is_sound = (is_ask || read.kind == probe_kind::answer) && read.asker >= 1 && read.asker <= HELLO_NODES_MAX;
  return in.ok() && is_whole && is_sound ? std::optional(read) : std::nullopt;
}

}  // namespace kesh
