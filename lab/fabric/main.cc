// vx-fabric: the network of a cluster under test.
#include "commands.h"
#include "control.h"
#include "tap_ports.h"

#include <CLI/CLI.hpp>

#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>
#include <system_error>

namespace
{

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

constexpr const char *FOOTER =
    R"(The nodes live in network namespaces; all their devices hang on one switch. Multicasts are flooded.
A NETNS is a file of a network namespace (/proc/PID/ns/net), or a name of `ip netns`.

Commands, one JSON object per line on the control socket, one answer line each:
  {"do":"rules","rules":[{"from":1,"to":0,"channel":4,"type":"DECIDE","loss":0.1,"dup":0.1,"delay_ms":[0,50],"reorder":0.1}]}
  {"do":"cut","pairs":[[1,2],[2,1]]}             one-way cuts; [] heals
  {"do":"stats"}   {"do":"bandwidth","bytes_per_s":1000000}   {"do":"quit"}
  {"do":"tap","node":1,"netns":"/proc/PID/ns/net","device":"vx0","address":"10.81.0.1/24"}
lab/fabric/control.h describes them all. Try: echo '{"do":"stats"}' | nc -U -N CONTROL

Exit codes: 0 ended by quit, SIGTERM or SIGINT; 1 a socket, file or device failed; 2 wrong usage.)";

struct options {
  std::string control;
  std::string wire_log;
  std::vector<std::string> taps;
  uint64_t seed = 1;
};

platform::unique_fd open_end_signals()
{
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  platform::unique_fd fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd) {
    throw std::system_error(errno, std::generic_category(), "signalfd");
  }
  return fd;
}

void run(const options &given)
{
  using namespace fabric;
  const platform::unique_fd end_signals = open_end_signals();
  event_loop loop;
  bool is_ended = false;
  loop.watch(end_signals.get(), EPOLLIN, [&](uint32_t) { is_ended = true; });
  wire_log log;
  if (!given.wire_log.empty()) {
    log.open(given.wire_log);
  }
  network net(given.seed, log);
  tap_ports taps(loop, net);
  for (const std::string &tap : given.taps) {
    taps.add(parse_tap(tap));
  }
  commands what(net, taps);
  control_server control(loop, what);
  if (!given.control.empty()) {
    control.listen(given.control);
  }
  std::printf("vx-fabric: ready, seed %ju\n", static_cast<uintmax_t>(given.seed));
  std::fflush(stdout);
  while (!is_ended && !what.is_quit_wanted()) {
    loop.run_once(std::min(net.next_due_ns(), log.next_due_ns()));
    const int64_t now = now_ns();
    net.advance(now);
    log.advance(now);
    control.flush();
  }
  log.end(net.stats().dump());
}

int parse_and_run(int argc, char **argv)
{
  options given;
  CLI::App app("The network of a cluster under test: carries every datagram between the nodes, and loses, doubles,\n"
               "reorders, delays or cuts them, as its control socket is told.");
  app.name("vx-fabric");
  app.footer(FOOTER);
  app.add_option("--tap", given.taps, "TAP device of node N in a network namespace; once per node")
      ->type_name("N=NETNS:DEVICE[:ADDRESS/PREFIX]");
  app.add_option("--control", given.control, "Unix socket for commands")->type_name("PATH");
  app.add_option("--wire-log", given.wire_log, "File that what nodes send is recorded in, at its end")
      ->type_name("PATH");
  app.add_option("--seed", given.seed, "Seed of all random choices")->capture_default_str();
  try {
    app.parse(argc, argv);
    if (given.taps.empty() && given.control.empty()) {
      throw CLI::RequiredError("--tap or --control");
    }
    for (const std::string &tap : given.taps) {
      fabric::parse_tap(tap);
    }
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : EXIT_USAGE;
  } catch (const std::invalid_argument &error) {
    std::fprintf(stderr, "vx-fabric: --tap %s\n", error.what());
    return EXIT_USAGE;
  }
  run(given);
  return 0;
}

}  // namespace

int main(int argc, char **argv)
{
  try {
    return parse_and_run(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "vx-fabric: %s\n", error.what());
    return EXIT_FAILED;
  }
}
