#include "network_attachment.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform.h"

namespace platform
{

bool network_attachment::open(const messaging_settings &settings, transport &to, std::string &error)
{
  settings_ = settings;
  transport_ = &to;
  joined_ = 0;
  was_joined_ = false;
  if (!watch_.open(error)) {
    return false;
  }
  attach();
  return true;
}

void network_attachment::close()
{
  watch_.close();
  transport_ = nullptr;
  has_fault_ = false;
  const lock_scope lock(lock_);
  fault_.clear();
}

void network_attachment::take_news()
{
  const network_news told = watch_.take();
  // The new interface may have the index of the old one, but the membership went with that.
  if (told.has_lost || std::find(told.gone.begin(), told.gone.end(), joined_) != told.gone.end()) {
    joined_ = 0;
  }
  if (told.is_any || told.has_lost) {
    attach();
  }
}

void network_attachment::look_again()
{
  if (has_fault()) {
    attach();
  }
}

void network_attachment::attach()
{
  own_network now = find_own_network(settings_);
  const bool is_other = now.fault.empty() && now.interface != joined_;
  if (is_other && settings_.is_multicast) {
    if (const int error = transport_->join(now.interface); error != 0) {
      now.fault = "it cannot join the group on " + now.name + ": " + std::generic_category().message(error);
    }
  }
  joined_ = is_other ? (now.fault.empty() ? now.interface : 0) : joined_;
  note(now, is_other);
  was_joined_ |= joined_ != 0;
}

void network_attachment::note(const own_network &now, bool has_joined)
{
  const bool had_fault = has_fault_.exchange(!now.fault.empty());
  {
    const lock_scope lock(lock_);
    fault_ = now.fault;
  }
  if (!now.fault.empty() && !had_fault) {
    log_line(log_level::warning, "messaging: this node has no network: " + now.fault + "; it waits for that");
  } else if (now.fault.empty() && (had_fault || (has_joined && was_joined_))) {
    log_line(log_level::info, "messaging: this node is on the network, by interface " + now.name +
                                  (has_joined && settings_.is_multicast ? "; it has joined the group there" : ""));
  }
}

std::string network_attachment::fault()
{
  const lock_scope lock(lock_);
  return fault_;
}

}  // namespace platform
