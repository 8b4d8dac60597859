#include "client/input_sender.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kesh
{

using std::chrono::steady_clock;

namespace
{

constexpr size_t CHUNK_SIZE = 64 << 10;

bool is_regular(int fd)
{
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

int64_t now_ns()
{
  return std::chrono::nanoseconds(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

input_sender::input_sender(int input, int socket)
    : input_(input), socket_(socket), is_file_(is_regular(input)), end_event_(eventfd(0, EFD_CLOEXEC)),
      last_sent_ns_(now_ns()), thread_([this] { run(); })
{
}

void input_sender::end_input()
{
  is_unwanted_ = true;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(end_event_.get(), &one, sizeof one);
}

void input_sender::stop()
{
  if (thread_.joinable()) {
    end_input();
    shutdown(socket_, SHUT_RDWR);
    thread_.join();
  }
}

steady_clock::time_point input_sender::last_sent() const
{
  return steady_clock::time_point(std::chrono::nanoseconds(last_sent_ns_));
}

void input_sender::run()
{
  std::string bytes;
  char last = '\n';
  while (read_chunk(bytes)) {
    last = bytes.back();
    send(bytes);
  }
  if (last != '\n') {
    send("\n");
  }
  shutdown(socket_, SHUT_WR);
  ended_ = true;
}

/// Counts the lines before it sends them: once a send has begun, the daemon may have each of them.
void input_sender::send(std::string_view bytes)
{
  const auto lines = static_cast<uint64_t>(std::count(bytes.begin(), bytes.end(), '\n'));
  if (is_unwanted_) {
    unsent_ += lines;
    return;
  }
  last_sent_ns_ = now_ns();
  sent_ += lines;
  if (!socket_send(socket_, bytes)) {
    is_unwanted_ = true;
  }
  last_sent_ns_ = now_ns();
}

bool input_sender::read_chunk(std::string &bytes)
{
  if (!is_file_) {
    pollfd waited[] = {{input_, POLLIN, 0}, {end_event_.get(), POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    if (is_unwanted_) {
      return false;
    }
  }
  bytes.resize(CHUNK_SIZE);
  const ssize_t got = read(input_, bytes.data(), bytes.size());
  read_error_ = got < 0 ? errno : 0;
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return got > 0;
}

}  // namespace kesh
