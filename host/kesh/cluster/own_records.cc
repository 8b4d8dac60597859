#include "cluster/own_records.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "atomic_file.h"
#include "bytes.h"
#include "store/library_records.h"
#include "unique_fd.h"

namespace kesh
{

namespace
{

/// rb_reg.NUMBER and nothing behind it; 0: another file.
uint32_t register_of(const std::string &name)
{
  constexpr std::string_view PREFIX = "rb_reg.";
  uint32_t number = 0;
  if (!name.starts_with(PREFIX)) {
    return 0;
  }
  const char *const end = name.data() + name.size();
  const auto read = std::from_chars(name.data() + PREFIX.size(), end, number);
  return read.ec == std::errc() && read.ptr == end ? number : 0;
}

uint32_t greatest_register(const std::string &directory, std::string &fault)
{
  uint32_t greatest = 0;
  std::error_code failure;
  for (std::filesystem::directory_iterator at(directory, failure), end; !failure && at != end; at.increment(failure)) {
    greatest = std::max(greatest, register_of(at->path().filename().string()));
  }
  if (failure) {
    fault = directory + ": " + failure.message();
  }
  return greatest;
}

bool sync_path(const std::string &path, int flags)
{
  const platform::unique_fd fd(open(path.c_str(), flags | O_RDONLY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

uint32_t read_msg_id(const std::string &path)
{
  std::string bytes, error;
  if (!platform::file_read(path, bytes, error)) {
    return 0;
  }
  byte_reader reader(bytes);
  return reader.le<uint32_t>();
}

void raise(message_ids &ids, const library_entry &by)
{
  if (by.sender >= 1 && by.sender <= HELLO_NODES_MAX) {
    ids[by.sender - 1u] = std::max(ids[by.sender - 1u], by.msg_id);
  }
}

}  // namespace

/// The library renames first and flushes afterwards. A node that tells a decision and then loses it in a power cut
/// would be taken for one whose disk went back.
bool records_reader::flush(std::string &error) const
{
  const bool done = sync_path(directory_ + "/paxos_decide", 0) && sync_path(directory_, O_DIRECTORY);
  if (!done) {
    error = directory_ + "/paxos_decide: " + std::generic_category().message(errno);
  }
  return done;
}

void records_reader::read_log(own_records &to)
{
  const auto records = library_records_read(directory_, to.fault);
  if (!records || (records->decision != flushed_ && !flush(to.fault))) {
    return;
  }
  flushed_ = to.decision = records->decision;
  to.knows_decision = true;
  to.handled = to.fault.empty() && (records->log.empty() || records->log.back() == records->delivered);
  raise(to.ids, records->delivered);
  for (const library_entry &one : records->log) {
    raise(to.ids, one);
  }
}

own_records records_reader::read()
{
  own_records result;
  read_log(result);
  std::string fault;
  result.register_max = greatest_register(directory_, fault);
  result.knows_top = result.knows_decision && fault.empty();
  result.fault = result.fault.empty() ? fault : result.fault;
  result.has_past = result.decision != 0 || result.register_max != 0;
  result.msg_id = read_msg_id(directory_ + "/msg_id");
  return result;
}

bool records_reader::write_msg_id(uint32_t msg_id, std::string &error) const
{
  std::string bytes;
  put_le(bytes, msg_id);
  return platform::file_replace(directory_ + "/msg_id", bytes, error);
}

}  // namespace kesh
