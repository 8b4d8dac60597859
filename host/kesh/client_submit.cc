#include "client_submit.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "control_client.h"
#include "exit_codes.h"

namespace kesh
{

using nlohmann::json;

namespace
{

constexpr size_t CHUNK_SIZE = 64 << 10;

/// Copies the input to the daemon on its own thread, until the input ends or until stop().
class input_sender
{
public:
  input_sender(int input, int socket)
      : input_(input), socket_(socket), stop_event_(eventfd(0, EFD_CLOEXEC)), thread_([this] { run(); })
  {
  }
  ~input_sender() { stop(); }

  void stop()
  {
    if (thread_.joinable()) {
      const uint64_t one = 1;
      [[maybe_unused]] const ssize_t written = write(stop_event_.get(), &one, sizeof one);
      shutdown(socket_, SHUT_WR);
      thread_.join();
    }
  }
  /// After stop().
  uint64_t lines() const { return lines_; }
  int read_error() const { return read_error_; }

private:
  void run()
  {
    socket_writer writer(socket_);
    std::string bytes;
    char last = '\n';
    while (read_chunk(bytes) && writer.send(bytes)) {
      lines_ += static_cast<uint64_t>(std::count(bytes.begin(), bytes.end(), '\n'));
      last = bytes.back();
    }
    if (last != '\n' && writer.send("\n")) {
      lines_++;
    }
    shutdown(socket_, SHUT_WR);
  }

  bool read_chunk(std::string &bytes)
  {
    pollfd waited[] = {{input_, POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
    if (poll(waited, 2, -1) < 0 || waited[1].revents != 0) {
      return false;
    }
    bytes.resize(CHUNK_SIZE);
    const ssize_t got = read(input_, bytes.data(), bytes.size());
    read_error_ = got < 0 ? errno : 0;
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return got > 0;
  }

  int input_;
  int socket_;
  platform::unique_fd stop_event_;
  uint64_t lines_ = 0;
  int read_error_ = 0;
  std::thread thread_;
};

struct file_closer {
  void operator()(FILE *file) const { fclose(file); }
};

struct tally {
  uint64_t acknowledged = 0;
  uint64_t failed = 0;
  uint64_t again = 0;
  bool done = false;  // the daemon answered everything
  std::string first_failure;
  std::vector<uint64_t> times_us;
};

/// Takes one verdict of the daemon. `latency` may be null.
void take_verdict(const std::string &line, tally &result, FILE *latency)
{
  uint64_t number = 0;
  uint64_t sequence = 0;
  uint64_t time_us = 0;
  uint64_t attempts = 0;
  int reason = 0;
  if (line == "done") {
    result.done = true;
  } else if (sscanf(line.c_str(), "ok %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64, &number, &sequence, &time_us,
                    &attempts) == 4) {
    result.acknowledged++;
    result.again += attempts - 1;
    result.times_us.push_back(time_us);
    if (latency != nullptr) {
      fprintf(latency, "%" PRIu64 "\t%" PRIu64 "\t%" PRIu64 "\n", sequence, time_us, number);
    }
  } else if (sscanf(line.c_str(), "failed %" SCNu64 " %" SCNu64 " %" SCNu64 " %n", &number, &sequence, &attempts,
                    &reason) == 3) {
    if (result.failed++ == 0) {
      result.first_failure = "line " + std::to_string(number) + ": " + line.substr(static_cast<size_t>(reason));
    }
  } else if (line.starts_with("error ")) {
    result.failed++;
    result.first_failure = line.substr(6);
  }
}

uint64_t quantile(const std::vector<uint64_t> &sorted, size_t percent)
{
  return sorted.empty() ? 0 : sorted[(sorted.size() - 1) * percent / 100];
}

void print_summary(tally &result, double elapsed_s, uint64_t lines, const json &reply, bool as_json)
{
  std::sort(result.times_us.begin(), result.times_us.end());
  const uint64_t median_us = quantile(result.times_us, 50);
  const uint64_t p99_us = quantile(result.times_us, 99);
  const double rate = elapsed_s > 0 ? static_cast<double>(result.acknowledged) / elapsed_s : 0;
  if (as_json) {
    const json summary = {{"lines", lines},
                          {"acknowledged", result.acknowledged},
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
         result.acknowledged, lines, elapsed_s, rate, static_cast<double>(median_us) / 1e3,
         static_cast<double>(p99_us) / 1e3);
  printf(result.again > 0 ? ", %" PRIu64 " attempts repeated\n" : "\n", result.again);
}

/// Returns the exit code, and prints to stderr why it is not 0.
int judge(const tally &result, uint64_t lines, int read_error)
{
  if (read_error != 0) {
    fprintf(stderr, "kesh submit: reading the input: %s\n", strerror(read_error));
    return EXIT_RUNTIME;
  }
  if (result.failed > 0) {
    fprintf(stderr, "kesh submit: stopped at %s\n", result.first_failure.c_str());
    return EXIT_REFUSED;
  }
  if (!result.done || result.acknowledged < lines) {
    fprintf(stderr, "kesh submit: the daemon went away; %" PRIu64 " lines have no answer and may be delivered or not\n",
            lines - std::min(lines, result.acknowledged));
    return EXIT_RUNTIME;
  }
  return EXIT_OK;
}

}  // namespace

int submit_command(const std::string &socket_path, const submit_options &options)
{
  platform::unique_fd input(options.input == "-" ? dup(STDIN_FILENO)
                                                 : open(options.input.c_str(), O_RDONLY | O_CLOEXEC));
  if (!input) {
    fprintf(stderr, "kesh submit: %s: %s\n", options.input.c_str(), strerror(errno));
    return EXIT_USAGE;
  }
  std::unique_ptr<FILE, file_closer> latency;
  if (!options.latency_path.empty()) {
    latency.reset(fopen(options.latency_path.c_str(), "we"));
    if (!latency) {
      fprintf(stderr, "kesh submit: %s: %s\n", options.latency_path.c_str(), strerror(errno));
      return EXIT_USAGE;
    }
  }
  control_client client;
  json reply;
  const int code = client.request(
      socket_path, {{"op", "submit"}, {"threads", options.threads}, {"timeout_s", options.timeout_s}}, reply);
  if (code != EXIT_OK) {
    return code;
  }
  const auto started = std::chrono::steady_clock::now();
  tally result;
  input_sender sender(input.get(), client.fd());
  std::string line;
  while (!result.done && client.read_line(line) == read_result::line) {
    take_verdict(line, result, latency.get());
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
  sender.stop();
  if (latency && fflush(latency.get()) != 0) {
    fprintf(stderr, "kesh submit: %s: %s\n", options.latency_path.c_str(), strerror(errno));
    return EXIT_RUNTIME;
  }
  print_summary(result, elapsed.count(), sender.lines(), reply, options.as_json);
  return judge(result, sender.lines(), sender.read_error());
}

}  // namespace kesh
