/// Who watches the daemon from inside, and may hold it up: a laboratory. The daemon that people run has nobody.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "config/keys.h"
#include "control/operations.h"
#include "items/payload.h"
#include "store/store.h"

namespace kesh
{

class service;

/// Does nothing; a laboratory derives from it. The functions are called on the thread on which the thing happens, those
/// of hooks on stacks of 64 KiB.
class observer
{
public:
  observer() = default;
  virtual ~observer() = default;
  observer(const observer &) = delete;
  observer &operator=(const observer &) = delete;

  /// Keys of the configuration that are known beside those of config/keys.h.
  virtual std::span<const config_key> config_keys() const { return {}; }
  /// The configuration is read, and no other thread runs. False: the daemon must not run, `error` says why.
  virtual bool begin(service &, std::string & /*error*/) { return true; }
  /// Further operations of the control socket.
  virtual operation_table operations(service &) { return {}; }

  /// The life cycle of library and store: start-call, start-return RESULT, stop-call, isolated, rejoin REASON, ..
  virtual void noted(std::string_view /*event*/, const std::string & /*detail*/ = {}) {}
  /// `call` submits the payload to the library.
  virtual int distribute(std::string_view /*payload*/, const std::function<int()> &call) { return call(); }

  virtual void hook_begins(uint32_t /*type*/, bool /*asks_for_state*/) {}
  /// The payload is committed to the store.
  virtual void delivered(const payload &, const applied &) {}
  /// A part of a full state has been taken; with the last one the store has changed.
  virtual void adopted(uint32_t /*type*/, size_t /*bytes*/) {}
  virtual void damaged(uint32_t /*type*/, size_t /*bytes*/) {}
  virtual void state_made(uint32_t /*bytes*/) {}
};

}  // namespace kesh
