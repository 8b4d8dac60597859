/// One connection that submits lines: what it sends and what it is answered, without the socket.
///
/// After the request the client sends lines and closes its direction. For each line the daemon answers, in the order in
/// which they end,
///   ok LINE SEQUENCE MICROSECONDS ATTEMPTS NUMBER
///   unknown LINE SEQUENCE ATTEMPTS REASON   it may still be applied, once
///   refused LINE REASON                     not submitted, and never will be
/// LINE counts the lines of this client from 1, SEQUENCE is the tag's, NUMBER the line's in the journal. After the
/// first line that is not "ok", those that wait are refused. When all are answered, "done" follows.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "submit/item_taker.h"

namespace kesh
{

/// {"window": lines open at once, "timeout_s": seconds from a line's arrival to its deadline}
struct submit_request {
  size_t window = 64;
  std::chrono::nanoseconds timeout{0};
};

/// Throws request_error.
submit_request submit_request_parse(const nlohmann::json &request);

/// Bounds of what arrives. All connections share one.
struct input_bounds {
  static constexpr size_t UNCHARGED = 64 << 10;

  size_t line_max = 64 << 20;
  size_t arriving_max = 256 << 20;  ///< of lines in all that have not arrived in full, beyond UNCHARGED each
  size_t arriving = 0;
};

/// One thread.
class submit_connection
{
public:
  /// `client` of `items`; the owner closes it. `reply` is the answer to the request.
  submit_connection(item_taker &items, uint64_t client, size_t window, input_bounds &bounds, std::string reply)
      : items_(items), client_(client), window_(window), bounds_(bounds), output_(std::move(reply))
  {
  }
  ~submit_connection();
  submit_connection(const submit_connection &) = delete;
  submit_connection &operator=(const submit_connection &) = delete;

  void received(std::string_view bytes);
  void input_ended() { input_ended_ = true; }
  void answered(const item_result &result);
  /// Submits lines as long as there is room for them and for their answers. Returns whether there was something to do.
  bool proceed();

  /// Only then may bytes be received: else the client has to wait.
  bool wants_input() const { return !input_ended_ && !is_held_up_ && has_room(0); }
  std::string_view output() const { return std::string_view(output_).substr(output_start_); }
  void sent(size_t count);
  /// "done" stands in the output.
  bool is_done() const { return done_; }

private:
  bool has_room(size_t size) const;
  /// Takes the next whole line out of the input, if there is one and room for it.
  bool next_line(std::string &line);
  void submit();
  void end_cut_line();
  void refuse(uint64_t number, std::string_view reason);
  /// Refuses the line that is arriving, and drops the rest of it.
  void refuse_arriving(std::string_view reason);
  void charge();

  item_taker &items_;
  const uint64_t client_;
  const size_t window_;
  input_bounds &bounds_;
  std::string input_;
  size_t start_ = 0;     // of the next line
  size_t searched_ = 0;  // no newline between start_ and here
  size_t charged_ = 0;
  bool is_held_up_ = false;   // a whole line waits for room
  bool is_skipping_ = false;  // up to the next newline
  bool input_ended_ = false;
  std::vector<new_item> batch_;
  uint64_t lines_ = 0;
  size_t open_ = 0;
  size_t open_bytes_ = 0;
  bool has_failed_ = false;
  std::string output_;
  size_t output_start_ = 0;
  bool done_ = false;
};

}  // namespace kesh
