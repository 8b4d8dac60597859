/// How tags, hashes and lines stand in text: in the log, in traces and on the control socket.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kesh
{

/// NODE.LIFE.SEQUENCE, the life in 16 hexadecimal digits.
std::string tag_text(uint8_t origin, uint64_t life, uint64_t sequence);

/// The text with \\ for a backslash and \xHH for control bytes but the tab, and back. The second is false for a bad
/// escape.
void text_escape(std::string &to, std::string_view text);
bool text_unescape(std::string_view from, std::string &text);

/// `value` in hexadecimal, filled up with zeros to `digits`.
std::string hex_text(uint64_t value, int digits);

}  // namespace kesh
