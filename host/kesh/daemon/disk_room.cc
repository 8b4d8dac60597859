#include "daemon/disk_room.h"

#include <sys/statvfs.h>

namespace kesh
{

namespace
{

// What the library keeps free when it saves a payload.
constexpr uint64_t KEPT_FOR_RECORDS = 1000000;
constexpr uint64_t STATES = 2;

}  // namespace

std::string no_room_in(const std::string &directory, uint64_t state_bytes)
{
  struct statvfs space;
  if (statvfs(directory.c_str(), &space) != 0) {
    return {};
  }
  const uint64_t available = uint64_t{space.f_bavail} * space.f_frsize;
  const uint64_t kept = KEPT_FOR_RECORDS + STATES * state_bytes;
  return available >= kept ? ""
                           : std::to_string(available) + " bytes are free in " + directory + ", and the last " +
                                 std::to_string(kept) + " are for records and states";
}

}  // namespace kesh
