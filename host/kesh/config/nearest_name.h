/// Names that somebody may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kesh
{

/// How many letters have to be put in, left out, changed or swapped with their neighbour to make the one of the other.
size_t spelling_distance(std::string_view one, std::string_view other);

/// The name that differs least from `word`; empty if all differ in more than one letter and more than a third of them.
std::string nearest_name(std::string_view word, const std::vector<std::string> &names);

/// "; did you mean NAME?", or nothing.
std::string did_you_mean(std::string_view word, const std::vector<std::string> &names);

}  // namespace kesh
