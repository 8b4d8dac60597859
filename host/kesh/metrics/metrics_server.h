/// GET /metrics over HTTP, for a collector that asks. Read only; for anybody who can connect.
#pragma once

#include <functional>
#include <string>

struct MHD_Daemon;

namespace kesh
{

class metrics_server
{
public:
  /// `text` is asked by the server's thread; what it throws becomes an answer 500.
  explicit metrics_server(std::function<std::string()> text) : text_(std::move(text)) {}
  ~metrics_server() { stop(); }
  metrics_server(const metrics_server &) = delete;
  metrics_server &operator=(const metrics_server &) = delete;

  /// Begins a thread. `where` as is_listen_address takes it. On failure returns false, and `error` says why.
  bool start(const std::string &where, std::string &error);
  /// Ends the thread, and all connections. Harmless if none runs.
  void stop();

  std::string text() const { return text_(); }

private:
  std::function<std::string()> text_;
  MHD_Daemon *daemon_ = nullptr;
};

}  // namespace kesh
