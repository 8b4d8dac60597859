#include "daemon/service_manager.h"

#include <systemd/sd-daemon.h>

namespace kesh::service_manager
{

void takes_up_to(std::chrono::seconds time)
{
  sd_notifyf(0, "EXTEND_TIMEOUT_USEC=%lld", static_cast<long long>(std::chrono::microseconds(time).count()));
}

void is_ready()
{
  sd_notify(0, "READY=1");
}

void is_alive()
{
  sd_notify(0, "WATCHDOG=1");
}

void is_stopping()
{
  sd_notify(0, "STOPPING=1");
}

}  // namespace kesh::service_manager
