// Many clients of kesh in one thread. Each has a connection of its own and waits for one line at a time.
//
//   vx-kesh-clients SOCKET[,SOCKET..] CLIENTS SECONDS BYTES
//
// The clients take the sockets in turn. Prints one line of JSON (results.h); times are from the line's write to its
// answer. Exit code 0 if every line was acknowledged.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "results.h"

namespace
{

using clock_type = std::chrono::steady_clock;

struct client {
  int fd = -1;
  bool is_open = false;  // the request was accepted
  std::string answer;    // half a line
  clock_type::time_point sent;
};

std::vector<std::string> split(std::string_view text)
{
  std::vector<std::string> parts;
  for (size_t end = text.find(','); end != std::string_view::npos; end = text.find(',')) {
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  parts.emplace_back(text);
  return parts;
}

int connect_to(const std::string &path)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error(path + ": too long for a socket's path");
  }
  memcpy(address.sun_path, path.c_str(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return fd;
}

class load
{
public:
  load(const std::vector<std::string> &sockets, size_t count, size_t bytes)
      : line_(std::string(bytes, 'x') + '\n'), clients_(count), poll_(epoll_create1(EPOLL_CLOEXEC))
  {
    for (size_t i = 0; i < count; ++i) {
      clients_[i].fd = connect_to(sockets[i % sockets.size()]);
      epoll_event wanted = {.events = EPOLLIN, .data = {.u64 = i}};
      epoll_ctl(poll_, EPOLL_CTL_ADD, clients_[i].fd, &wanted);
      write_all(clients_[i], "{\"op\": \"submit\", \"window\": 1, \"timeout_s\": 60}\n");
    }
  }

  bench::results run(double seconds)
  {
    const auto begin = clock_type::now();
    end_ = begin + std::chrono::duration_cast<clock_type::duration>(std::chrono::duration<double>(seconds));
    under_way_ = clients_.size();
    while (under_way_ != 0) {
      epoll_event events[256];
      const int count = epoll_wait(poll_, events, 256, 10'000);
      if (count == 0) {
        throw std::runtime_error("no answer within 10 s");
      }
      for (int i = 0; i < count; ++i) {
        read_from(clients_[events[i].data.u64]);
      }
    }
    results_.seconds = std::chrono::duration<double>(clock_type::now() - begin).count();
    return std::move(results_);
  }

private:
  static void write_all(client &to, std::string_view bytes)
  {
    if (send(to.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
      throw std::system_error(errno, std::generic_category(), "send");
    }
  }

  void send_line(client &to)
  {
    to.sent = clock_type::now();
    if (to.sent >= end_) {
      --under_way_;
      return;
    }
    write_all(to, line_);
  }

  void read_from(client &from)
  {
    char bytes[4096];
    const ssize_t got = read(from.fd, bytes, sizeof bytes);
    if (got <= 0) {
      throw std::runtime_error("the daemon closed a connection");
    }
    from.answer.append(bytes, static_cast<size_t>(got));
    for (size_t end = from.answer.find('\n'); end != std::string::npos; end = from.answer.find('\n')) {
      take(from, std::string_view(from.answer).substr(0, end));
      from.answer.erase(0, end + 1);
    }
  }

  void take(client &from, std::string_view answer)
  {
    if (!from.is_open) {
      if (answer.find("\"ok\":true") == std::string_view::npos) {
        throw std::runtime_error("refused: " + std::string(answer));
      }
      from.is_open = true;
    } else if (answer.starts_with("ok ")) {
      results_.latencies_us.push_back(
          std::chrono::duration_cast<std::chrono::microseconds>(clock_type::now() - from.sent).count());
    } else {
      ++results_.failed;
    }
    send_line(from);
  }

  const std::string line_;
  std::vector<client> clients_;
  int poll_;
  size_t under_way_ = 0;
  clock_type::time_point end_;
  bench::results results_;
};

size_t number(const char *text)
{
  size_t value = 0;
  const char *end = text + strlen(text);
  if (std::from_chars(text, end, value).ptr != end || value == 0) {
    throw std::runtime_error(std::string(text) + ": a number above 0 is expected");
  }
  return value;
}

}  // namespace

int main(int argc, char **argv)
{
  if (argc != 5) {
    fprintf(stderr, "usage: vx-kesh-clients SOCKET[,SOCKET..] CLIENTS SECONDS BYTES\n");
    return 2;
  }
  try {
    const size_t count = number(argv[2]);
    const rlimit files = {.rlim_cur = count + 64, .rlim_max = count + 64};
    setrlimit(RLIMIT_NOFILE, &files);
    bench::results found = load(split(argv[1]), count, number(argv[4])).run(static_cast<double>(number(argv[3])));
    found.print();
    return found.failed == 0 ? 0 : 1;
  } catch (const std::exception &failure) {
    fprintf(stderr, "vx-kesh-clients: %s\n", failure.what());
    return 1;
  }
}
