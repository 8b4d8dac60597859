/// One node's files, in memory, as a disk with a cache behaves.
///
/// A write, a new name, a rename, a removal are in the cache at once: the process sees them, and so does one that
/// starts after a kill. They reach the disk with fdatasync (the bytes of one file) or sync (all). A power cut keeps
/// what reached it; of the rest it keeps the first few changes of names, in their order, and of each file's bytes all,
/// none or a part. So a rename may be kept without the bytes of the file that it names.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "draw.h"

namespace sim
{

enum class disk_op {
  open_read,
  open_write,
  read,
  write,
  datasync,
  rename,
  unlink,
  allocate,
  list,
  sync,
  make_directory
};
inline constexpr int DISK_OPS = 11;

using file_bytes = std::vector<uint8_t>;

class sim_disk
{
public:
  struct file {
    file_bytes bytes;      ///< as the process sees them
    file_bytes on_disk;    ///< as a power cut leaves them, at least
    bool is_clean = true;  ///< both are equal
  };
  using file_ptr = std::shared_ptr<file>;

  /// All return null, or false, if there is no such file; the caller sets errno.
  file_ptr find(const std::string &path) const;
  file_ptr create(const std::string &path);
  bool rename(const std::string &from, const std::string &to);
  bool unlink(const std::string &path);
  void truncate(const std::string &path);
  static void write(file &one, size_t at, const uint8_t *bytes, size_t size);
  static void datasync(file &one);
  void sync();
  bool has_directory(const std::string &path) const { return directories_.count(path) != 0; }
  void make_directory(const std::string &path);
  void remove_directory(const std::string &path);
  /// Whether a power cut would leave the file as it is.
  bool is_durable(const std::string &path) const;
  /// Names directly in the directory.
  std::vector<std::string> list(const std::string &directory) const;

  void cut_power(draw &from);
  /// A disk that is new: nothing is on it.
  void empty();

  /// Writes a whole file durably, as an administrator would.
  void put(const std::string &path, const std::string &bytes);
  std::optional<std::string> get(const std::string &path) const;

  /// The next operations of this kind fail with `error`, on files whose path has `name` in it.
  struct failure {
    int error = 0;
    uint64_t left = 0;  ///< operations
    std::string name;
  };
  failure failures[DISK_OPS];
  /// The bytes of files whose path has this in it do not reach the disk with sync(), which cannot say so.
  std::optional<std::string> sync_fails_for;
  int64_t stall_us = 0;  ///< added to each operation

private:
  using name_map = std::map<std::string, file_ptr>;
  struct change {
    std::string name;
    file_ptr to;  // null: removed
  };

  name_map names_;
  name_map names_on_disk_;
  // One step of the journal: a rename changes two names at once.
  std::vector<std::vector<change>> changes_;
  std::set<std::string> directories_{"/flashdisk/cons", "/var/run"};
};

}  // namespace sim
