/// Many runs, each in a process of its own, on as many cores as there are.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "library_copy.h"
#include "world.h"

namespace sim
{

struct seed_result {
  run_options options;
  run_result result;
  bool has_crashed = false;  ///< the process ended without a verdict
};

/// Runs all. `done` is called for each, in the order of `all`. `is_quiet`: what the runs print is dropped.
/// Returns early, with what is known, once `done` returns false.
void run_all(const std::vector<run_options> &all, const library_image &image, unsigned jobs, bool is_quiet,
             const std::function<bool(const seed_result &)> &done);

/// A smaller run that is violated too: fewer faults, nodes, submitters, decisions.
run_options shrink(const run_options &failing, const library_image &image, unsigned jobs);

}  // namespace sim
