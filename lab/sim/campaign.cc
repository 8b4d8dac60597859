#include "campaign.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "faults.h"

namespace sim
{

namespace
{

struct slot {
  run_result result;
  bool is_there = false;
};

// A hand-over between threads of one core costs half of one between two cores.
void pin_to(unsigned worker)
{
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
    return;
  }
  unsigned left = worker % static_cast<unsigned>(CPU_COUNT(&allowed));
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &allowed) && left-- == 0) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(core, &one);
      sched_setaffinity(0, sizeof one, &one);
      return;
    }
  }
}

[[noreturn]] void run_here(const run_options &options, const library_image &image, slot &to, unsigned worker,
                           bool is_quiet)
{
  pin_to(worker);
  if (is_quiet) {
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDERR_FILENO);
  }
  world one(options, image);
  one.ended = [&to](const run_result &result) {
    to.result = result;
    to.is_there = true;
    _exit(1);
  };
  to.result = one.run();
  to.is_there = true;
  if (options.trace != nullptr) {
    std::fflush(options.trace);
  }
  _exit(0);  // threads of ended processes stand where they stood
}

}  // namespace

void run_all(const std::vector<run_options> &all, const library_image &image, unsigned jobs, bool is_quiet,
             const std::function<bool(const seed_result &)> &done)
{
  const size_t bytes = std::max<size_t>(all.size(), 1) * sizeof(slot);
  auto *const slots =
      static_cast<slot *>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (slots == MAP_FAILED) {
    std::perror("vx-sim: mmap");
    return;
  }
  struct running {
    size_t index;
    unsigned worker;
  };
  std::map<pid_t, running> children;
  std::vector<bool> is_over(all.size());
  std::vector<unsigned> free_workers;
  for (unsigned worker = jobs; worker > 0; --worker) {
    free_workers.push_back(worker - 1);
  }
  size_t next = 0;
  size_t told = 0;
  bool goes_on = true;
  while (!children.empty() || (goes_on && next < all.size())) {
    while (goes_on && next < all.size() && !free_workers.empty()) {
      const unsigned worker = free_workers.back();
      free_workers.pop_back();
      std::fflush(nullptr);
      const pid_t pid = fork();
      if (pid == 0) {
        run_here(all[next], image, slots[next], worker, is_quiet);
      }
      children[pid] = {.index = next++, .worker = worker};
    }
    const pid_t ended = waitpid(-1, nullptr, 0);
    if (ended < 0) {
      std::perror("vx-sim: waitpid");
      break;
    }
    if (const auto at = children.find(ended); at != children.end()) {
      is_over[at->second.index] = true;
      free_workers.push_back(at->second.worker);
      children.erase(at);
    }
    while (goes_on && told < all.size() && is_over[told]) {
      goes_on = done({.options = all[told], .result = slots[told].result, .has_crashed = !slots[told].is_there});
      ++told;
    }
  }
  munmap(slots, bytes);
}

run_options shrink(const run_options &failing, const library_image &image, unsigned jobs)
{
  run_options best = failing;
  const auto fails = [&](const std::vector<run_options> &tries) {
    size_t first = tries.size();
    size_t index = 0;
    run_all(tries, image, jobs, true, [&](const seed_result &one) {
      if (one.has_crashed || one.result.is_violated) {
        first = index;
      }
      ++index;
      return first == tries.size();
    });
    return first;
  };
  const size_t faults = plan_of(best.seed, best.decisions, best.faults).size();
  for (bool is_smaller = true; is_smaller;) {
    is_smaller = false;
    std::vector<run_options> tries;
    for (uint32_t index = 0; index < faults; ++index) {
      if (std::find(best.left_out.begin(), best.left_out.end(), index) == best.left_out.end()) {
        tries.push_back(best);
        tries.back().left_out.push_back(index);
      }
    }
    for (uint32_t nodes = 2; nodes < best.nodes; ++nodes) {
      tries.push_back(best);
      tries.back().nodes = nodes;
    }
    if (best.submitters != 1) {
      tries.push_back(best);
      tries.back().submitters = 1;
    }
    if (const size_t first = fails(tries); first < tries.size()) {
      best = tries[first];
      is_smaller = true;
    }
  }
  return best;
}

}  // namespace sim
