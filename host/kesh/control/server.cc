// The thread of the control socket: what it waits for, whom it lets in.
#include "control/server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "control/request.h"
#include "exit_codes.h"
#include "platform.h"

namespace kesh
{

using platform::lock_scope;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{

constexpr size_t READ_SIZE = 64 << 10;
constexpr int ACCEPTS_IN_A_ROW = 64;
constexpr milliseconds ACCEPT_PAUSE{100};
constexpr std::chrono::seconds WARN_PAUSE{10};
constexpr size_t OTHER_DESCRIPTORS = 512;  // of the rest of the process
// What epoll gives back; connections count up from there.
constexpr uint64_t LISTENER = 0;
constexpr uint64_t WAKE_EVENT = 1;

void raise_descriptor_limit(size_t wanted)
{
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = std::min<rlim_t>(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

bool watch(int epoll, int fd, uint64_t key, uint32_t events)
{
  epoll_event event = {};
  event.events = events;
  event.data.u64 = key;
  return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

control_server::control_server(control_settings configured, operation_table operations, item_taker &items)
    : configured_(std::move(configured)), items_(items), chunk_(READ_SIZE), last_id_(WAKE_EVENT),
      bounds_(configured_.input), operations_(std::move(operations), configured_.operations, [this] { wake(); })
{
}

control_server::~control_server()
{
  stop();
}

bool control_server::start(std::string &error)
{
  if (!listener_.open(configured_.socket_path, error)) {
    return false;
  }
  const operation_limits &most = configured_.operations;
  raise_descriptor_limit(OTHER_DESCRIPTORS + configured_.requests_max + configured_.submissions_max + most.questions +
                         most.endings + most.commands + most.streams + most.left);
  epoll_ = platform::unique_fd(epoll_create1(EPOLL_CLOEXEC));
  wake_event_ = platform::unique_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  reserve_ = platform::unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!epoll_ || !wake_event_ || !reserve_ || !watch(epoll_.get(), listener_.fd(), LISTENER, EPOLLIN) ||
      !watch(epoll_.get(), wake_event_.get(), WAKE_EVENT, EPOLLIN)) {
    error = std::string("control socket: ") + strerror(errno);
    listener_.close();
    return false;
  }
  thread_ = std::thread([this] { loop(); });
  return true;
}

void control_server::stop()
{
  if (!thread_.joinable()) {
    return;
  }
  stopping_ = true;
  wake();
  thread_.join();
  listener_.close();
  operations_.stop();
  // Also those whose handlers ended just now.
  for (const auto &[id, one] : connections_) {
    if (one->peer && one->peer->is_kept_open()) {
      kept_open_.push_back(one->peer);
    }
  }
  connections_.clear();
}

void control_server::on_results(uint64_t client, std::span<const item_result> results) noexcept
{
  bool was_empty = false;
  {
    const lock_scope scope(lock_);
    was_empty = arrived_.empty();
    for (const item_result &one : results) {
      arrived_.push_back({client, one});
    }
  }
  if (was_empty) {
    wake();
  }
}

void control_server::wake()
{
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_event_.get(), &one, sizeof one);
}

template <typename action>
void control_server::with(uint64_t id, const action &act)
{
  try {
    if (const auto found = connections_.find(id); found != connections_.end()) {
      act(*found->second);
    }
  } catch (const std::exception &failure) {
    platform::log_line(platform::log_level::warning, std::string("control socket: ") + failure.what());
    if (const auto found = connections_.find(id); found != connections_.end()) {
      close(*found->second);
    }
  }
}

void control_server::loop()
{
  std::array<epoll_event, 256> events;
  while (!stopping_) {
    const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), wait_ms());
    for (int i = 0; i < count; i++) {
      const uint64_t key = events[static_cast<size_t>(i)].data.u64;
      if (key == LISTENER) {
        accept_all();
      } else if (key == WAKE_EVENT) {
        uint64_t ignored;
        [[maybe_unused]] const ssize_t got = read(wake_event_.get(), &ignored, sizeof ignored);
      } else {
        with(key, [&](connection &one) { on_event(one, events[static_cast<size_t>(i)].events); });
      }
    }
    take_results();
    reap_operations();
    expire_requests();
    if (!is_accepting_ && steady_clock::now() >= accept_again_) {
      is_accepting_ = watch(epoll_.get(), listener_.fd(), LISTENER, EPOLLIN);
    }
  }
  close_all();
}

int control_server::wait_ms() const
{
  auto until = time_point::max();
  if (!requests_.empty()) {
    until = requests_.front()->request_deadline;
  }
  if (!is_accepting_) {
    until = std::min(until, accept_again_);
  }
  if (until == time_point::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 60'000));
}

void control_server::accept_all()
{
  for (int i = 0; i < ACCEPTS_IN_A_ROW; i++) {
    platform::unique_fd fd(accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd) {
      add(std::move(fd));
    } else if (errno != EINTR && errno != ECONNABORTED) {
      if (errno != EAGAIN) {
        accept_failed(errno);
      }
      return;
    }
  }
}

void control_server::accept_failed(int error)
{
  const auto now = steady_clock::now();
  if (now - warned_at_ >= WARN_PAUSE) {
    warned_at_ = now;
    platform::log_line(platform::log_level::warning, std::string("control socket: accept: ") + strerror(error));
  }
  if (error == EMFILE && reserve_.reset()) {
    const platform::unique_fd fd(accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd) {
      rlimit limit = {};
      getrlimit(RLIMIT_NOFILE, &limit);
      const std::string text = reply_refused(EXIT_REFUSED, "the daemon has no descriptor left (limit " +
                                                               std::to_string(limit.rlim_cur) + ')');
      [[maybe_unused]] const ssize_t sent = send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }
  if (!reserve_) {
    reserve_ = platform::unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  }
  // Others may close some meanwhile.
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.fd(), nullptr);
  is_accepting_ = false;
  accept_again_ = now + ACCEPT_PAUSE;
}

void control_server::add(platform::unique_fd fd)
{
  if (requests_.size() >= configured_.requests_max) {
    read_request(*requests_.front());  // it may have come meanwhile
  }
  if (requests_.size() >= configured_.requests_max) {
    refuse(*requests_.front(), EXIT_REFUSED,
           "too many connections without a request (limit " + std::to_string(configured_.requests_max) + ')');
  }
  auto added = std::make_unique<connection>();
  added->id = ++last_id_;
  added->fd = std::move(fd);
  added->interest = EPOLLIN;
  added->request_deadline = steady_clock::now() + configured_.request_timeout;
  if (!watch(epoll_.get(), added->fd.get(), added->id, EPOLLIN)) {
    return;
  }
  added->request_place = requests_.insert(requests_.end(), added.get());
  connections_.emplace(added->id, std::move(added));
}

void control_server::expire_requests()
{
  const auto now = steady_clock::now();
  while (!requests_.empty() && requests_.front()->request_deadline <= now) {
    refuse(*requests_.front(), EXIT_REFUSED,
           "no request came within " + std::to_string(configured_.request_timeout.count()) + " ms");
  }
}

void control_server::take_results()
{
  std::vector<client_result> results;
  {
    const lock_scope scope(lock_);
    results.swap(arrived_);
  }
  std::vector<uint64_t> answered;
  for (const client_result &one : results) {
    const auto found = by_client_.find(one.client);
    if (found == by_client_.end()) {
      continue;  // it has left
    }
    found->second->submit->answered(one.result);
    if (!found->second->has_results) {
      found->second->has_results = true;
      answered.push_back(found->second->id);
    }
  }
  for (const uint64_t id : answered) {
    with(id, [this](connection &one) {
      one.has_results = false;
      pump(one);
    });
  }
}

void control_server::reap_operations()
{
  for (const uint64_t id : operations_.reap()) {
    if (const auto found = connections_.find(id); found != connections_.end()) {
      if (found->second->peer->is_kept_open()) {
        kept_open_.push_back(found->second->peer);
      }
      close(*found->second);
    }
  }
}

void control_server::set_interest(connection &one, uint32_t events)
{
  if (one.interest != events) {
    epoll_event event = {};
    event.events = events;
    event.data.u64 = one.id;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, one.fd ? one.fd.get() : one.peer->fd(), &event);
    one.interest = events;
  }
}

void control_server::close(connection &one)
{
  end_request(one);
  if (one.client != 0) {
    items_.close_client(one.client);
    by_client_.erase(one.client);
  }
  // A descriptor that somebody else still holds would stay in the epoll set.
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, one.fd ? one.fd.get() : one.peer->fd(), nullptr);
  connections_.erase(one.id);
}

void control_server::close_all()
{
  take_results();
  std::vector<connection *> left;
  for (const auto &[id, one] : connections_) {
    if (!one->peer) {
      left.push_back(one.get());
    }
  }
  for (connection *one : left) {
    close(*one);
  }
}

}  // namespace kesh
