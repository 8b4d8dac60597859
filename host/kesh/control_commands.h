/// What the daemon does for one connection of the control socket. Operations ("op") and their fields:
///   status, start, leave, reinit          none; each answers when it is done
///   stop                                  none; the connection ends with the daemon
///   say {"text"}    block {"mask"}    slow {"hook": "deliver" or "state", "ms"}
///   submit, load, journal, heard          see control_streams.h
#pragma once

#include "service.h"

namespace kesh
{

/// Reads the request and carries it out. True if it asks the daemon to stop: the caller then stops it, and keeps the
/// connection open until the process ends, so that the client notices the end.
bool control_serve(service &host, int fd);

}  // namespace kesh
