"""What can go wrong, and with which exit code a command then ends."""

EXIT_OK = 0
EXIT_FAILED = 1  # something that had to hold does not
EXIT_USAGE = 2  # wrong arguments
EXIT_NO_LAB = 4  # no laboratory is up in the run directory
EXIT_REFUSED = 5  # a node, or the machine, does not do what was asked of it
EXIT_INTERRUPTED = 130


class LabError(Exception):
    """A clear sentence for the user: what, where, and what to do."""

    exit_code = EXIT_REFUSED


class UsageError(LabError):
    exit_code = EXIT_USAGE


class NoLabError(LabError):
    exit_code = EXIT_NO_LAB


class CheckFailed(LabError):
    """A promise of the cluster does not hold."""

    exit_code = EXIT_FAILED
