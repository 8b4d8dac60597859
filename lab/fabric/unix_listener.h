/// Listening Unix sockets.
#pragma once

#include "unique_fd.h"

#include <string>

namespace fabric
{

/// `type` as for socket(2). A socket that nobody listens on any more is replaced. Throws std::runtime_error.
platform::unique_fd listen_unix(const std::string &path, int type);

}  // namespace fabric
