// vx-sim: clusters of libvx_cons in one process, every interleaving from a seed.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <thread>

#include "campaign.h"
#include "faults.h"
#include "turn.h"

namespace
{

using sim::run_options;
using sim::seed_result;

struct command_line {
  std::string library;
  uint64_t seed = 1;
  uint64_t seeds = 1;
  uint32_t nodes = 3;
  uint32_t decisions = 300;
  std::string faults = "all";
  std::string payloads = "durable";
  std::string policy = "both";
  std::string trace;
  std::string copies;
  std::vector<uint32_t> left_out;
  uint32_t submitters = 0;
  unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
  bool is_verbose = false;
  bool is_first = false;
  bool does_shrink = false;
  bool does_list = false;
};

// Of the build tree, or of the installation, that this program is in.
std::string own_library()
{
  std::error_code error;
  const auto root = std::filesystem::read_symlink("/proc/self/exe", error).parent_path().parent_path();
  const auto built = root / "lib/libvx_cons.so.1";
  return exists(built, error) ? built.string() : (root / VX_LIBDIR / "libvx_cons.so.1").string();
}

// Names, or "all". False: one is unknown.
bool names_of(const std::string &text, bool is_durable, std::vector<std::string> &names)
{
  if (text == "all") {
    for (const sim::fault_kind &kind : sim::fault_kinds()) {
      if (is_durable || !kind.needs_durable) {
        names.emplace_back(kind.name);
      }
    }
    return true;
  }
  std::istringstream parts(text);
  for (std::string name; std::getline(parts, name, ',');) {
    if (name == "none") {
      continue;
    }
    if (sim::find_fault(name) == nullptr) {
      std::fprintf(stderr, "vx-sim: no fault is named \"%s\": see --list\n", name.c_str());
      return false;
    }
    names.push_back(name);
  }
  return true;
}

run_options options_of(const command_line &given, uint64_t seed, const std::vector<std::string> &names, FILE *trace)
{
  run_options one;
  one.seed = seed;
  one.nodes = given.nodes;
  one.decisions = given.decisions;
  one.is_durable = given.payloads == "durable";
  // Odd seeds are uniform, even ones PCT.
  one.how =
      given.policy == "pct" || (given.policy == "both" && seed % 2 == 0) ? sim::policy::pct : sim::policy::uniform;
  one.faults = names;
  one.left_out = given.left_out;
  one.submitters = given.submitters;
  one.copies = given.copies;
  one.trace = trace;
  return one;
}

std::string command_of(const run_options &one)
{
  std::string text = "vx-sim --seed " + std::to_string(one.seed) + " --nodes " + std::to_string(one.nodes) +
                     " --steps " + std::to_string(one.decisions) + (one.is_durable ? "" : " --payloads memory") +
                     " --policy " + (one.how == sim::policy::pct ? "pct" : "uniform");
  std::vector<std::string> all;
  names_of("all", one.is_durable, all);
  std::string names;
  for (const std::string &name : one.faults) {
    names += (names.empty() ? "" : ",") + name;
  }
  text += one.faults == all ? "" : " --faults " + (names.empty() ? "none" : names);
  for (const uint32_t index : one.left_out) {
    text += (index == one.left_out.front() ? " --leave-out " : ",") + std::to_string(index);
  }
  if (one.submitters != 0) {
    text += " --submitters " + std::to_string(one.submitters);
  }
  return text;
}

void print_line(const seed_result &one)
{
  std::printf(
      "seed %llu: %s, %u decisions, %llu roll-overs, %llu acknowledged, %llu lost, %u faults, %.3f s, %llu calls, "
      "%llu hand-overs, %llu KiB, hash %016llx\n",
      static_cast<unsigned long long>(one.options.seed),
      one.has_crashed          ? "CRASHED"
      : one.result.is_violated ? one.result.invariant
                               : "good",
      one.result.decisions, static_cast<unsigned long long>(one.result.roll_overs),
      static_cast<unsigned long long>(one.result.acknowledged), static_cast<unsigned long long>(one.result.lost),
      one.result.faults_done, static_cast<double>(one.result.virtual_us) / 1e6,
      static_cast<unsigned long long>(one.result.steps), static_cast<unsigned long long>(one.result.hand_overs),
      static_cast<unsigned long long>(one.result.memory >> 10), static_cast<unsigned long long>(one.result.hash));
}

int run_campaign(const command_line &given, const std::vector<std::string> &names, const sim::library_image &image,
                 FILE *trace)
{
  std::vector<run_options> all;
  for (uint64_t i = 0; i < given.seeds; ++i) {
    all.push_back(options_of(given, given.seed + i, names, trace));
  }
  const auto begin = std::chrono::steady_clock::now();
  const auto seconds = [begin] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  uint64_t runs = 0;
  uint64_t decisions = 0;
  std::vector<run_options> bad;
  sim::run_all(all, image, given.jobs, false, [&](const seed_result &one) {
    ++runs;
    decisions += one.result.decisions;
    const bool is_bad = one.has_crashed || one.result.is_violated;
    if (is_bad || given.is_verbose || given.seeds == 1) {
      print_line(one);
    }
    if (is_bad) {
      bad.push_back(one.options);
      std::printf("to see it again: %s\n", command_of(one.options).c_str());
    }
    std::fflush(stdout);
    return !(is_bad && given.is_first);
  });
  std::printf("%llu seeds, %llu decisions, %llu violations", static_cast<unsigned long long>(runs),
              static_cast<unsigned long long>(decisions), static_cast<unsigned long long>(bad.size()));
  std::fprintf(stderr, "%.1f s, %.0f decisions/s\n", seconds(), static_cast<double>(decisions) / seconds());
  std::printf("\n");
  for (const run_options &one : bad) {
    if (given.does_shrink) {
      std::printf("seed %llu, smaller: %s\n", static_cast<unsigned long long>(one.seed),
                  command_of(sim::shrink(one, image, given.jobs)).c_str());
      std::fflush(stdout);
    }
  }
  return bad.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
  command_line given;
  given.library = own_library();
  CLI::App app("Runs clusters of libvx_cons in one process. One seed is one execution, to the step.\n"
               "Exit code 0: no promise was broken; 1: one was; 2: the command line is wrong.");
  app.add_option("--library", given.library,
                 "the library to run (default: the one that was built beside this program)");
  app.add_option("--seed", given.seed, "first seed");
  app.add_option("--seeds", given.seeds, "how many seeds, one after the other");
  app.add_option("--nodes", given.nodes, "nodes")->check(CLI::Range(2, 16));
  app.add_option("--steps", given.decisions, "decisions under faults")->check(CLI::Range(1, 100000));
  app.add_option("--faults", given.faults, "names, by commas; all; none");
  app.add_option("--payloads", given.payloads, "durable, or memory")->check(CLI::IsMember({"durable", "memory"}));
  app.add_option("--policy", given.policy, "which thread goes on: uniform, pct, both by turns")
      ->check(CLI::IsMember({"uniform", "pct", "both"}));
  app.add_option("--submitters", given.submitters, "threads per node that submit (default: drawn)");
  app.add_option("--leave-out", given.left_out, "faults of the plan, by number, that are not done")->delimiter(',');
  app.add_option("--trace", given.trace, "writes every step of a single seed to this file");
  app.add_option("--copies", given.copies, "directory for the nodes' copies of the library, for a debugger");
  app.add_option("--jobs", given.jobs, "runs at once (default: one per core)");
  bool has_kernel_threads = !sim::CAN_SHARE_KERNEL_THREAD;
  app.add_flag("--kernel-threads", has_kernel_threads, "each thread is one of the kernel, for a debugger; slower");
  app.add_flag("--verbose", given.is_verbose, "a line for each seed");
  app.add_flag("--first", given.is_first, "ends at the first violation");
  app.add_flag("--shrink", given.does_shrink, "looks for a smaller run that is violated too");
  app.add_flag("--list", given.does_list, "lists the faults");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  sim::shares_kernel_thread = !has_kernel_threads;
  if (given.does_list) {
    for (const sim::fault_kind &kind : sim::fault_kinds()) {
      std::printf("%-14s %s%s\n", kind.name, kind.what, kind.needs_durable ? " (durable payloads)" : "");
    }
    return 0;
  }
  std::vector<std::string> names;
  sim::library_image image;
  std::string error;
  if (!names_of(given.faults, given.payloads == "durable", names)) {
    return 2;
  }
  if (!image.read(given.library, error)) {
    std::fprintf(stderr, "vx-sim: %s\n", error.c_str());
    return 2;
  }
  FILE *trace = nullptr;
  if (!given.trace.empty()) {
    trace = given.seeds == 1 ? std::fopen(given.trace.c_str(), "w") : nullptr;
    if (trace == nullptr) {
      std::fprintf(stderr, "vx-sim: cannot write %s, or there is more than one seed\n", given.trace.c_str());
      return 2;
    }
  }
  return run_campaign(given, names, image, trace);
}
