#include "daemon/disk_room.h"

#include <sys/statvfs.h>

namespace kesh
{

std::string no_room_in(const std::string &directory, uint64_t reserve)
{
  struct statvfs space;
  if (statvfs(directory.c_str(), &space) != 0) {
    return {};
  }
  const uint64_t available = uint64_t{space.f_bavail} * space.f_frsize;
  return available >= reserve ? ""
                              : std::to_string(available) + " bytes are free in " + directory + ", and the last " +
                                    std::to_string(reserve) + " are for records and states";
}

}  // namespace kesh
