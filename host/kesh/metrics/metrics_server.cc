#include "metrics/metrics_server.h"

#include <microhttpd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>

#include "metrics/listen_address.h"

namespace kesh
{

namespace
{

constexpr unsigned CONNECTIONS_MAX = 16;
constexpr unsigned IDLE_S = 10;
constexpr char CONTENT_TYPE[] = "text/plain; version=0.0.4; charset=utf-8";

MHD_Result answer(MHD_Connection *to, unsigned status, const std::string &text)
{
  MHD_Response *const response =
      MHD_create_response_from_buffer(text.size(), const_cast<char *>(text.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) {
    return MHD_NO;
  }
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, CONTENT_TYPE);
  const MHD_Result queued = MHD_queue_response(to, status, response);
  MHD_destroy_response(response);
  return queued;
}

// No exception may reach C.
MHD_Result handle(void *server, MHD_Connection *from, const char *url, const char *method, const char *, const char *,
                  size_t *upload_size, void **)
{
  try {
    *upload_size = 0;  // whatever it is, it is thrown away
    if (strcmp(url, "/metrics") != 0) {
      return answer(from, MHD_HTTP_NOT_FOUND, "only /metrics is here\n");
    }
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
      return answer(from, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n");
    }
    return answer(from, MHD_HTTP_OK, static_cast<metrics_server *>(server)->text());
  } catch (const std::exception &failure) {
    return answer(from, MHD_HTTP_INTERNAL_SERVER_ERROR, failure.what());
  }
}

}  // namespace

bool metrics_server::start(const std::string &where, std::string &error)
{
  const auto address = listen_address_of(where);
  if (!address) {
    error = "\"" + where + "\" is not an IPv4 address, a colon and a port";
    return false;
  }
  errno = 0;
  daemon_ = MHD_start_daemon(MHD_USE_AUTO_INTERNAL_THREAD, 0, nullptr, nullptr, handle, this, MHD_OPTION_SOCK_ADDR,
                             &*address, MHD_OPTION_CONNECTION_LIMIT, CONNECTIONS_MAX, MHD_OPTION_CONNECTION_TIMEOUT,
                             IDLE_S, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    error = where + ": " + (errno != 0 ? std::generic_category().message(errno) : "cannot be listened at");
  }
  return daemon_ != nullptr;
}

void metrics_server::stop()
{
  if (daemon_ != nullptr) {
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
  }
}

}  // namespace kesh
