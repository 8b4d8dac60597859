/// What the daemon tells the service manager that started it, by the protocol of sd_notify(3). Nothing happens if
/// nobody asked for it. A manager that does not read holds the daemon up for a second at a time where a word is said
/// once, and the main loop not at all. From the main thread.
#pragma once

#include <chrono>

namespace kesh::service_manager
{

/// The start, or the end, may take so much longer. Again for each step that may be long.
void takes_up_to(std::chrono::seconds time);
/// The daemon runs and answers; whether it orders is not told here.
void is_ready();
/// The main loop turns. Says also that the daemon is ready, if that could not be said.
void is_alive();
void is_stopping();

}  // namespace kesh::service_manager
