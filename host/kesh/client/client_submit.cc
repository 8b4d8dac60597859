#include "client/client_submit.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "client/control_client.h"
#include "client/input_sender.h"
#include "exit_codes.h"

namespace kesh
{

using nlohmann::json;
using std::chrono::steady_clock;

namespace
{

/// The daemon's share of a line's time. The rest is for the verdict's way here: the command ends when that is over.
double daemon_timeout_s(double timeout_s)
{
  return timeout_s - std::min(0.1, timeout_s / 10);
}

struct file_closer {
  void operator()(FILE *file) const { fclose(file); }
};
using owned_file = std::unique_ptr<FILE, file_closer>;

struct tally {
  uint64_t acknowledged = 0;
  uint64_t refused = 0;
  uint64_t unknown = 0;
  uint64_t again = 0;    // attempts beyond the first
  bool is_done = false;  // the daemon answered everything
  std::string stopped_at;
  std::vector<uint64_t> times_us;

  uint64_t answered() const { return acknowledged + refused + unknown; }
};

void note_failure(const std::string &line, uint64_t number, int reason, tally &to)
{
  if (to.stopped_at.empty()) {
    to.stopped_at = "line " + std::to_string(number) + ": " + line.substr(static_cast<size_t>(reason));
  }
}

/// Takes one verdict of the daemon. `latency` may be null.
void take_verdict(const std::string &line, tally &to, FILE *latency)
{
  uint64_t number = 0;
  uint64_t sequence = 0;
  uint64_t time_us = 0;
  uint64_t attempts = 0;
  int reason = 0;
  const char *text = line.c_str();
  if (line == "done") {
    to.is_done = true;
  } else if (sscanf(text, "ok %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64, &number, &sequence, &time_us, &attempts) ==
             4) {
    to.acknowledged++;
    to.again += attempts - std::min<uint64_t>(attempts, 1);
    to.times_us.push_back(time_us);
    if (latency != nullptr) {
      fprintf(latency, "%" PRIu64 "\t%" PRIu64 "\t%" PRIu64 "\n", sequence, time_us, number);
    }
  } else if (sscanf(text, "unknown %" SCNu64 " %" SCNu64 " %" SCNu64 " %n", &number, &sequence, &attempts, &reason) ==
             3) {
    to.unknown++;
    note_failure(line, number, reason, to);
  } else if (sscanf(text, "refused %" SCNu64 " %n", &number, &reason) == 1) {
    to.refused++;
    note_failure(line, number, reason, to);
  }
}

/// Reads verdicts until all are there, the daemon goes away, or it is silent for longer than any line may take.
void take_verdicts(control_client &client, input_sender &sender, double timeout_s, tally &to, FILE *latency)
{
  const auto patience = std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(timeout_s));
  auto last_answer = steady_clock::now();
  std::string line;
  while (!to.is_done) {
    const auto now = steady_clock::now();
    const bool is_waiting = sender.has_ended() || sender.sent() > to.answered();
    const auto last_sign = std::max(last_answer, sender.last_sent());
    if (is_waiting && now >= last_sign + patience) {
      if (to.stopped_at.empty()) {
        to.stopped_at = "the daemon does not answer any more";
      }
      return;
    }
    // A line that is sent while this waits has its own time, which ends later.
    const read_result got = client.read_line(line, (is_waiting ? last_sign : now) + patience);
    if (got == read_result::late) {
      continue;
    }
    if (got != read_result::line) {
      if (to.stopped_at.empty()) {
        to.stopped_at = "the daemon went away";
      }
      return;
    }
    last_answer = steady_clock::now();
    take_verdict(line, to, latency);
    if (!to.stopped_at.empty()) {
      sender.end_input();
    }
  }
}

/// After sender.stop(). What was sent and has no verdict may be in the daemon's hands. A line that was cut when the
/// input was ended has a verdict, and counts as unsent.
void count_unanswered(const input_sender &sender, tally &to)
{
  const uint64_t answered = to.answered();
  const uint64_t lines = std::max(sender.sent() + sender.unsent(), answered);
  const uint64_t unknown = sender.sent() - std::min(sender.sent(), answered);
  to.unknown += unknown;
  to.refused += lines - answered - unknown;
}

uint64_t quantile(const std::vector<uint64_t> &sorted, size_t percent)
{
  return sorted.empty() ? 0 : sorted[(sorted.size() - 1) * percent / 100];
}

void print_summary(tally &result, double elapsed_s, const json &reply, bool as_json)
{
  std::sort(result.times_us.begin(), result.times_us.end());
  const uint64_t median_us = quantile(result.times_us, 50);
  const uint64_t p99_us = quantile(result.times_us, 99);
  const double rate = elapsed_s > 0 ? static_cast<double>(result.acknowledged) / elapsed_s : 0;
  if (as_json) {
    const json summary = {{"lines", result.answered()},
                          {"acknowledged", result.acknowledged},
                          {"not_submitted", result.refused},
                          {"unknown", result.unknown},
                          {"again", result.again},
                          {"seconds", elapsed_s},
                          {"lines_per_s", rate},
                          {"median_us", median_us},
                          {"p99_us", p99_us},
                          {"node", reply.value("node", 0)},
                          {"life", reply.value("life", "")}};
    printf("%s\n", summary.dump().c_str());
    return;
  }
  printf("%" PRIu64 " of %" PRIu64 " lines acknowledged in %.2f s, %.1f lines/s, median %.2f ms, p99 %.2f ms",
         result.acknowledged, result.answered(), elapsed_s, rate, static_cast<double>(median_us) / 1e3,
         static_cast<double>(p99_us) / 1e3);
  printf(result.again > 0 ? ", %" PRIu64 " attempts repeated\n" : "\n", result.again);
}

/// Returns the exit code, and prints to stderr why it is not 0.
int judge(const tally &result, int read_error)
{
  if (!result.stopped_at.empty()) {
    fprintf(stderr, "kesh submit: stopped at %s\n", result.stopped_at.c_str());
  }
  if (read_error != 0) {
    fprintf(stderr, "kesh submit: reading the input: %s\n", strerror(read_error));
  }
  if (result.refused > 0) {
    fprintf(stderr, "kesh submit: %" PRIu64 " lines were not submitted, and never will be\n", result.refused);
  }
  if (result.unknown > 0) {
    fprintf(stderr,
            "kesh submit: the outcome of %" PRIu64 " lines is unknown: each may be in the journal, or come into it "
            "later, once at most; none is repeated\n",
            result.unknown);
    return EXIT_UNKNOWN;
  }
  if (result.refused > 0) {
    return EXIT_REFUSED;
  }
  return read_error == 0 && result.is_done ? EXIT_OK : EXIT_RUNTIME;
}

}  // namespace

int submit_command(const std::string &socket_path, const submit_options &options)
{
  const platform::unique_fd input(options.input == "-" ? dup(STDIN_FILENO)
                                                       : open(options.input.c_str(), O_RDONLY | O_CLOEXEC));
  if (!input) {
    fprintf(stderr, "kesh submit: %s: %s\n", options.input.c_str(), strerror(errno));
    return EXIT_USAGE;
  }
  owned_file latency;
  if (!options.latency_path.empty()) {
    latency.reset(fopen(options.latency_path.c_str(), "we"));
    if (!latency) {
      fprintf(stderr, "kesh submit: %s: %s\n", options.latency_path.c_str(), strerror(errno));
      return EXIT_USAGE;
    }
  }
  control_client client;
  json reply;
  const json request = {
      {"op", "submit"}, {"window", options.window}, {"timeout_s", daemon_timeout_s(options.timeout_s)}};
  const int code = client.request(socket_path, request, reply, control_client::wait_time(options.timeout_s));
  if (code != EXIT_OK) {
    return code;
  }
  const auto started = steady_clock::now();
  tally result;
  input_sender sender(input.get(), client.fd());
  take_verdicts(client, sender, options.timeout_s, result, latency.get());
  const std::chrono::duration<double> elapsed = steady_clock::now() - started;
  sender.stop();
  count_unanswered(sender, result);
  print_summary(result, elapsed.count(), reply, options.as_json);
  const int verdict = judge(result, sender.read_error());
  if (latency && fflush(latency.get()) != 0) {
    fprintf(stderr, "kesh submit: %s: %s\n", options.latency_path.c_str(), strerror(errno));
    return verdict == EXIT_OK ? EXIT_RUNTIME : verdict;
  }
  return verdict;
}

}  // namespace kesh
