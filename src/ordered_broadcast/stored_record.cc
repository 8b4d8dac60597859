#include "ordered_broadcast/stored_record.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "common/save_times.h"
#include "common/scoped_fd.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr size_t PATH_SIZE = 128;

int replace_record(const char *temporary, const char *path, const uint8_t *buffer, uint32_t length)
{
  const scoped_fd fd(open(temporary, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.is_open()) {
    vx_log_err("%s(): CRITICAL - open(%s) failed", "store_write", temporary);
    return -1;
  }
  const ssize_t written = write(fd.get(), buffer, length);
  if (written < 0) {
    vx_log_err("%s(): CRITICAL - write(%s) failed", "store_write", temporary);
    return -1;
  }
  if (static_cast<size_t>(written) != length) {
    vx_log("%s(): CRITICAL - write(%s) failed\n", "store_write", temporary);
    return -1;
  }
  if (cons_service.durable_payloads && fdatasync(fd.get()) != 0) {
    vx_log_err("%s(): CRITICAL - fdatasync(%s) failed", "store_write", temporary);
    return -1;
  }
  if (rename(temporary, path) != 0) {
    vx_log("%s(): CRITICAL - rename(%s, %s) failed\n", "store_write", temporary, path);
    return -1;
  }
  return 0;
}

}  // namespace

int store_read(const char *path, uint8_t *buffer, uint32_t length)
{
  const scoped_fd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.is_open()) {
    vx_log_err("%s(): CRITICAL - open(%s) failed", "store_read", path);
    return -1;
  }
  const ssize_t got = read(fd.get(), buffer, length);
  if (got < 0) {
    vx_log_err("%s(): CRITICAL - read(%s) failed", "store_read", path);
    return -1;
  }
  if (static_cast<size_t>(got) != length) {
    vx_log("%s(): CRITICAL - read(%s) failed (file size incorrect? should be %u bytes)\n", "store_read", path, length);
    return -1;
  }
  return 0;
}

int store_write(const char *path, const uint8_t *buffer, uint32_t length)
{
  const save_timer timer(VX_CONS_SAVES_RECORD);
  char temporary[PATH_SIZE];
  std::snprintf(temporary, sizeof temporary, "%s.tmp", path);
  const int result = replace_record(temporary, path, buffer, length);
  sync();
  return result;
}
