#include "journal_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kesh
{

namespace
{

constexpr int FILE_FLAGS = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC;
constexpr mode_t FILE_MODE = 0644;

std::string failure(const char *what, const std::string &path)
{
  return std::string(what) + " " + path + ": " + strerror(errno);
}

bool write_all(int fd, std::string_view bytes)
{
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

/// True if a whole record follows the first newline of `bytes`. Then this is not a torn end.
bool record_follows(std::string_view bytes)
{
  file_record record;
  for (size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
    bytes.remove_prefix(end + 1);
    if (file_record_parse(bytes.substr(0, bytes.find('\n')), record)) {
      return true;
    }
  }
  return false;
}

/// Reads records up to the first one that is not whole. Returns the number of bytes read.
size_t visit_records(std::string_view bytes, const std::function<bool(const file_record &)> &visit, bool &fits)
{
  file_record record;
  size_t done = 0;
  fits = true;
  while (done < bytes.size()) {
    const size_t end = bytes.find('\n', done);
    if (end == std::string_view::npos || !file_record_parse(bytes.substr(done, end - done), record)) {
      break;
    }
    fits = visit(record);
    if (!fits) {
      break;
    }
    done = end + 1;
  }
  return done;
}

}  // namespace

bool journal_file::open(const std::string &path, bool is_durable, const std::function<bool(const file_record &)> &visit,
                        uint64_t &cut_bytes, std::string &error)
{
  path_ = path;
  is_durable_ = is_durable;
  fd_ = platform::unique_fd(::open(path.c_str(), FILE_FLAGS, FILE_MODE));
  if (!fd_) {
    error = failure("cannot open", path);
    return false;
  }
  if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
    error = path + " is in use by another daemon";
    return false;
  }
  if (is_durable_ && !flush_name()) {
    error = failure("cannot flush the directory of", path);
    return false;
  }
  return read_records(visit, cut_bytes, error);
}

bool journal_file::read_records(const std::function<bool(const file_record &)> &visit, uint64_t &cut_bytes,
                                std::string &error)
{
  struct stat status;
  if (fstat(fd_.get(), &status) != 0) {
    error = failure("cannot read", path_);
    return false;
  }
  const auto file_size = static_cast<size_t>(status.st_size);
  cut_bytes = 0;
  size_ = 0;
  if (file_size == 0) {
    return true;
  }
  void *map = mmap(nullptr, file_size, PROT_READ, MAP_PRIVATE, fd_.get(), 0);
  if (map == MAP_FAILED) {
    error = failure("cannot read", path_);
    return false;
  }
  const std::string_view bytes(static_cast<const char *>(map), file_size);
  bool fits = true;
  size_ = visit_records(bytes, visit, fits);
  const bool damaged = !fits || record_follows(bytes.substr(size_));
  munmap(map, file_size);
  if (damaged) {
    error = path_ + " is damaged at byte " + std::to_string(size_) +
            ": move it away and start again; the node gets the journal back from the cluster with the next full state";
    return false;
  }
  cut_bytes = file_size - size_;
  if (cut_bytes != 0 && ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) {
    error = failure("cannot cut", path_);
    return false;
  }
  return true;
}

bool journal_file::append(std::string_view records)
{
  const ssize_t written = write(fd_.get(), records.data(), records.size());
  const bool is_whole = written == static_cast<ssize_t>(records.size());
  if (is_whole && (!is_durable_ || fdatasync(fd_.get()) == 0)) {
    size_ += records.size();
    return true;
  }
  const int error = written < 0 || is_whole ? errno : ENOSPC;
  if (written > 0 && ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) {
    // A torn record stays, and the next start cuts it.
  }
  errno = error;
  return false;
}

bool journal_file::replace(std::string_view records)
{
  const std::string temporary = path_ + ".tmp";
  platform::unique_fd fd(::open(temporary.c_str(), FILE_FLAGS | O_TRUNC, FILE_MODE));
  if (!fd || flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || !write_all(fd.get(), records) || fsync(fd.get()) != 0 ||
      rename(temporary.c_str(), path_.c_str()) != 0) {
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    return false;
  }
  fd_ = std::move(fd);
  size_ = records.size();
  return !is_durable_ || flush_name();
}

/// Flushes the directory that names the file.
bool journal_file::flush_name() const
{
  const std::string directory = path_.substr(0, path_.rfind('/') + 1);
  const platform::unique_fd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

bool journal_file::flush()
{
  return fsync(fd_.get()) == 0;
}

platform::unique_fd journal_file::duplicate() const
{
  return platform::unique_fd(fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
}

}  // namespace kesh
