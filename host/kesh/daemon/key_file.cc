#include "daemon/key_file.h"

#include <unistd.h>

#include "config/keys.h"
#include "platform.h"
#include "vx_host.h"

namespace kesh
{

void name_default_keys()
{
  constexpr const char *KEY = "messaging.keys";
  if (platform::config_text(KEY, "").empty() && access(KEYS_PATH_DEFAULT, F_OK) == 0) {
    vx_cfg_set(KEYS_PATH_DEFAULT, KEY);
  }
}

bool reload_keys(std::string &error)
{
  name_default_keys();
  if (!platform::messaging_reload_keys(error)) {
    return false;
  }
  const auto sealed = platform::messaging_read_statistics();
  platform::log_line(platform::log_level::info, sealed.seals_with ? "messaging: sends with key " +
                                                                        std::to_string(*sealed.seals_with) +
                                                                        (sealed.accepts_plain ? ", accepts plain" : "")
                                                                  : "messaging: sends plain");
  return true;
}

}  // namespace kesh
