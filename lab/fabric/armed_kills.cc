#include "armed_kills.h"

#include <algorithm>

namespace fabric
{

bool is_point(std::string_view text)
{
  const auto is_fit = [](char c) { return (c >= 'a' && c <= 'z') || c == '-'; };
  return !text.empty() && std::all_of(text.begin(), text.end(), is_fit);
}

std::string point_of(message_type type)
{
  std::string text(type_name(type));
  for (char &c : text) {
    c = c == '_' ? '-' : static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

}  // namespace fabric
