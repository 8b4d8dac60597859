/// What the nodes have said of registers, as the network saw it, and what must hold of it: a round carries one value;
/// it is written when a quorum has promised it; what a quorum has accepted in a round, every later round carries.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace sim
{

class register_votes
{
public:
  explicit register_votes(uint32_t nodes) : quorum_(static_cast<int>(nodes / 2 + 1)) {}

  // Each returns what is broken, or nothing.
  std::string promised(uint32_t id, uint32_t round, uint32_t node);
  std::string carries(uint32_t id, uint32_t round, std::string_view value);
  std::string written(uint32_t id, uint32_t round, std::string_view value);
  std::string accepted(uint32_t id, uint32_t round, uint32_t node);

  /// Whether a quorum has accepted it.
  bool is_chosen(uint32_t id, std::string_view value) const;

private:
  struct votes {
    std::string value;
    uint32_t promised = 0;  // a bit per node
    uint32_t accepted = 0;
  };
  struct choice {
    uint32_t round;
    std::string value;
  };

  votes &of(uint32_t id, uint32_t round) { return votes_[uint64_t{id} << 32 | round]; }
  std::string against_choice(uint32_t id, uint32_t round, const std::string &value) const;

  int quorum_;
  std::map<uint64_t, votes> votes_;  // by id and round
  std::map<uint32_t, choice> chosen_;
};

}  // namespace sim
