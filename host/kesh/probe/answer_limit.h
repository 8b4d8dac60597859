/// How many probes of one node this one answers: a node that asks without end must not make the others send without
/// end.
#pragma once

#include <array>
#include <cstdint>

#include "cluster/hello.h"

namespace kesh
{

/// Pure: time comes in, in ms of a clock that never goes back. Not synchronised.
class answer_limit
{
public:
  static constexpr uint32_t ANSWERS_MAX = 400;  // in a second; "kesh probe" asks 200 times
  static constexpr int64_t PERIOD_MS = 1000;

  /// Whether the next one of that node, 1 to 16, is answered.
  bool allows(uint32_t node, int64_t now_ms)
  {
    period &of = periods_[node - 1];
    if (of.answers == 0 || now_ms - of.began_ms >= PERIOD_MS) {
      of = {now_ms, 0};
    }
    return of.answers < ANSWERS_MAX && ++of.answers > 0;
  }

private:
  struct period {
    int64_t began_ms = 0;
    uint32_t answers = 0;
  };
  std::array<period, HELLO_NODES_MAX> periods_{};
};

}  // namespace kesh
