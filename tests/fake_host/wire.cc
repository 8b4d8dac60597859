#include "wire.h"

namespace wire
{

bytes words(std::initializer_list<uint32_t> values)
{
  bytes out;
  for (const uint32_t value : values) {
    for (int shift = 0; shift < 32; shift += 8) {
      out.push_back(static_cast<uint8_t>(value >> shift));
    }
  }
  return out;
}

bytes operator+(bytes left, const bytes &right)
{
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

bytes text(const std::string &characters)
{
  return {characters.begin(), characters.end()};
}

uint32_t word_at(const bytes &from, size_t offset)
{
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) {
    value = value << 8 | (offset + i < from.size() ? from[offset + i] : 0u);
  }
  return value;
}

bytes entry_bytes(entry e)
{
  return bytes{e.first} + words({e.second});
}

entry entry_at(const bytes &from, size_t offset)
{
  return {offset < from.size() ? from[offset] : uint8_t{0}, word_at(from, offset + 1)};
}

bytes log_bytes(const log &entries)
{
  bytes out = words({static_cast<uint32_t>(entries.size())});
  for (const entry &e : entries) {
    out = std::move(out) + entry_bytes(e);
  }
  out.resize(1254);
  return out;
}

log log_at(const bytes &from, size_t offset)
{
  log out;
  for (size_t i = 0; i < word_at(from, offset) && i < 250; ++i) {
    out.push_back(entry_at(from, offset + 4 + 5 * i));
  }
  return out;
}

bytes reg(reg_type type, uint32_t id, uint32_t round)
{
  return words({type, id, round});
}

bytes read_ack(uint32_t id, uint32_t round, uint32_t write_round, const bytes &value)
{
  return words({READ_ACK, id, round, write_round, static_cast<uint32_t>(value.size())}) + value;
}

bytes write_req(uint32_t id, uint32_t round, const bytes &value)
{
  return words({WRITE_REQ, id, round, static_cast<uint32_t>(value.size())}) + value;
}

bytes decide(uint32_t number, const log &entries)
{
  return words({DECIDE, number}) + bytes(5) + log_bytes(entries) + bytes(1);
}

bytes forward(entry e)
{
  return words({FORWARD}) + entry_bytes(e) + bytes(3);
}

bytes data_header(uint32_t type, uint32_t from, entry payload)
{
  return bytes{static_cast<uint8_t>(type), static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(from), payload.first} +
         words({payload.second});
}

bytes req(uint32_t from, entry payload, uint32_t offset, uint32_t length)
{
  return data_header(REQ, from, payload) + words({offset, length});
}

bytes data(uint32_t from, entry payload, uint32_t offset, uint32_t total, const bytes &piece)
{
  return data_header(DATA, from, payload) + words({offset, total, static_cast<uint32_t>(piece.size())}) + piece;
}

bytes payload(uint32_t full_state, const std::vector<record> &records)
{
  bytes body;
  for (const auto &[type, content] : records) {
    body = std::move(body) + words({type, static_cast<uint32_t>(content.size())}) + content;
  }
  return words({full_state, static_cast<uint32_t>(body.size())}) + body;
}

bytes state_payload(const std::string &state)
{
  return payload(1, {{0, text(state)}, {1, {}}, {2, {}}, {3, {}}});
}

bytes durable_state_payload(const std::string &state, uint32_t number, entry done)
{
  bytes marks = words({number});
  for (uint8_t node = 1; node <= 16; ++node) {
    marks = marks + words({node == done.first ? done.second : 0});
  }
  return payload(1, {{0, text(state)}, {1, {}}, {2, {}}, {3, {}}, {4, marks}});
}

bytes clmsg(uint32_t type, uint32_t length, const bytes &data)
{
  return words({type, length}) + data;
}

}  // namespace wire
