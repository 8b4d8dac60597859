"""Version and build number of the laboratory: those of CMakeLists.txt, as a test demands."""

VERSION = "1.0.0"
BUILD_NR = 10000  # nodes of another one are not heard


def text(program):
    return f"{program} {VERSION}, build {BUILD_NR}"
