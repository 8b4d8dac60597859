/// What the daemon does for one connection of the control socket. Operations ("op") and their fields:
///   status, start, leave, reinit, stop    none; each answers when it is done, but stop, which ends the connection then
///   say {"text"}    block {"mask"}    slow {"hook": "deliver" or "state", "ms"}
///   submit, load, journal, heard          see control_streams.h
#pragma once

#include "service.h"

namespace kesh
{

/// Reads the request and carries it out. True if it asks for the end of the daemon: the caller sees to that, and
/// keeps the connection open until the process ends, so that the client sees when it is over.
bool control_serve(service &host, int fd);

}  // namespace kesh
