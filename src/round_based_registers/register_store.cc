#include "round_based_registers/register_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/cons_mutex.h"
#include "common/le_bytes.h"
#include "common/save_times.h"
#include "common/scoped_fd.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr const char *STORE_DIRECTORY = "/flashdisk/cons";
constexpr const char *RB_REG_FILE = "/flashdisk/cons/rb_reg";
constexpr size_t HEADER_SIZE = 12;
constexpr size_t PATH_SIZE = 64;

struct file_path {
  char text[PATH_SIZE];
  explicit file_path(uint32_t id, const char *suffix = "")
  {
    std::snprintf(text, sizeof text, "%s.%u%s", RB_REG_FILE, id, suffix);
  }
};

// Reused by every save and never freed.
struct staging_buffer {
  cons_mutex lock{lock_rank::register_store};
  uint8_t *bytes CONS_GUARDED_BY(lock) = nullptr;
  size_t capacity CONS_GUARDED_BY(lock) = 0;
};
constinit staging_buffer staging;

bool ensure_capacity(size_t size) CONS_REQUIRES(staging.lock)
{
  if (staging.bytes != nullptr && staging.capacity >= size) {
    return true;
  }
  auto *bytes = static_cast<uint8_t *>(std::realloc(staging.bytes, size));
  if (bytes == nullptr) {
    return false;
  }
  staging.bytes = bytes;
  staging.capacity = size;
  return true;
}

int load_bytes(const char *path, int fd, uint8_t *bytes, size_t size, acceptor_state &state)
{
  const ssize_t got = read(fd, bytes, size);
  if (got < 0) {
    vx_log_err("%s(): read(%s) failed", "store_load", path);
    return -1;
  }
  if (static_cast<size_t>(got) < size) {
    vx_log("%s(): read(%s) failed\n", "store_load", path);
    return -1;
  }
  const uint32_t value_length = get_le32(bytes + 8);
  if (size - HEADER_SIZE < value_length) {
    vx_log("%s(): file %s truncated\n", "store_load", path);
    return -1;
  }
  if (!state.value.assign({bytes + HEADER_SIZE, value_length})) {
    vx_log_err("%s(): malloc() failed", "store_load");
    return -1;
  }
  state.read_round = get_le32(bytes);
  state.write_round = get_le32(bytes + 4);
  return 0;
}

int write_file(const char *path, const uint8_t *bytes, size_t size)
{
  const scoped_fd fd(open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.is_open()) {
    vx_log_err("%s(): - open(%s) failed", "store_save", path);
    return -1;
  }
  const ssize_t written = write(fd.get(), bytes, size);
  if (written < 0) {
    vx_log_err("%s(): write(%s) failed", "store_save", path);
    return -1;
  }
  if (static_cast<size_t>(written) != size) {
    vx_log("%s(): write(%s) failed\n", "store_save", path);
    return -1;
  }
  // If a power cut leaves the rename on disk without the data, no acceptor can read its file, perhaps on all nodes.
  if (cons_service.durable_payloads && fdatasync(fd.get()) != 0) {
    vx_log_err("%s(): fdatasync(%s) failed", "store_save", path);
    return -1;
  }
  return 0;
}

}  // namespace

int store_load(uint32_t id, acceptor_state &state)
{
  const file_path path(id);
  const scoped_fd fd(open(path.text, O_RDONLY | O_CLOEXEC));
  if (!fd.is_open()) {
    if (errno == ENOENT) {
      return 0;
    }
    vx_log_err("%s(): open(%s) failed", "store_load", path.text);
    return -1;
  }
  struct stat status;
  if (fstat(fd.get(), &status) != 0) {
    vx_log_err("%s(): fstat(%s) failed", "store_load", path.text);
    return -1;
  }
  const auto size = static_cast<size_t>(status.st_size);
  if (size < HEADER_SIZE) {
    vx_log("%s(): file %s truncated\n", "store_load", path.text);
    return -1;
  }
  auto *bytes = static_cast<uint8_t *>(std::malloc(size));
  if (bytes == nullptr) {
    vx_log_err("%s(): malloc() failed", "store_load");
    return -1;
  }
  const int result = load_bytes(path.text, fd.get(), bytes, size, state);
  std::free(bytes);
  return result;
}

int store_save(uint32_t id, const acceptor_state &state)
{
  cons_lock lock(staging.lock);
  const save_timer timer(VX_CONS_SAVES_REGISTER);
  const size_t size = HEADER_SIZE + state.value.length();
  if (!ensure_capacity(size)) {
    return -1;
  }
  put_le32(staging.bytes, state.read_round);
  put_le32(staging.bytes + 4, state.write_round);
  put_le32(staging.bytes + 8, state.value.length());
  if (!state.value.empty()) {
    std::memcpy(staging.bytes + HEADER_SIZE, state.value.bytes().data(), state.value.length());
  }
  const file_path temporary(id, ".tmp");
  const file_path path(id);
  if (write_file(temporary.text, staging.bytes, size) != 0) {
    return -1;
  }
  if (rename(temporary.text, path.text) != 0) {
    vx_log("%s(): rename(%s, %s) failed\n", "store_save", temporary.text, path.text);
    return -1;
  }
  sync();
  return 0;
}

int store_delete(uint32_t id)
{
  if (unlink(file_path(id).text) != 0) {
    vx_log_err("%s(): unlink() failed", "store_delete");
  }
  return 0;
}

bool store_delete_if_there(uint32_t id)
{
  if (unlink(file_path(id).text) != 0 && errno != ENOENT) {
    vx_log_err("%s(): unlink() failed", "store_delete_up_to");
    return false;
  }
  return true;
}

void store_take_over()
{
  // A file that is only in the cache would be read, and answered for, as if it were on the disk.
  sync();
  DIR *directory = opendir(STORE_DIRECTORY);
  if (directory == nullptr) {
    return;
  }
  while (const dirent *entry = readdir(directory)) {
    uint32_t id = 0;
    if (std::sscanf(entry->d_name, "rb_reg.%u", &id) != 1) {
      continue;
    }
    const file_path temporary(id, ".tmp");
    if (std::strcmp(temporary.text + std::strlen(STORE_DIRECTORY) + 1, entry->d_name) == 0) {
      unlink(temporary.text);
    }
  }
  closedir(directory);
}

int store_delete_up_to(uint32_t bound, std::span<const uint32_t> kept, bool (*is_known)(uint32_t id))
{
  DIR *directory = opendir(STORE_DIRECTORY);
  if (directory == nullptr) {
    return 1;
  }
  int result = 0;
  while (const dirent *entry = readdir(directory)) {
    uint32_t id = 0;
    char rest = '\0';
    if (std::sscanf(entry->d_name, "rb_reg.%u%c", &id, &rest) != 1 ||
        std::find(kept.begin(), kept.end(), id) != kept.end()) {
      continue;
    }
    if (id > bound) {
      result = is_known != nullptr && is_known(id) ? result : 1;
      continue;
    }
    char path[sizeof entry->d_name + PATH_SIZE];
    std::snprintf(path, sizeof path, "%s/%s", STORE_DIRECTORY, entry->d_name);
    if (unlink(path) != 0) {
      vx_log_err("%s(): unlink() failed", "store_delete_up_to");
      result = 1;
    }
  }
  closedir(directory);
  return result;
}
