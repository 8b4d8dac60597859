// The log: vx_log, vx_log_err and the host's own lines. spdlog writes and rotates the file.
#include "guarded.h"
#include "log_levels.h"
#include "log_queue.h"
#include "platform.h"
#include "platform_keys.h"
#include "vx_host.h"

#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

using namespace platform;

namespace
{

// Lines are formatted on library threads with 64 KiB of stack. A longer line is cut.
constexpr size_t LINE_MAX_BYTES = 1024;
constexpr const char *PATTERN = "%Y-%m-%d %H:%M:%S.%e%z %v";
// journald has its own time stamps, and takes the level from the front.
constexpr const char *JOURNAL_PATTERN = "%v";

constexpr std::array<const char *, 4> NAMES = {"debug", "info", "warning", "error"};
constexpr std::array<const char *, 4> JOURNAL_LEVELS = {"<7>", "<6>", "<4>", "<3>"};

bool level_of(const std::string &name, log_level &level)
{
  const auto found = std::find(NAMES.begin(), NAMES.end(), name);
  level = static_cast<log_level>(found - NAMES.begin());
  return found != NAMES.end();
}

bool is_read_by_journald()
{
  return std::getenv("JOURNAL_STREAM") != nullptr;
}

// Never deleted: threads may still log while the process exits.
class the_log
{
public:
  the_log() : sinks_(std::make_shared<spdlog::sinks::dist_sink_mt>()), logger_("", sinks_)
  {
    logger_.set_level(spdlog::level::trace);
    logger_.flush_on(spdlog::level::trace);
    logger_.set_error_handler([](const std::string &why) { fprintf(stderr, "log: %s\n", why.c_str()); });
    use_stderr(false);
  }

  void use_stderr(bool is_journal) { use(std::make_shared<spdlog::sinks::stderr_sink_mt>(), is_journal); }
  /// Another place for what is written from now on. What was open is closed.
  void use(const spdlog::sink_ptr &sink, bool is_journal)
  {
    sink->set_pattern(is_journal ? JOURNAL_PATTERN : PATTERN);
    is_journal_ = is_journal;
    sinks_->set_sinks({sink});
  }
  /// 0: whoever logs writes.
  void set_queue(size_t bytes_max)
  {
    const alone_scope scope(queue_lock_);
    queue_.reset();
    if (bytes_max != 0) {
      queue_ = std::make_unique<log_queue>(
          bytes_max, [this](const log_record &line) { write(line); },
          [this](uint64_t count) {
            return record(log_level::warning,
                          "log: " + std::to_string(count) +
                              " lines before this one were dropped: the disk was too slow for them");
          });
    }
  }
  void set_level(log_level level) { level_ = level; }
  void set_node(uint32_t node) { node_ = node; }
  bool takes(log_level level) const { return level >= level_; }

  void line(log_level level, std::string_view text)
  {
    if (!text.empty() && text.back() == '\n') {
      text.remove_suffix(1);
    }
    log_record made = record(level, text);
    const shared_scope scope(queue_lock_);
    if (queue_) {
      queue_->push(std::move(made));
    } else {
      write(made);
    }
  }
  bool flush(std::chrono::milliseconds limit)
  {
    const shared_scope scope(queue_lock_);
    return !queue_ || queue_->flush(limit);
  }
  uint64_t dropped()
  {
    const shared_scope scope(queue_lock_);
    return queue_ ? queue_->dropped() : 0;
  }
  void remember(std::string_view critical)
  {
    const lock_scope scope(critical_lock_);
    last_critical_ = critical;
  }
  void count(log_level level, std::string_view text)
  {
    library_errors_ += level == log_level::error ? 1 : 0;
    payloads_lost_ += level == log_level::error && library_line_tells_loss(text) ? 1 : 0;
  }
  uint64_t library_errors() const { return library_errors_; }
  uint64_t payloads_lost() const { return payloads_lost_; }
  std::string last_critical()
  {
    const lock_scope scope(critical_lock_);
    return last_critical_;
  }

private:
  log_record record(log_level level, std::string_view text) const
  {
    log_record made{std::chrono::system_clock::now(), level, head(level)};
    made.text += text;
    return made;
  }

  /// "68234.123456 n2 18477 info: ": the monotonic clock, the node, the thread.
  std::string head(log_level level) const
  {
    thread_local const int thread = gettid();
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    char text[96];
    snprintf(text, sizeof text,
             "%s%lld.%06ld n%u %d %s: ", is_journal_ ? JOURNAL_LEVELS[static_cast<size_t>(level)] : "",
             static_cast<long long>(now.tv_sec), now.tv_nsec / 1000, node_.load(), thread,
             NAMES[static_cast<size_t>(level)]);
    return text;
  }

  void write(const log_record &line)
  {
    logger_.log(line.at, spdlog::source_loc{}, spdlog::level::info,
                spdlog::string_view_t(line.text.data(), line.text.size()));
  }

  std::shared_ptr<spdlog::sinks::dist_sink_mt> sinks_;
  spdlog::logger logger_;
  std::atomic<log_level> level_ = log_level::info;
  std::atomic<uint32_t> node_ = 0;
  std::atomic<bool> is_journal_ = false;
  std::atomic<uint64_t> library_errors_ = 0;
  std::atomic<uint64_t> payloads_lost_ = 0;
  shared_mutex queue_lock_;
  std::unique_ptr<log_queue> queue_ PLATFORM_GUARDED_BY(queue_lock_);
  mutex critical_lock_;
  std::string last_critical_ PLATFORM_GUARDED_BY(critical_lock_);
};

the_log &opened()
{
  static auto *const log = new the_log;
  return *log;
}

// `error` is the errno to add, 0 for none. errno stays unchanged.
template <typename judge>
void format_line(int error, const char *format, va_list arguments, const judge &level_of_text)
{
  const int saved_errno = errno;
  try {
    char line[LINE_MAX_BYTES];
    // The analyzer loses track of a va_list that is handed on.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int printed = vsnprintf(line, sizeof line, format, arguments);
    size_t length = printed < 0 ? 0 : std::min(static_cast<size_t>(printed), sizeof line - 1);
    const log_level level = level_of_text(std::string_view(line, length));
    opened().count(level, std::string_view(line, length));
    const bool is_critical = std::string_view(line, length).find("CRITICAL") != std::string_view::npos;
    if (opened().takes(level) || is_critical) {
      if (error != 0) {
        char why[128];
        const char *text = strerror_r(error, why, sizeof why);
        const int added = snprintf(line + length, sizeof line - length, ": %s", text);
        length = std::min(length + static_cast<size_t>(std::max(added, 0)), sizeof line - 1);
      }
      const std::string_view text(line, length);
      if (is_critical) {
        opened().remember(text.substr(0, text.find('\n')));
      }
      if (opened().takes(level)) {
        opened().line(level, text);
      }
    }
  } catch (...) {
    // There is nowhere to report a line that cannot be written, and the caller is C.
  }
  errno = saved_errno;
}

}  // namespace

void vx_log(const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  format_line(0, format, arguments, library_line_level);
  va_end(arguments);
}

void vx_log_err(const char *format, ...)
{
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  format_line(error, format, arguments, [error](std::string_view text) { return library_failure_level(text, error); });
  va_end(arguments);
}

namespace platform
{

bool log_open(std::string &error)
{
  std::string name;
  int64_t queue_bytes = 0;
  int64_t node = 0;
  if (!config_text(platform_key("log.level"), name, error) ||
      !config_number(platform_key("log.queue"), queue_bytes, error) || !log_reopen(error)) {
    return false;
  }
  std::string ignored;
  config_number(platform_key("cluster.node_id"), node, ignored);  // whoever needs it refuses a bad one
  opened().set_node(static_cast<uint32_t>(node));
  log_set_level(name);
  opened().set_queue(static_cast<size_t>(queue_bytes));
  return true;
}

bool log_reopen(std::string &error)
{
  int64_t max_size_bytes = 0;
  int64_t files = 0;
  std::string path;
  if (!config_number(platform_key("log.max_size"), max_size_bytes, error) ||
      !config_number(platform_key("log.files"), files, error) || !config_text(platform_key("log.file"), path, error)) {
    return false;
  }
  try {
    if (path.empty()) {
      opened().use_stderr(is_read_by_journald());
    } else {
      opened().use(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, static_cast<size_t>(max_size_bytes),
                                                                          static_cast<size_t>(files)),
                   false);
    }
  } catch (const std::exception &failure) {
    return config_refuse("log.file", failure.what(), error);
  }
  return true;
}

bool log_set_level(const std::string &name)
{
  log_level level = log_level::info;
  if (!level_of(name, level)) {
    return false;
  }
  opened().set_level(level);
  return true;
}

bool log_flush(std::chrono::milliseconds limit)
{
  return opened().flush(limit);
}

bool log_close(std::chrono::milliseconds limit)
{
  if (!opened().flush(limit)) {
    return false;
  }
  opened().set_queue(0);
  opened().use_stderr(is_read_by_journald());
  return true;
}

uint64_t log_dropped()
{
  return opened().dropped();
}

uint64_t log_library_errors()
{
  return opened().library_errors();
}

uint64_t log_payloads_lost()
{
  return opened().payloads_lost();
}

std::string log_last_critical()
{
  return opened().last_critical();
}

void log_line(log_level level, const std::string &text)
{
  try {
    if (opened().takes(level)) {
      opened().line(level, text);
    }
  } catch (...) {
    // There is nowhere to report it.
  }
}

}  // namespace platform
