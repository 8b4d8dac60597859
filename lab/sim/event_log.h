/// What a run did, in order. Every step enters a hash, so that two runs can be compared to the byte; lines are kept for
/// reading: the last ones of each node, and all of them in a file if one is asked for.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace sim
{

class event_log
{
public:
  /// `trace`: gets every line and every step; null: none.
  event_log(uint32_t nodes, FILE *trace) : last_(nodes + 1), trace_(trace) {}

  /// A caught call. `subject` and `object` name things by number, never by address.
  void step(int64_t now_us, uint32_t node, uint32_t thread, const char *what, uint64_t object = 0)
  {
    mix(static_cast<uint64_t>(now_us));
    mix(uint64_t{thread} << 32 ^ object ^ static_cast<uint64_t>(static_cast<unsigned char>(what[0])) << 56);
    if (trace_ != nullptr) {
      std::fprintf(trace_, "%10lld.%03d n%u t%u %s %llu\n", static_cast<long long>(now_us / 1000),
                   static_cast<int>(now_us % 1000), node, thread, what, static_cast<unsigned long long>(object));
    }
  }
  /// Something worth reading. Node 0 is the world.
  void line(int64_t now_us, uint32_t node, std::string_view text);

  uint64_t hash() const { return hash_; }
  void print_last(FILE *to) const;

private:
  static constexpr size_t KEPT = 40;

  void mix(uint64_t word)
  {
    hash_ ^= word;
    hash_ *= 0x9e3779b97f4a7c15;
    hash_ ^= hash_ >> 29;
  }

  std::vector<std::deque<std::string>> last_;
  FILE *trace_;
  uint64_t hash_ = 0x243f6a8885a308d3;
};

}  // namespace sim
