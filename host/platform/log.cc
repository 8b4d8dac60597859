// The log: vx_log, vx_log_err and the host's own lines, on spdlog.
#include "guarded.h"
#include "platform.h"
#include "vx_host.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

using namespace platform;

namespace
{

// Lines are formatted on library threads with 64 KiB of stack. A longer line is cut.
constexpr size_t LINE_MAX_BYTES = 1024;
constexpr int64_t FILE_SIZE_DEFAULT = 16 << 20;
constexpr int64_t FILES_DEFAULT = 4;

spdlog::logger *make_logger(spdlog::sink_ptr sink, spdlog::level::level_enum level)
{
  auto *made = new spdlog::logger("", std::move(sink));
  made->set_pattern("%Y-%m-%d %H:%M:%S.%e %t %l: %v");
  made->set_level(level);
  made->flush_on(spdlog::level::trace);
  made->set_error_handler([](const std::string &why) { fprintf(stderr, "log: %s\n", why.c_str()); });
  return made;
}

// Loggers are never deleted: a thread may be inside the old one, and threads may still log while the process exits.
std::atomic<spdlog::logger *> opened_logger;

struct logger_list {
  mutex guard;
  std::vector<spdlog::logger *> all PLATFORM_GUARDED_BY(guard);
};

void use_logger(spdlog::logger *opened)
{
  static auto *const every_logger = new logger_list;
  const lock_scope lock(every_logger->guard);
  every_logger->all.push_back(opened);
  opened_logger.store(opened, std::memory_order_release);
}

spdlog::logger &logger()
{
  if (auto *opened = opened_logger.load(std::memory_order_acquire)) {
    return *opened;
  }
  static spdlog::logger *const to_stderr =
      make_logger(std::make_shared<spdlog::sinks::stderr_sink_mt>(), spdlog::level::info);
  return *to_stderr;
}

void write_line(spdlog::level::level_enum level, std::string_view text)
{
  if (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  logger().log(level, spdlog::string_view_t(text.data(), text.size()));
}

// `error` is the errno to add, 0 for none. errno stays unchanged.
void format_line(spdlog::level::level_enum level, int error, const char *format, va_list arguments)
{
  const int saved_errno = errno;
  try {
    if (logger().should_log(level)) {
      char line[LINE_MAX_BYTES];
      // The analyzer loses track of a va_list that is handed on.
      // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
      const int printed = vsnprintf(line, sizeof line, format, arguments);
      size_t length = printed < 0 ? 0 : std::min(static_cast<size_t>(printed), sizeof line - 1);
      if (error != 0) {
        char why[128];
        const char *text = strerror_r(error, why, sizeof why);
        const int added = snprintf(line + length, sizeof line - length, ": %s", text);
        length = std::min(length + static_cast<size_t>(std::max(added, 0)), sizeof line - 1);
      }
      write_line(level, std::string_view(line, length));
    }
  } catch (...) {
    // There is nowhere to report a line that cannot be written, and the caller is C.
  }
  errno = saved_errno;
}

bool level_of(const std::string &name, spdlog::level::level_enum &level)
{
  const struct {
    const char *name;
    spdlog::level::level_enum level;
  } levels[] = {{"debug", spdlog::level::debug},
                {"info", spdlog::level::info},
                {"warning", spdlog::level::warn},
                {"error", spdlog::level::err}};
  for (const auto &known : levels) {
    if (name == known.name) {
      level = known.level;
      return true;
    }
  }
  return false;
}

}  // namespace

void vx_log(const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  format_line(spdlog::level::info, 0, format, arguments);
  va_end(arguments);
}

void vx_log_err(const char *format, ...)
{
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  format_line(spdlog::level::err, error, format, arguments);
  va_end(arguments);
}

namespace platform
{

bool log_open(std::string &error)
{
  const std::string name = config_text("log.level", "info");
  spdlog::level::level_enum level = spdlog::level::info;
  if (!level_of(name, level)) {
    return config_refuse("log.level", "\"" + name + "\" is none of debug, info, warning, error", error);
  }
  int64_t max_size_bytes = 0;
  int64_t files = 0;
  if (!config_number("log.max_size", 4096, int64_t{1} << 40, FILE_SIZE_DEFAULT, max_size_bytes, error) ||
      !config_number("log.files", 0, 1000, FILES_DEFAULT, files, error)) {
    return false;
  }
  const std::string path = config_text("log.file", "");
  try {
    spdlog::sink_ptr sink;
    if (path.empty()) {
      sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    } else {
      sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, static_cast<size_t>(max_size_bytes),
                                                                    static_cast<size_t>(files));
    }
    use_logger(make_logger(std::move(sink), level));
  } catch (const std::exception &failure) {
    return config_refuse("log.file", failure.what(), error);
  }
  return true;
}

void log_line(log_level level, const std::string &text)
{
  const spdlog::level::level_enum levels[] = {spdlog::level::debug, spdlog::level::info, spdlog::level::warn,
                                              spdlog::level::err};
  try {
    write_line(levels[static_cast<size_t>(level)], text);
  } catch (...) {
    // There is nowhere to report it.
  }
}

}  // namespace platform
