/// The record of what nodes sent, for those who judge a run afterwards. Times are CLOCK_MONOTONIC nanoseconds.
///
///   <ns> <from> decide <number> <count> <crc32> <first sender>.<first id> once|repeat|update
///       crc32: of the 1254 bytes of the log, decimal, as zlib counts it. once: the first multicast of that number by
///       that node since it joined; repeat: a later one; update: sent to one node.
///   <ns> <from> send4|send5     something on that channel; at most one line per node, channel and 10 ms
///   <ns> stats {..}             the last line
#pragma once

#include "datagram.h"

#include <cstdio>
#include <string>

namespace fabric
{

enum class decide_kind { once, repeat, update };

class wire_log
{
public:
  wire_log() = default;
  ~wire_log();
  wire_log(const wire_log &) = delete;
  wire_log &operator=(const wire_log &) = delete;

  /// Appends to the file. Throws std::system_error. Without it nothing is written.
  void open(const std::string &path);

  void sent(uint32_t from, const datagram_info &info);
  void decided(uint32_t from, const decide_view &what, decide_kind kind);
  void end(const std::string &stats);

  /// Lines are kept for a tenth of a second at most.
  int64_t next_due_ns() const;
  void advance(int64_t now_ns);

private:
  void written();

  FILE *file_ = nullptr;
  int64_t flush_due_ns_ = INT64_MAX;
  std::array<std::array<int64_t, CHANNELS_MAX + 1>, NODES_MAX + 1> sent_line_ns_{};
};

}  // namespace fabric
