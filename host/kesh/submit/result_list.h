/// Results on their way to their receivers, those of one client that follow one another in one piece.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "submit/item_taker.h"

namespace kesh
{

class result_list
{
public:
  void add(result_receiver *to, uint64_t client, const item_result &result)
  {
    if (pieces_.empty() || pieces_.back().client != client) {
      pieces_.push_back({to, client, 0});
    }
    pieces_.back().count++;
    results_.push_back(result);
  }
  bool empty() const { return results_.empty(); }
  std::span<const item_result> results() const { return results_; }

  /// Calls the receivers. Hold no lock.
  void hand_out() const
  {
    std::span<const item_result> left = results_;
    for (const piece &one : pieces_) {
      one.to->on_results(one.client, left.first(one.count));
      left = left.subspan(one.count);
    }
  }

private:
  struct piece {
    result_receiver *to;
    uint64_t client;
    size_t count;
  };

  std::vector<piece> pieces_;
  std::vector<item_result> results_;
};

}  // namespace kesh
