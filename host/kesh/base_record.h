/// The first record of a journal file that came from the cluster as a state. It describes what was before its lines.
#pragma once

#include <string>

#include "file_record.h"
#include "tag_index.h"

namespace kesh
{

struct journal_status;

/// Appends the record: `lines` and `hash` before the first line of the file, the counters of `status`, the tags.
void base_record_append(std::string &to, uint64_t lines, uint64_t hash, const journal_status &status,
                        const tag_index &tags);

/// Sets lines, hash, first_line and counters of `status`, and the tags. False if it is not such a record.
bool base_record_apply(const file_record &record, journal_status &status, tag_index &tags);

}  // namespace kesh
