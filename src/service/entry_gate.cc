#include "service/entry_gate.h"

namespace
{

thread_local bool inside_hook;

}  // namespace

bool entry_gate::enter()
{
  cons_lock lock(lock_);
  if (!is_open_) {
    return false;
  }
  ++inside_;
  return true;
}

void entry_gate::leave()
{
  cons_lock lock(lock_);
  if (--inside_ == 0) {
    empty_cond_.broadcast();
  }
}

void entry_gate::open()
{
  cons_lock lock(lock_);
  is_open_ = true;
}

void entry_gate::close()
{
  cons_lock lock(lock_);
  is_open_ = false;
}

void entry_gate::wait_empty()
{
  if (inside_hook) {
    return;
  }
  cons_lock lock(lock_);
  while (inside_ != 0) {
    empty_cond_.wait(lock_);
  }
}

hook_call::hook_call(entry_gate &gate) : gate_(gate), entered_(gate.enter())
{
  inside_hook = entered_;
}

hook_call::~hook_call()
{
  if (entered_) {
    inside_hook = false;
    gate_.leave();
  }
}
