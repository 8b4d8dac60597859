#include "store/library_records.h"

#include "atomic_file.h"
#include "bytes.h"

namespace kesh
{

namespace
{

constexpr uint32_t LOG_MAX = 250;
constexpr size_t DECIDE_SIZE = 4 + 4 + LOG_MAX * LIBRARY_ENTRY_SIZE;
constexpr uint8_t NODE_MAX = 16;

bool read_record(const std::string &path, size_t size, std::string &bytes, std::string &error)
{
  if (!platform::file_read(path, bytes, error)) {
    error = path + ": " + error;
    return false;
  }
  if (bytes.size() != size) {
    error = path + " has " + std::to_string(bytes.size()) + " bytes, not " + std::to_string(size);
    return false;
  }
  return true;
}

bool read_decide(const std::string &directory, library_records &to, std::string &error)
{
  const std::string path = directory + "/paxos_decide";
  std::string bytes;
  if (!read_record(path, DECIDE_SIZE, bytes, error)) {
    return false;
  }
  byte_reader reader(bytes);
  to.decision = reader.le<uint32_t>();
  const uint32_t count = reader.le<uint32_t>();
  if (count > LOG_MAX) {
    error = path + " names " + std::to_string(count) + " entries, more than " + std::to_string(LOG_MAX);
    return false;
  }
  for (uint32_t i = 0; i < count; ++i) {
    to.log.push_back(library_entry_get(reader));
    if (to.log.back().is_none() || to.log.back().sender > NODE_MAX) {
      error = path + ": entry " + std::to_string(i) + " names no payload";
      return false;
    }
  }
  return true;
}

}  // namespace

std::optional<library_records> library_records_read(const std::string &directory, std::string &error)
{
  library_records result;
  std::string bytes;
  if (!read_decide(directory, result, error)) {
    return std::nullopt;
  }
  if (read_record(directory + "/paxos_deliver", LIBRARY_ENTRY_SIZE, bytes, error)) {
    result.delivered = library_entry_get(bytes);
  }
  return result;
}

library_entry library_log_start(const std::string &directory)
{
  library_records records;
  std::string error;
  const bool is_read = read_decide(directory, records, error) && !records.log.empty();
  return is_read ? records.log[0] : library_entry{};
}

bool forget_delivered(const std::string &directory, std::string &error)
{
  const std::string zero(LIBRARY_ENTRY_SIZE, '\0');
  const bool done = platform::file_replace(directory + "/paxos_deliver", zero, error);
  if (!done) {
    error = "cannot forget what was delivered: " + error;
  }
  return done;
}

}  // namespace kesh
