/// vx-node-view: runs a command in a view of the machine of its own (see --help).
#include "view.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <string_view>
#include <sys/prctl.h>
#include <unistd.h>

namespace
{

constexpr int EXIT_VIEW = 125;          // the view could not be made
constexpr int EXIT_NOT_EXECUTED = 126;  // the command is there but cannot be run
constexpr int EXIT_NOT_FOUND = 127;

const char HELP[] =
    "Usage: vx-node-view [OPTION]... -- COMMAND [ARGUMENT]...\n"
    "Runs COMMAND with a /flashdisk (cons/ in it) and a /run (/var/run) of its own and its own System V message\n"
    "queues. Everything else of the machine stays visible at its path. Nothing is left behind: the view ends with\n"
    "the last process in it. Works as root, and without where user namespaces are allowed.\n"
    "\n"
    "  --flashdisk DIR         DIR becomes /flashdisk (default: an empty tmpfs)\n"
    "  --run DIR               DIR becomes /run (default: an empty tmpfs)\n"
    "  --tmp                   the defaults: a view for a test, empty and gone at its end\n"
    "  --net-new               a network of its own, in which only the loopback interface is, and up\n"
    "  --net-pid PID           the network, and the queues, that process PID has\n"
    "  --join PID              no new view: the one in which PID lives, its network and queues included\n"
    "  --outlive-parent        go on when the caller dies (default: COMMAND is killed with it)\n"
    "  --help                  this text\n"
    "\n"
    "COMMAND takes the place of this program: signals, process id and exit status are COMMAND's own.\n"
    "Exit status 125: the view could not be made, 126: COMMAND cannot be executed, 127: it is not there.\n";

struct arguments {
  node_view::view_options view;
  pid_t join_pid = 0;
  bool outlive_parent = false;
  char **command = nullptr;
};

[[noreturn]] void usage_error(const char *text)
{
  std::fprintf(stderr, "vx-node-view: %s (--help shows how)\n", text);
  std::exit(EXIT_VIEW);
}

pid_t to_pid(std::string_view text)
{
  pid_t pid = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
  if (error != std::errc() || end != text.data() + text.size() || pid <= 0) {
    usage_error("a process id is a positive number");
  }
  return pid;
}

arguments parse(int argc, char **argv)
{
  enum { FLASHDISK = 1, RUN, TMP, NET_NEW, NET_PID, JOIN, OUTLIVE, HELP_TEXT };
  const option options[] = {
      {"flashdisk", required_argument, nullptr, FLASHDISK},
      {"run", required_argument, nullptr, RUN},
      {"tmp", no_argument, nullptr, TMP},
      {"net-new", no_argument, nullptr, NET_NEW},
      {"net-pid", required_argument, nullptr, NET_PID},
      {"join", required_argument, nullptr, JOIN},
      {"outlive-parent", no_argument, nullptr, OUTLIVE},
      {"help", no_argument, nullptr, HELP_TEXT},
      {nullptr, 0, nullptr, 0},
  };
  arguments result;
  int found;
  while ((found = getopt_long(argc, argv, "+", options, nullptr)) != -1) {
    switch (found) {
    case FLASHDISK:
      result.view.flashdisk_dir = optarg;
      break;
    case RUN:
      result.view.run_dir = optarg;
      break;
    case TMP:
      break;
    case NET_NEW:
      result.view.net_new = true;
      break;
    case NET_PID:
      result.view.net_pid = to_pid(optarg);
      break;
    case JOIN:
      result.join_pid = to_pid(optarg);
      break;
    case OUTLIVE:
      result.outlive_parent = true;
      break;
    case HELP_TEXT:
      std::fputs(HELP, stdout);
      std::exit(0);
    default:
      usage_error("wrong usage");
    }
  }
  if (optind == argc) {
    usage_error("no command");
  }
  if (result.view.net_new && result.view.net_pid != 0) {
    usage_error("--net-new and --net-pid exclude each other");
  }
  result.command = argv + optind;
  return result;
}

void die_with_parent(pid_t parent)
{
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    std::raise(SIGKILL);  // it was gone before the kernel knew of our wish
  }
}

}  // namespace

int main(int argc, char **argv)
{
  pid_t parent = getppid();
  arguments arguments = parse(argc, argv);
  try {
    if (arguments.join_pid != 0) {
      node_view::join(arguments.join_pid);
    } else {
      node_view::enter(arguments.view);
    }
  } catch (const std::exception &error) {
    std::fprintf(stderr, "vx-node-view: %s\n", error.what());
    return EXIT_VIEW;
  }
  if (!arguments.outlive_parent) {
    die_with_parent(parent);
  }
  execvp(arguments.command[0], arguments.command);
  int exec_error = errno;
  std::fprintf(stderr, "vx-node-view: %s: %s\n", arguments.command[0], std::strerror(exec_error));
  return exec_error == ENOENT ? EXIT_NOT_FOUND : EXIT_NOT_EXECUTED;
}
