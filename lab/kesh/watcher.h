/// The laboratory inside a daemon. Writes the trace that the key lab.trace names, and adds operations to the control
/// socket:
///
///     {"op":"slow","hook":"deliver"|"state","ms":N}   a hook of data type 0 takes that much longer; 0 ends it
///     {"op":"block","mask":M}                         what the nodes of the mask send is dropped (bit n - 1 = node n)
///     {"op":"distribute","bytes":[B,..]}              these bytes become a payload, whatever they are
///     {"op":"load",..}                                load.h
///     {"op":"unbatched",..}                           unbatched.h
#pragma once

#include <atomic>
#include <cstdint>

#include "daemon/observer.h"
#include "trace.h"

namespace kesh_lab
{

class watcher final : public kesh::observer
{
public:
  std::span<const kesh::config_key> config_keys() const override;
  bool begin(kesh::service &host, std::string &error) override;
  kesh::operation_table operations(kesh::service &host) override;
  void noted(std::string_view event, const std::string &detail) override;
  int distribute(std::string_view payload, const std::function<int()> &call) override;
  void hook_begins(uint32_t type, bool asks_for_state) override;
  void delivered(const kesh::payload &from, const kesh::applied &result) override;
  void adopted(uint32_t type, size_t bytes) override;
  void damaged(uint32_t type, size_t bytes) override;
  void state_made(uint32_t bytes) override;

private:
  void slow(const nlohmann::json &request, kesh::control_peer &peer);

  kesh::service *host_ = nullptr;  // set by begin
  trace events_;
  std::atomic<uint32_t> deliver_ms_ = 0;
  std::atomic<uint32_t> state_ms_ = 0;
  std::atomic<uint32_t> senders_ = 0;
};

}  // namespace kesh_lab
