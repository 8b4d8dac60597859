/// Operations of the control socket that a handler carries out, each on a thread of its own.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "control/peer.h"

namespace kesh
{

/// Each class has a limit of its own, so that none of them keeps another from its answer.
enum class operation_class : uint8_t {
  question,  ///< answers soon and changes nothing: status, health
  ending,    ///< stop, leave
  command,   ///< may take long
  stream,    ///< goes on until its client leaves
};

struct operation {
  operation_class kind = operation_class::question;
  /// Runs on its own thread. A request_error or nlohmann exception that it throws is answered as a refusal.
  std::function<void(const nlohmann::json &request, control_peer &peer)> run;
};

using operation_table = std::map<std::string, operation, std::less<>>;

struct operation_limits {
  size_t questions = 32;
  size_t endings = 4;
  size_t commands = 16;
  size_t streams = 64;
  size_t left = 256;  ///< operations of all classes that go on without their clients
};

/// All functions but the constructor are for one thread, the server's.
class operation_runner
{
public:
  /// `ended` is called on the thread of an operation when it is done; reap() then drops it.
  operation_runner(operation_table table, const operation_limits &limits, std::function<void()> ended);
  ~operation_runner() { stop(); }

  /// Starts the operation "op" of `request`. False if it is not, and the peer was told why.
  bool start(uint64_t id, nlohmann::json request, std::shared_ptr<control_peer> peer);
  /// The client has left: its place is free at once, though the handler may still run.
  void client_left(uint64_t id);
  /// Drops what is done, and returns the ids.
  std::vector<uint64_t> reap();
  /// Ends the connections, and waits for all handlers.
  void stop();

private:
  struct running {
    std::shared_ptr<control_peer> peer;
    operation_class kind = operation_class::question;
    bool has_left = false;
    std::atomic<bool> done = false;
    std::thread thread;
  };

  size_t &count(const running &one) { return one.has_left ? left_ : counts_[static_cast<size_t>(one.kind)]; }
  /// Empty if there is room.
  std::string full_text(operation_class kind) const;
  void run(const operation &what, const nlohmann::json &request, running &one);

  const operation_table table_;
  const operation_limits limits_;
  const std::function<void()> ended_;
  std::unordered_map<uint64_t, running> running_;
  std::array<size_t, 4> counts_{};  // by class, without those whose client has left
  size_t left_ = 0;
};

}  // namespace kesh
