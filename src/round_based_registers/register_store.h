/// Files of the registers: the state that an acceptor must never forget. One per register, /flashdisk/cons/rb_reg.<id>:
///
///   offset  width  field (little-endian)
///   0       4      read_round
///   4       4      write_round
///   8       4      L, length of the value
///   12      L      value; bytes after it are ignored
///
/// A file is replaced whole: written to rb_reg.<id>.tmp, renamed, sync(). The directory must exist. Failures of file
/// operations are logged here.
#pragma once

#include <cstdint>
#include <span>

#include "common/cons_value.h"

/// The durable part of a register.
struct acceptor_state {
  uint32_t read_round = 0;   ///< highest round promised to a READ; 0 = none
  uint32_t write_round = 0;  ///< round of the accepted value; 0 = none
  cons_value value;          ///< the accepted value
};

/// Returns 0 with the file's state, or with `state` unchanged if there is no file. Returns -1, with `state` unchanged,
/// if the file cannot be read or is malformed, or if memory runs out: the promises of this node are then unknown.
int store_load(uint32_t id, acceptor_state &state);

/// Returns 0 once the state is durable; -1 if it could not be saved (the file is unchanged). Any thread.
int store_save(uint32_t id, const acceptor_state &state);

/// Deletes the file. Always returns 0.
int store_delete(uint32_t id);

/// Deletes the file if it exists. Returns false if it could not be deleted.
bool store_delete_if_there(uint32_t id);

/// Takes over what the last process of this node left: makes durable what it wrote and was killed before it could sync,
/// records and payloads too, and deletes the temporary files of registers. Before anything is read or answered.
void store_take_over();

inline constexpr uint32_t STORE_ALL = 0xffffffff;

/// Deletes every register file with an id up to the bound, except the ids in `kept`. Reads the directory. Returns 0 if
/// all other files that remain have an id for which `is_known` (may be null) returns true; else 1: there is something
/// to delete later.
int store_delete_up_to(uint32_t bound, std::span<const uint32_t> kept, bool (*is_known)(uint32_t id) = nullptr);
