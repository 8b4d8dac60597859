#include "config/nearest_name.h"

#include <algorithm>

namespace kesh
{

size_t spelling_distance(std::string_view one, std::string_view other)
{
  // Row i has the distances of the first i letters of `one` to each beginning of `other`.
  std::vector<std::vector<size_t>> rows(one.size() + 1, std::vector<size_t>(other.size() + 1));
  for (size_t i = 0; i <= one.size(); ++i) {
    for (size_t j = 0; j <= other.size(); ++j) {
      if (i == 0 || j == 0) {
        rows[i][j] = i + j;
        continue;
      }
      const size_t changed = rows[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
      rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, changed});
      if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1]) {
        rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
      }
    }
  }
  return rows.back().back();
}

std::string nearest_name(std::string_view word, const std::vector<std::string> &names)
{
  std::string nearest;
  size_t best = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string &name : names) {
    const size_t lengths_differ = std::max(word.size(), name.size()) - std::min(word.size(), name.size());
    if (lengths_differ >= best) {
      continue;
    }
    if (const size_t distance = spelling_distance(word, name); distance < best) {
      best = distance;
      nearest = name;
    }
  }
  return nearest;
}

std::string did_you_mean(std::string_view word, const std::vector<std::string> &names)
{
  const std::string nearest = nearest_name(word, names);
  return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

}  // namespace kesh
