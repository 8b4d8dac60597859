#include "client/vrrp_fifo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "exit_codes.h"
#include "unique_fd.h"

namespace kesh
{

namespace
{

constexpr size_t LINE_MAX_BYTES = 4096;

platform::unique_fd open_termination()
{
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return platform::unique_fd(signalfd(-1, &signals, SFD_CLOEXEC));
}

/// Takes the whole lines out of `text`. Returns the last code that is not EXIT_OK.
int take_lines(std::string &text, const std::string &instance, const std::function<int(const std::string &)> &note)
{
  int code = EXIT_OK;
  for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
    if (const auto word = vrrp_word_of(std::string_view(text).substr(0, end), instance)) {
      const int noted = note(*word);
      code = noted != EXIT_OK ? noted : code;
    }
  }
  if (text.size() > LINE_MAX_BYTES) {
    text.clear();
  }
  return code;
}

}  // namespace

std::optional<std::string> vrrp_word_of(std::string_view line, std::string_view instance)
{
  constexpr std::string_view HEAD = "INSTANCE \"";
  const size_t quote = line.rfind("\" ");
  if (!line.starts_with(HEAD) || quote == std::string_view::npos || quote < HEAD.size()) {
    return std::nullopt;
  }
  if (!instance.empty() && line.substr(HEAD.size(), quote - HEAD.size()) != instance) {
    return std::nullopt;
  }
  const std::string_view rest = line.substr(quote + 2);
  const std::string_view word = rest.substr(0, rest.find_first_of(" \r"));
  for (const char *known : {"MASTER", "BACKUP", "FAULT", "STOP"}) {
    if (word == known) {
      return std::string(word);
    }
  }
  return std::nullopt;
}

int vrrp_follow(const std::string &fifo, const std::string &instance,
                const std::function<int(const std::string &)> &note)
{
  const platform::unique_fd termination = open_termination();
  const platform::unique_fd from(open(fifo.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!from || !termination) {
    fprintf(stderr, "kesh vrrp: %s: %s\n", fifo.c_str(), strerror(errno));
    return EXIT_CONFIG;
  }
  std::array<pollfd, 2> waited = {{{from.get(), POLLIN, 0}, {termination.get(), POLLIN, 0}}};
  std::string text;
  int code = EXIT_OK;
  for (;;) {
    if (poll(waited.data(), waited.size(), -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      break;
    }
    char bytes[512];
    const ssize_t size = waited[0].revents != 0 ? read(from.get(), bytes, sizeof bytes) : -1;
    if (size > 0) {
      text.append(bytes, static_cast<size_t>(size));
      const int taken = take_lines(text, instance, note);
      code = taken != EXIT_OK ? taken : code;
    } else if (size == 0 || waited[1].revents != 0) {
      break;
    }
  }
  const int stopped = note("STOP");
  return stopped != EXIT_OK ? stopped : code;
}

}  // namespace kesh
