/// Files of the payloads, with durable payloads. One per payload, /flashdisk/cons/payloads/<sender>.<id>:
///
///   offset  width   field (little-endian)
///   0       8       "VXPAYLD1"
///   8       8       cluster id
///   16      4       id
///   20      1       sender
///   21      1       1 = snapshot, 0 = ordinary payload
///   22      2       0
///   24      4       length of the payload
///   28      4       of a snapshot with marks: number of the decision that begins its log; else 0
///   32      32      SHA-256 over bytes 0 to 31 and the payload
///   64      length  the payload, as the nodes transfer it
///
/// A file is written whole: to <sender>.<id>.tmp with its space reserved first, flushed, renamed, sync(). Failures are
/// logged here, but for a directory that cannot be listed for its removal. No lock: the caller makes sure that no two
/// threads save or remove the same payload at once.
#pragma once

#include <cstdint>
#include <functional>

#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

inline constexpr uint32_t PAYLOAD_FILE_HEADER_SIZE = 64;

/// Creates the directory if it does not exist. Returns 0 or -1.
int payload_store_open();

/// Writes the temporary file. Fails if less than `reserve` bytes would stay free on the file system, so that payloads
/// never take the room of the records. `state_number` is that of a snapshot with marks, else 0. Returns 0; on failure
/// -1, with no temporary file left, unless the disk lets none be removed.
int payload_store_write(id_entry entry, const payload_buf *payload, uint32_t state_number, uint64_t reserve);

/// Removes the temporary file, which is not needed any more.
void payload_store_discard(id_entry entry);

/// Renames the temporary file to the payload's name and makes that durable. Returns 0 or -1.
int payload_store_commit(id_entry entry);

enum class payload_load { loaded, absent, damaged, failed };

/// Reads and checks a payload. On `loaded` the caller owns `payload`. `failed` means that a later try may succeed, as
/// when memory runs out.
payload_load payload_store_load(id_entry entry, payload_buf *&payload);

struct payload_file {
  id_entry entry;
  bool is_state = false;  // as the header says
  uint32_t state_number = 0;
  uint32_t length = 0;      // of the payload
  bool is_sound = false;    // the header matches name, cluster and file size; the payload is unchecked
  bool is_foreign = false;  // of another cluster
  bool is_temporary = false;
};

/// Calls back for each file that is named like a payload, or like a temporary file of one. With `is_start`, also reads
/// its header, and removes temporary and other files itself, with a line in the log each. Returns 0; -1 if the
/// directory cannot be read or a callback returned false.
using payload_file_cb = std::function<bool(const payload_file &file)>;
int payload_store_walk(bool is_start, const payload_file_cb &callback);

void payload_store_remove(const payload_file &file);

/// Removes the directory and every file in it. Returns 0, also if it does not exist; -1 if something remains.
int payload_store_remove_all();
