/// The command line of kesh: one program, the daemon and everything that talks to it.
#pragma once

namespace kesh
{

class observer;

/// Returns the exit code of the process. `watch` looks over the daemon's shoulder, if this runs it.
int command_line_run(int argc, char **argv, observer &watch);

}  // namespace kesh
