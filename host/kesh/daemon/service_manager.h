/// What the daemon tells the service manager that started it, by the protocol of sd_notify(3). Nothing happens if
/// nobody asked for it. From the main thread.
#pragma once

#include <chrono>

namespace kesh::service_manager
{

/// The start, or the end, may take so much longer. Again for each step that may be long.
void takes_up_to(std::chrono::seconds time);
/// The daemon runs and answers; whether it orders is not told here.
void is_ready();
/// The main loop turns.
void is_alive();
void is_stopping();

}  // namespace kesh::service_manager
