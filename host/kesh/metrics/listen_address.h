/// An IPv4 address, a colon and a port.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string_view>

namespace kesh
{

std::optional<sockaddr_in> listen_address_of(std::string_view text);
bool is_listen_address(std::string_view text);

}  // namespace kesh
