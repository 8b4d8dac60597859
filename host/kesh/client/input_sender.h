/// The input of `kesh submit` on its way to the daemon.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "client/socket_text.h"

namespace kesh
{

/// Copies the input to the socket on a thread of its own, until the input ends or is not wanted any more.
class input_sender
{
public:
  input_sender(int input, int socket);
  ~input_sender() { stop(); }
  input_sender(const input_sender &) = delete;
  input_sender &operator=(const input_sender &) = delete;

  /// No line is sent after those that are on their way. Of a regular file the lines that are left are counted.
  void end_input();
  /// end_input(), and ends a send that waits, too. Waits for the thread.
  void stop();

  /// Lines that the daemon may have got. Any time.
  uint64_t sent() const { return sent_; }
  /// Nothing will be sent any more.
  bool has_ended() const { return ended_; }
  /// When something was last handed to the socket.
  std::chrono::steady_clock::time_point last_sent() const;

  /// After stop(): lines that were read and not sent, and errno of a read that failed.
  uint64_t unsent() const { return unsent_; }
  int read_error() const { return read_error_; }

private:
  void run();
  bool read_chunk(std::string &bytes);
  void send(std::string_view bytes);

  const int input_;
  const int socket_;
  const bool is_file_;
  platform::unique_fd end_event_;
  std::atomic<bool> is_unwanted_ = false;
  std::atomic<bool> ended_ = false;
  std::atomic<uint64_t> sent_ = 0;
  std::atomic<int64_t> last_sent_ns_;
  uint64_t unsent_ = 0;
  int read_error_ = 0;
  std::thread thread_;
};

}  // namespace kesh
