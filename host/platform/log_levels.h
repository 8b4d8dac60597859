/// How much a line of the library matters. Its functions vx_log and vx_log_err tell no level, so the text does. Pure.
#pragma once

#include <string_view>

#include "platform.h"

namespace platform
{

/// Of a line that came through vx_log. What each decision brings is `debug`; data that was lost, an isolation and what
/// failed is `error`.
log_level library_line_level(std::string_view text);

/// Whether it tells that a payload was given up, since no node has it any more.
bool library_line_tells_loss(std::string_view text);

/// Of one that came through vx_log_err with this errno: `error`, but for a file that was to be removed and is not
/// there.
log_level library_failure_level(std::string_view text, int error);

}  // namespace platform
