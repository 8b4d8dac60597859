/// What the library's records say of this node, as it tells the others.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cluster/hello.h"
#include "store/fit.h"

namespace kesh
{

struct own_records {
  std::string fault;  ///< why one of them cannot be read; empty: all were
  bool knows_decision = false;
  bool knows_top = false;     ///< decision and registers were read
  bool has_past = false;      ///< a decision, or a register's file
  uint32_t decision = 0;      ///< number in paxos_decide
  uint32_t register_max = 0;  ///< of the registers' files; 0: none
  bool handled = false;       ///< the log is delivered to its end
  uint32_t msg_id = 0;        ///< last one handed out; 0: not known
  message_ids ids{};          ///< highest ones in the log
};

/// Reads the records of a library that may run. `decision` is flushed: it is told to others, who remember it.
class records_reader
{
public:
  explicit records_reader(std::string directory) : directory_(std::move(directory)) {}

  own_records read();
  /// Replaces the record of the last message id, durably. Only while the library is stopped.
  bool write_msg_id(uint32_t msg_id, std::string &error) const;

private:
  void read_log(own_records &to);
  bool flush(std::string &error) const;

  std::string directory_;
  uint32_t flushed_ = 0;  // the last decision that was
};

}  // namespace kesh
