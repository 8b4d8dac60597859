#include "event_log.h"

#include <array>

namespace sim
{

void event_log::line(int64_t now_us, uint32_t node, std::string_view text)
{
  while (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  for (const char byte : text) {
    mix(static_cast<unsigned char>(byte));
  }
  std::array<char, 48> head{};
  std::snprintf(head.data(), head.size(), "%10lld.%03d %s%u ", static_cast<long long>(now_us / 1000),
                static_cast<int>(now_us % 1000), node == 0 ? "world " : "n", node);
  std::deque<std::string> &kept = last_.at(node);
  kept.emplace_back(std::string(head.data()).append(text));
  if (kept.size() > KEPT) {
    kept.pop_front();
  }
  if (trace_ != nullptr) {
    std::fprintf(trace_, "%s\n", kept.back().c_str());
  }
}

void event_log::print_last(FILE *to) const
{
  for (const std::deque<std::string> &of_node : last_) {
    for (const std::string &text : of_node) {
      std::fprintf(to, "  %s\n", text.c_str());
    }
  }
}

}  // namespace sim
