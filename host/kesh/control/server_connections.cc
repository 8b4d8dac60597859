// The thread of the control socket: what it does for one connection.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

#include "control/request.h"
#include "control/server.h"
#include "exit_codes.h"

namespace kesh
{

using nlohmann::json;

void control_server::on_event(connection &one, uint32_t events)
{
  // Both directions are closed, other than by a client that has sent its last line.
  const bool has_left = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (one.peer) {
    if (has_left) {
      epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, one.peer->fd(), nullptr);
      operations_.client_left(one.id);
    }
  } else if (one.submit) {
    if (has_left) {
      close(one);
    } else if ((events & EPOLLIN) != 0) {
      read_lines(one);
    } else {
      pump(one);
    }
  } else {
    read_request(one);  // of a client that has left, too: it may have asked for something before
  }
}

void control_server::read_request(connection &one)
{
  const ssize_t got = recv(one.fd.get(), chunk_.data(), chunk_.size(), 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    close(one);
    return;
  }
  const std::string_view bytes(chunk_.data(), static_cast<size_t>(got));
  const size_t end = bytes.find('\n');
  if (one.request.size() + std::min(end, bytes.size()) > REQUEST_MAX) {
    refuse(one, EXIT_USAGE, "the request is longer than " + std::to_string(REQUEST_MAX) + " bytes");
    return;
  }
  one.request += bytes.substr(0, end);
  if (end != std::string_view::npos) {
    end_request(one);
    const std::string line = std::move(one.request);
    one.request = {};
    serve(one, line, bytes.substr(end + 1));
  }
}

void control_server::end_request(connection &one)
{
  if (one.request_place) {
    requests_.erase(*one.request_place);
    one.request_place.reset();
  }
}

void control_server::serve(connection &one, std::string_view line, std::string_view rest)
{
  try {
    json request = request_parse(line);
    if (request.at("op") == "submit") {
      open_submission(one, request, rest);
    } else {
      open_operation(one, std::move(request));
    }
  } catch (const request_error &failure) {
    refuse(one, EXIT_USAGE, failure.what());
  }
}

void control_server::open_submission(connection &one, const json &request, std::string_view rest)
{
  const submit_request wanted = submit_request_parse(request);
  if (by_client_.size() >= configured_.submissions_max) {
    refuse(one, EXIT_REFUSED, "too many clients submit (limit " + std::to_string(configured_.submissions_max) + ')');
    return;
  }
  std::string refusal;
  one.client = items_.open_client({this, wanted.timeout, true}, refusal);
  if (one.client == 0) {
    refuse(one, EXIT_REFUSED, refusal);
    return;
  }
  by_client_.emplace(one.client, &one);
  one.submit = std::make_unique<submit_connection>(items_, one.client, wanted.window, bounds_,
                                                   reply_accepted(configured_.submit_fields));
  one.submit->received(rest);
  pump(one);
}

void control_server::open_operation(connection &one, json request)
{
  one.peer = std::make_shared<control_peer>(std::move(one.fd));
  set_interest(one, 0);  // only whether the client leaves
  if (!operations_.start(one.id, std::move(request), one.peer)) {
    close(one);
  }
}

void control_server::read_lines(connection &one)
{
  const ssize_t got = recv(one.fd.get(), chunk_.data(), chunk_.size(), 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got < 0) {
    close(one);
    return;
  }
  if (got == 0) {
    one.submit->input_ended();
  } else {
    one.submit->received({chunk_.data(), static_cast<size_t>(got)});
  }
  pump(one);
}

void control_server::pump(connection &one)
{
  do {
    if (!flush(one)) {
      close(one);
      return;
    }
  } while (one.submit->proceed());
  if (!flush(one)) {
    close(one);
    return;
  }
  const bool has_output = !one.submit->output().empty();
  if (one.submit->is_done() && !has_output) {
    close(one);
    return;
  }
  set_interest(one, (one.submit->wants_input() ? EPOLLIN : 0u) | (has_output ? EPOLLOUT : 0u));
}

bool control_server::flush(connection &one)
{
  while (!one.submit->output().empty()) {
    const std::string_view bytes = one.submit->output();
    const ssize_t sent = send(one.fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      return errno == EAGAIN || errno == EINTR;
    }
    one.submit->sent(static_cast<size_t>(sent));
  }
  return true;
}

void control_server::refuse(connection &one, int code, const std::string &error)
{
  const std::string text = reply_refused(code, error);
  [[maybe_unused]] const ssize_t sent = send(one.fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  close(one);
}

}  // namespace kesh
