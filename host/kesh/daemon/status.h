/// What `kesh status` shows: the daemon gathers it as JSON, the client prints it.
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
