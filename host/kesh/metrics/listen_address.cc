#include "metrics/listen_address.h"

#include <arpa/inet.h>

#include <charconv>
#include <string>
#include <system_error>

namespace kesh
{

std::optional<sockaddr_in> listen_address_of(std::string_view text)
{
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view digits = text.substr(colon + 1);
  uint16_t port = 0;
  const auto [end, fault] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  const bool is_port = fault == std::errc() && end == digits.data() + digits.size() && port != 0;
  const bool is_address = inet_pton(AF_INET, std::string(text.substr(0, colon)).c_str(), &address.sin_addr) == 1;
  return is_port && is_address ? std::optional(address) : std::nullopt;
}

bool is_listen_address(std::string_view text)
{
  return listen_address_of(text).has_value();
}

}  // namespace kesh
