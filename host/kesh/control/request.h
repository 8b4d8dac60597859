/// A request of the control socket, and the first line of its answer.
///
/// A client sends one line of JSON, {"op": "..."}; the daemon answers with one, {"ok": true, ...} or
/// {"ok": false, "code": exit code, "error": "..."}. Some operations go on with plain lines after that; the last line
/// of `journal` and `heard` is STREAM_END, unless they follow what comes.
#pragma once

#include <concepts>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kesh
{

/// Longest first line of a client.
inline constexpr size_t REQUEST_MAX = 64 << 10;

/// A stream that ends without it was cut.
inline constexpr std::string_view STREAM_END = "# end";

/// The request cannot be used; what() is for its client.
class request_error : public std::runtime_error
{
public:
  using std::runtime_error::runtime_error;
};

/// Throws request_error, and says why, unless it is an object whose "op" is a string.
nlohmann::json request_parse(std::string_view line);

std::string reply_accepted(const nlohmann::json &fields);
std::string reply_refused(int code, const std::string &error);

/// The number under `key`, `fallback` if it is missing. Throws request_error unless it is a number from `min` to `max`,
/// a whole one if `number` is an integer type.
template <typename number>
number request_number(const nlohmann::json &request, const char *key, number min, number max, number fallback)
{
  const auto found = request.find(key);
  if (found == request.end()) {
    return fallback;
  }
  const auto in_range = [&](auto value) {
    if constexpr (std::integral<number>) {
      return std::cmp_less_equal(min, value) && std::cmp_less_equal(value, max);
    } else {
      return value >= min && value <= max;
    }
  };
  if constexpr (std::floating_point<number>) {
    if (found->is_number() && in_range(found->template get<number>())) {
      return found->template get<number>();
    }
  } else if (found->is_number_unsigned() ? in_range(found->template get<uint64_t>())
                                         : found->is_number_integer() && in_range(found->template get<int64_t>())) {
    return found->template get<number>();
  }
  throw request_error(std::string(key) + " has to be a " + (std::integral<number> ? "whole number" : "number") +
                      " from " + nlohmann::json(min).dump() + " to " + nlohmann::json(max).dump());
}

}  // namespace kesh
