/// How many files the library saved, and how long that took: for vx_cons_get_saves().
#pragma once

#include <cstdint>

#include "vx_cons.h"

/// Counts one save of a kind VX_CONS_SAVES_.. from its construction to its end, whether it succeeds or not. Any thread.
class save_timer
{
public:
  explicit save_timer(uint32_t kind);
  ~save_timer();
  save_timer(const save_timer &) = delete;
  save_timer &operator=(const save_timer &) = delete;

private:
  const uint32_t kind_;
  const int64_t begun_us_;
};

/// What ended of this kind since the library was loaded; zeros for an unknown kind.
vx_cons_saves save_times_of(uint32_t kind);
