/// Exit codes, the same for all subcommands. Replies on the control socket carry them, too.
#pragma once

namespace kesh
{

enum exit_code : int {
  EXIT_OK = 0,
  EXIT_RUNTIME = 1,      ///< something failed at run time
  EXIT_USAGE = 2,        ///< the command line is wrong
  EXIT_CONFIG = 3,       ///< the configuration, or what it names, cannot be used
  EXIT_UNREACHABLE = 4,  ///< no daemon answers on the control socket
  EXIT_REFUSED = 5,      ///< refused in the present state, such as a submission while the node is not active
  EXIT_UNKNOWN = 6,      ///< no result: what was submitted may be applied later, but at most once
  EXIT_STORE = 7         ///< the daemon cannot read or write its store, and ended so that nothing is lost
};

}  // namespace kesh
