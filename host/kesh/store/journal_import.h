/// The journal of earlier builds, a text file, which a new store is built upon once. The file stays where it is: its
/// lines are not copied.
///
/// A record is a line:  CRC KIND NUMBER HASH TAG ATTEMPT TEXT
///
///   CRC      CRC-32 of the rest of the line, 8 hexadecimal digits
///   KIND     L: a line; S: the first record, what was before the lines of this file; R, D, A: no line
///   NUMBER   lines so far, this one included
///   HASH     running hash over them, 16 hexadecimal digits
///
///   PATH.incomplete    lines are missing in the file
///   PATH.taken-over    a store was built upon it: it is of no use any more
#pragma once

#include <optional>
#include <string>

#include "store/store.h"

namespace kesh
{

/// Whether there is a journal that was not taken over. False, with `why` not empty, if the file is none of ours or
/// cannot be looked at: then it is not to be touched.
bool old_journal_waits(const std::string &path, std::string &why);

/// What a store begins with behind this journal; nodes with equal journals get the same. `delivered`: paxos_deliver.
/// Nothing, and `error` says what is wrong and where, if it is damaged or incomplete. A last record that a crash cut
/// short does not count.
std::optional<store_start> journal_import(const std::string &path, const library_entry &delivered, std::string &error);

/// Notes, durably, that it was taken over. To be called whenever a store is there, since a crash may have come between:
/// should the store be lost later, the old journal must not come back. Does nothing if no journal waits.
bool note_taken_over(const std::string &path, std::string &error);

}  // namespace kesh
