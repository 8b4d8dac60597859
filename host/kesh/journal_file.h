/// The journal file on disk. Records are appended with one write each; a file may be replaced as a whole.
/// Not synchronised: the journal locks around it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "file_record.h"
#include "unique_fd.h"

namespace kesh
{

class journal_file
{
public:
  /// Opens or creates the file, locks it against a second daemon and gives every record to `visit`, which returns
  /// false for one that does not fit. A last record that a crash cut short is removed, `cut_bytes` tells its size.
  /// `is_durable`: what append() and replace() have written is on disk when they return.
  /// Returns false, with what and where in `error`, if the file cannot be used.
  bool open(const std::string &path, bool is_durable, const std::function<bool(const file_record &)> &visit,
            uint64_t &cut_bytes, std::string &error);

  /// Appends with one write. On failure returns false, errno set, and the file is as long as before.
  bool append(std::string_view records);

  /// Puts a new file in place of the old one, flushed before it takes the name. On failure returns false, errno
  /// set, and the old one stays; the new one does if only its name could not be flushed.
  bool replace(std::string_view records);

  bool flush();
  void close() { fd_.reset(); }

  /// A descriptor of its own for reading; bytes up to size() are whole records. Not open on failure.
  platform::unique_fd duplicate() const;
  uint64_t size() const { return size_; }

private:
  bool read_records(const std::function<bool(const file_record &)> &visit, uint64_t &cut_bytes, std::string &error);

  bool flush_name() const;

  std::string path_;
  bool is_durable_ = false;
  platform::unique_fd fd_;
  uint64_t size_ = 0;
};

}  // namespace kesh
