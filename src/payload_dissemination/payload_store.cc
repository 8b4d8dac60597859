#include "payload_dissemination/payload_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/scoped_fd.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr const char *DIRECTORY = "/flashdisk/cons/payloads";
constexpr uint8_t MAGIC[8] = {'V', 'X', 'P', 'A', 'Y', 'L', 'D', '1'};
constexpr uint32_t DIGEST_OFFSET = 32;
constexpr uint32_t DIGEST_SIZE = 32;
static_assert(DIGEST_OFFSET + DIGEST_SIZE == PAYLOAD_FILE_HEADER_SIZE);
constexpr const char *TEMPORARY = ".tmp";
constexpr size_t PATH_SIZE = 64;
constexpr size_t IO_MAX = 1u << 30;  // one read or write moves less than 2 GiB

struct file_path {
  char text[PATH_SIZE];
  explicit file_path(id_entry entry, const char *suffix = "")
  {
    std::snprintf(text, sizeof text, "%s/%u.%u%s", DIRECTORY, unsigned{entry.sender}, entry.msg_id, suffix);
  }
};

bool put_digest(uint8_t *to, const uint8_t *header, const payload_buf *payload, uint32_t length)
{
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  const bool is_made = context != nullptr && EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1 &&
                       EVP_DigestUpdate(context, header, DIGEST_OFFSET) == 1 &&
                       EVP_DigestUpdate(context, payload, length) == 1 && EVP_DigestFinal_ex(context, to, nullptr) == 1;
  EVP_MD_CTX_free(context);
  return is_made;
}

void put_header(uint8_t *to, id_entry entry, bool is_state, uint32_t length, uint32_t state_number)
{
  std::memset(to, 0, PAYLOAD_FILE_HEADER_SIZE);
  std::memcpy(to, MAGIC, sizeof MAGIC);
  put_le64(to + 8, cons_service.cluster_id);
  put_le32(to + 16, entry.msg_id);
  to[20] = entry.sender;
  to[21] = is_state ? 1 : 0;
  put_le32(to + 24, length);
  put_le32(to + 28, state_number);
}

bool write_all(int fd, const uint8_t *bytes, uint64_t size)
{
  while (size > 0) {
    const ssize_t written = write(fd, bytes, std::min<uint64_t>(size, IO_MAX));
    if (written <= 0) {
      return false;
    }
    bytes += written;
    size -= static_cast<uint64_t>(written);
  }
  return true;
}

bool read_all(int fd, uint8_t *bytes, uint64_t size)
{
  while (size > 0) {
    const ssize_t got = read(fd, bytes, std::min<uint64_t>(size, IO_MAX));
    if (got <= 0) {
      return false;
    }
    bytes += got;
    size -= static_cast<uint64_t>(got);
  }
  return true;
}

bool reserve_space(int fd, const char *path, uint64_t size, uint64_t reserve)
{
  errno = posix_fallocate(fd, 0, static_cast<off_t>(size));
  if (errno != 0) {
    vx_log_err("%s(): posix_fallocate(%s) failed", "payload_store_write", path);
    return false;
  }
  struct statvfs space;
  if (fstatvfs(fd, &space) != 0) {
    vx_log_err("%s(): fstatvfs(%s) failed", "payload_store_write", path);
    return false;
  }
  const uint64_t left = uint64_t{space.f_bavail} * space.f_frsize;
  if (left < reserve) {
    vx_log("%s(): no room for %s: %" PRIu64 " bytes would stay free, the records need %" PRIu64 "\n",
           "payload_store_write", path, left, reserve);
    return false;
  }
  return true;
}

bool write_file(int fd, const char *path, const uint8_t *header, const payload_buf *payload, uint32_t length)
{
  if (!write_all(fd, header, PAYLOAD_FILE_HEADER_SIZE) || !write_all(fd, payload, length)) {
    vx_log_err("%s(): write(%s) failed", "payload_store_write", path);
    return false;
  }
  if (fdatasync(fd) != 0) {
    vx_log_err("%s(): fdatasync(%s) failed", "payload_store_write", path);
    return false;
  }
  return true;
}

// Whether this node could have written this header for the entry and this file size.
bool is_header_of(const uint8_t *header, id_entry entry, uint64_t file_size)
{
  uint8_t expected[PAYLOAD_FILE_HEADER_SIZE];
  put_header(expected, entry, header[21] != 0, get_le32(header + 24), get_le32(header + 28));
  return std::memcmp(header, expected, DIGEST_OFFSET) == 0 &&
         file_size == uint64_t{PAYLOAD_FILE_HEADER_SIZE} + get_le32(header + 24);
}

void read_header(payload_file &file)
{
  const file_path path(file.entry);
  const scoped_fd fd(open(path.text, O_RDONLY | O_CLOEXEC));
  struct stat status;
  uint8_t header[PAYLOAD_FILE_HEADER_SIZE];
  if (!fd.is_open() || fstat(fd.get(), &status) != 0 || !read_all(fd.get(), header, sizeof header)) {
    return;
  }
  file.is_sound = is_header_of(header, file.entry, static_cast<uint64_t>(status.st_size));
  file.is_foreign = std::memcmp(header, MAGIC, sizeof MAGIC) == 0 && get_le64(header + 8) != cons_service.cluster_id;
  if (file.is_sound) {
    file.is_state = header[21] != 0;
    file.length = get_le32(header + 24);
    file.state_number = get_le32(header + 28);
  }
}

// Accepts "<sender>.<id>", and the same with ".tmp", only in the form that file_path writes.
bool parse_name(const char *name, payload_file &file)
{
  unsigned sender = 0;
  uint32_t id = 0;
  if (std::sscanf(name, "%3u.%10u", &sender, &id) != 2 || sender > NODES_MAX) {
    return false;
  }
  file.entry = {.sender = static_cast<uint8_t>(sender), .msg_id = id};
  const file_path path(file.entry);
  const char *own_name = path.text + std::strlen(DIRECTORY) + 1;
  const size_t length = std::strlen(own_name);
  if (!id_entry_valid(file.entry) || std::strncmp(name, own_name, length) != 0) {
    return false;
  }
  file.is_temporary = std::strcmp(name + length, TEMPORARY) == 0;
  return file.is_temporary || name[length] == '\0';
}

void remove_name(const char *name)
{
  char path[PATH_SIZE + NAME_MAX + 1];
  std::snprintf(path, sizeof path, "%s/%s", DIRECTORY, name);
  if (unlink(path) != 0) {
    vx_log_err("%s(): unlink(%s) failed", "payload_store_remove", path);
  }
}

bool is_dot(const char *name)
{
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

int payload_store_open()
{
  if (mkdir(DIRECTORY, 0700) != 0 && errno != EEXIST) {
    vx_log_err("%s(): mkdir(%s) failed", "payload_store_open", DIRECTORY);
    return -1;
  }
  return 0;
}

int payload_store_write(id_entry entry, const payload_buf *payload, uint32_t state_number, uint64_t reserve)
{
  const file_path temporary(entry, TEMPORARY);
  const uint32_t length = payload_size(payload);
  uint8_t header[PAYLOAD_FILE_HEADER_SIZE];
  put_header(header, entry, payload_full_state(payload) != 0, length, state_number);
  if (!put_digest(header + DIGEST_OFFSET, header, payload, length)) {
    vx_log("%s(): no checksum for %s\n", "payload_store_write", temporary.text);
    return -1;
  }
  const scoped_fd fd(open(temporary.text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.is_open()) {
    vx_log_err("%s(): open(%s) failed", "payload_store_write", temporary.text);
    return -1;
  }
  if (!reserve_space(fd.get(), temporary.text, PAYLOAD_FILE_HEADER_SIZE + uint64_t{length}, reserve) ||
      !write_file(fd.get(), temporary.text, header, payload, length)) {
    unlink(temporary.text);
    return -1;
  }
  return 0;
}

void payload_store_discard(id_entry entry)
{
  unlink(file_path(entry, TEMPORARY).text);
}

int payload_store_commit(id_entry entry)
{
  const file_path temporary(entry, TEMPORARY);
  const file_path path(entry);
  if (rename(temporary.text, path.text) != 0) {
    vx_log_err("%s(): rename(%s, %s) failed", "payload_store_commit", temporary.text, path.text);
    unlink(temporary.text);
    return -1;
  }
  sync();
  return 0;
}

payload_load payload_store_load(id_entry entry, payload_buf *&payload)
{
  const file_path path(entry);
  const scoped_fd fd(open(path.text, O_RDONLY | O_CLOEXEC));
  if (!fd.is_open()) {
    const bool is_absent = errno == ENOENT;
    vx_log_err("%s(): open(%s) failed", "payload_store_load", path.text);
    return is_absent ? payload_load::absent : payload_load::failed;
  }
  struct stat status;
  uint8_t header[PAYLOAD_FILE_HEADER_SIZE];
  if (fstat(fd.get(), &status) != 0 || !read_all(fd.get(), header, sizeof header) ||
      !is_header_of(header, entry, static_cast<uint64_t>(status.st_size))) {
    vx_log("%s(): %s is damaged\n", "payload_store_load", path.text);
    return payload_load::damaged;
  }
  const uint32_t length = get_le32(header + 24);
  auto *bytes = static_cast<uint8_t *>(std::malloc(std::max(length, PAYLOAD_HEADER_SIZE)));
  if (bytes == nullptr) {
    vx_log_err("%s(): malloc() failed", "payload_store_load");
    return payload_load::failed;
  }
  uint8_t digest[DIGEST_SIZE];
  if (!read_all(fd.get(), bytes, length) || !put_digest(digest, header, bytes, length) ||
      std::memcmp(digest, header + DIGEST_OFFSET, DIGEST_SIZE) != 0 || length < PAYLOAD_HEADER_SIZE ||
      payload_size(bytes) != length) {
    vx_log("%s(): %s is damaged\n", "payload_store_load", path.text);
    std::free(bytes);
    return payload_load::damaged;
  }
  payload = bytes;
  return payload_load::loaded;
}

int payload_store_walk(bool is_start, const payload_file_cb &callback)
{
  DIR *directory = opendir(DIRECTORY);
  if (directory == nullptr) {
    vx_log_err("%s(): opendir(%s) failed", "payload_store_walk", DIRECTORY);
    return -1;
  }
  int result = 0;
  while (const dirent *at = readdir(directory)) {
    payload_file file;
    if (is_dot(at->d_name)) {
      continue;
    }
    const bool is_ours = parse_name(at->d_name, file);
    if (!is_ours || (is_start && file.is_temporary)) {
      if (is_start) {
        vx_log("CONS: PAXOS DATA: %s/%s is no payload - removed\n", DIRECTORY, at->d_name);
        remove_name(at->d_name);
      }
      continue;
    }
    if (is_start) {
      read_header(file);
    }
    if (!callback(file)) {
      result = -1;
      break;
    }
  }
  closedir(directory);
  return result;
}

void payload_store_remove(const payload_file &file)
{
  const file_path path(file.entry, file.is_temporary ? TEMPORARY : "");
  remove_name(path.text + std::strlen(DIRECTORY) + 1);
}

int payload_store_remove_all()
{
  DIR *directory = opendir(DIRECTORY);
  if (directory == nullptr) {
    return errno == ENOENT ? 0 : -1;
  }
  uint32_t count = 0;
  while (const dirent *at = readdir(directory)) {
    if (!is_dot(at->d_name)) {
      remove_name(at->d_name);
      ++count;
    }
  }
  closedir(directory);
  if (count != 0) {
    vx_log("CONS: PAXOS DATA: %u payload files removed\n", count);
  }
  if (rmdir(DIRECTORY) != 0) {
    vx_log_err("%s(): rmdir(%s) failed", "payload_store_remove_all", DIRECTORY);
    return -1;
  }
  return 0;
}
