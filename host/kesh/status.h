/// What `kesh status` tells: gathered by the daemon as JSON, printed by the client.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "service.h"

namespace kesh
{

/// Never waits for the library.
nlohmann::json status_collect(service &host);

/// A screen of text for a person. Throws nlohmann::json::exception if fields are missing.
std::string status_text(const nlohmann::json &status);

}  // namespace kesh
