/// Files of the registers: what an acceptor must never forget. One file per register, /flashdisk/cons/rb_reg.<id>:
///
///   offset  width  field (little-endian)
///   0       4      read_round
///   4       4      write_round
///   8       4      L, length of the value
///   12      L      value; what follows it is ignored
///
/// Replaced whole: written to rb_reg.<id>.tmp, renamed, sync(). The directory must exist. Failures are logged here.
#pragma once

#include <cstdint>
#include <span>

#include "common/cons_value.h"

/// Durable part of a register.
struct acceptor_state {
  uint32_t read_round = 0;   ///< highest round promised to a READ; 0 = none
  uint32_t write_round = 0;  ///< round of the accepted value; 0 = none
  cons_value value;          ///< the accepted value
};

/// Returns 0 with the file's state, or with `state` unchanged if there is no file; -1 if the file is unusable or cannot
/// be opened (state unchanged): what was promised there is then not known.
int store_load(uint32_t id, acceptor_state &state);

/// Returns 0 once the state is durable; -1 if not (the file is as it was). Any thread.
int store_save(uint32_t id, const acceptor_state &state);

/// Always 0.
int store_delete(uint32_t id);

/// Deletes the file if there is one. False if it stays.
bool store_delete_if_there(uint32_t id);

inline constexpr uint32_t STORE_ALL = 0xffffffff;

/// Deletes every register file with an id up to the bound, but for the ids in `kept`. Returns 0 if no other file is
/// left but those for which `is_known`, if given, answers true; else 1: there is something to delete later. Reads the
/// directory.
int store_delete_up_to(uint32_t bound, std::span<const uint32_t> kept, bool (*is_known)(uint32_t id) = nullptr);
