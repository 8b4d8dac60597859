"""The errors of the laboratory, and the exit codes of its commands."""

EXIT_OK = 0
EXIT_FAILED = 1  # a promise does not hold
EXIT_USAGE = 2  # wrong arguments
EXIT_NO_LAB = 4  # no laboratory is up in the run directory
EXIT_REFUSED = 5  # a node or the machine does not do what was asked
EXIT_INTERRUPTED = 130


class LabError(Exception):
    """Its text is a clear sentence for the user: what went wrong, where, and what to do."""

    exit_code = EXIT_REFUSED


class UsageError(LabError):
    exit_code = EXIT_USAGE


class NoLabError(LabError):
    exit_code = EXIT_NO_LAB


class CheckFailed(LabError):
    """A promise of the cluster does not hold."""

    exit_code = EXIT_FAILED
