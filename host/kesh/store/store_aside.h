/// The files around a store: is it ours, which are its parts, and how all of them are put aside at once.
///
///   PATH                   the database
///   PATH-wal, PATH-shm     SQLite's: part of the database while it is in use, and after a crash
///   PATH.lock              locked by the daemon, or the command, that has the store open
///   PATH.configuring       while the cluster is configured (admin/configure_steps.h): the store is not opened
///   PATH.creating          a store that is being made; removed at the next open
///   PATH.putting-aside     while the parts are renamed: the name, without directory, that the database gets
///   PATH.aside-TIME[.k]    a store that was put aside, with its -wal if it had one
#pragma once

#include <cstdint>
#include <string>

#include "store/database.h"
#include "unique_fd.h"

namespace kesh
{

/// Another process has the store open.
class store_in_use : public store_unsuited
{
public:
  using store_unsuited::store_unsuited;
};

/// Locks PATH.lock until the result is closed. Throws store_in_use, or a store_failure.
platform::unique_fd store_lock(const std::string &path);
/// The file that tells of a configuration that goes on, or was interrupted.
std::string configuring_path(const std::string &store_path);
/// The command that it names; empty if there is none. Throws a store_failure if it cannot be read.
std::string interrupted_configuration(const std::string &store_path);

enum class store_file {
  absent,
  empty,    ///< no bytes: what a power cut may leave
  ours,     ///< begins as a store does
  foreign,  ///< anything else; not to be touched
};

/// Looks at the file without SQLite. To be called only while this process has no connection to it: closing a descriptor
/// of it would drop SQLite's locks. `why` says what a foreign file is. Throws a store_failure if it cannot be read.
store_file store_file_look(const std::string &path, std::string &why);

/// Called after each step that changed the disk. For tests, which end the process there.
using aside_step = void (*)();

/// Renames the database and what belongs to it to PATH.aside-TIME, UTC, with .1, .2 behind it where that is taken.
/// Deletes and overwrites nothing. After a crash at any step finish_putting_aside() does the rest, so the parts stay
/// together. This process may have no connection open. Returns the new path. Throws a store_failure.
std::string put_aside(const std::string &path, aside_step after_step = nullptr);

/// Does the rest of what a crash interrupted; nothing if there was none.
void finish_putting_aside(const std::string &path, aside_step after_step = nullptr);

/// The same for a file that stands alone and is no store; another, named `path` and `part`, goes with it.
std::string put_file_aside(const std::string &path, const std::string &part);

/// Tells a store from those that had its place before, which are made while the other one is there: the number of the
/// inode; 0: there is no file.
uint64_t file_number(const std::string &path);

/// Whether parts of a database lie at `path`.
bool has_parts(const std::string &path);

/// Removes a store that was never complete: `path` and SQLite's files beside it.
void remove_leftover(const std::string &path);

/// Removes one file, if it is there, and makes that durable.
void remove_durably(const std::string &path);

/// Gives a closed file its name and makes both durable. Never overwrites. Throws a store_failure.
void name_durably(const std::string &from, const std::string &to);

}  // namespace kesh
