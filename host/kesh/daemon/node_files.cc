#include "daemon/node_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "bytes.h"
#include "unique_fd.h"

namespace kesh
{

namespace
{

/// The first bytes of a file, at most `size`.
std::string read_start(const std::string &path, size_t size)
{
  const platform::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string bytes(size, '\0');
  const ssize_t got = fd ? read(fd.get(), bytes.data(), size) : 0;
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

}  // namespace

std::optional<last_decision> last_decision_read()
{
  const std::string bytes = read_start(std::string(CONS_DIRECTORY) + "/paxos_decide", 8);
  byte_reader reader(bytes);
  last_decision result;
  result.number = reader.le<uint32_t>();
  result.entries = reader.le<uint32_t>();
  return reader.ok() ? std::optional(result) : std::nullopt;
}

std::optional<last_delivery> last_delivery_read()
{
  const std::string bytes = read_start(std::string(CONS_DIRECTORY) + "/paxos_deliver", 5);
  byte_reader reader(bytes);
  last_delivery result;
  result.sender = reader.le<uint8_t>();
  result.msg_id = reader.le<uint32_t>();
  return reader.ok() ? std::optional(result) : std::nullopt;
}

std::optional<uint32_t> last_identifier_read()
{
  const std::string bytes = read_start(std::string(CONS_DIRECTORY) + "/msg_id", 4);
  byte_reader reader(bytes);
  const auto result = reader.le<uint32_t>();
  return reader.ok() ? std::optional(result) : std::nullopt;
}

std::string node_state_read()
{
  return read_start("/var/run/node_state", 6);
}

bool cons_directory_usable(std::string &error)
{
  const std::string name = CONS_DIRECTORY;
  struct stat status;
  if (stat(CONS_DIRECTORY, &status) != 0) {
    error = name + ": " + strerror(errno) + "; the node's durable files live there: mkdir -p " + name;
  } else if (!S_ISDIR(status.st_mode)) {
    error = name + " is no directory";
  } else if (access(CONS_DIRECTORY, R_OK | W_OK | X_OK) != 0) {
    error = name + " cannot be written: " + strerror(errno);
  } else {
    return true;
  }
  return false;
}

}  // namespace kesh
