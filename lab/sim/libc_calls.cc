// The calls of libc that the library makes: mutexes, conditions, threads, clocks, files, the message queue. A mutex
// keeps its owner in the bytes of the library's pthread_mutex_t, which begin as zeros.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "context.h"

namespace sim
{

namespace
{

constexpr int64_t US_PER_S = 1'000'000;
constexpr uint64_t SPURIOUS_ONCE_IN = 200;

// --- Mutexes and conditions

struct mutex_word {
  uint32_t owner;  // number of the thread; 0: none
};
static_assert(sizeof(mutex_word) <= sizeof(pthread_mutex_t));

mutex_word &word_of(pthread_mutex_t *mutex)
{
  return *reinterpret_cast<mutex_word *>(mutex);
}

int64_t us_of(const timespec &at)
{
  return int64_t{at.tv_sec} * US_PER_S + at.tv_nsec / 1000;
}

bool acquire(pthread_mutex_t *mutex, int64_t deadline_us)
{
  scheduler &clock = *sim_context.clock;
  mutex_word &word = word_of(mutex);
  while (word.owner != 0) {
    if (!clock.wait_for_owner(mutex, word.owner, deadline_us) && word.owner != 0) {
      return false;
    }
  }
  word.owner = clock.self().number;
  return true;
}

void release(pthread_mutex_t *mutex)
{
  scheduler &clock = *sim_context.clock;
  mutex_word &word = word_of(mutex);
  if (word.owner != clock.self().number) {
    sim_context.judge->break_promise("waiting", here().node, "a mutex is unlocked by a thread that does not hold it");
  }
  word.owner = 0;
  clock.wake_all(&here(), mutex);
}

int mutex_lock(pthread_mutex_t *mutex)
{
  caught("lock");
  acquire(mutex, NEVER);
  return 0;
}

int mutex_clocklock(pthread_mutex_t *mutex, clockid_t, const timespec *end)
{
  caught("clocklock");
  return acquire(mutex, us_of(*end)) ? 0 : ETIMEDOUT;
}

int mutex_unlock(pthread_mutex_t *mutex)
{
  release(mutex);
  caught("unlock");
  return 0;
}

int wait_on(pthread_cond_t *condition, pthread_mutex_t *mutex, int64_t deadline_us)
{
  scheduler &clock = *sim_context.clock;
  release(mutex);
  bool is_woken = true;
  if (here().home->choices.once_in(SPURIOUS_ONCE_IN)) {
    caught("spurious");
  } else {
    is_woken = clock.wait(condition, deadline_us, "wait");
  }
  acquire(mutex, NEVER);
  return is_woken ? 0 : ETIMEDOUT;
}

int cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex)
{
  return wait_on(condition, mutex, NEVER);
}

int cond_clockwait(pthread_cond_t *condition, pthread_mutex_t *mutex, clockid_t, const timespec *end)
{
  return wait_on(condition, mutex, us_of(*end));
}

int cond_signal(pthread_cond_t *condition)
{
  sim_context.clock->wake_one(&here(), condition);
  caught("signal");
  return 0;
}

int cond_broadcast(pthread_cond_t *condition)
{
  sim_context.clock->wake_all(&here(), condition);
  caught("broadcast");
  return 0;
}

// --- Threads. A handle is the thread's number.

int thread_join(pthread_t handle, void **)
{
  caught("join", handle);
  scheduler &clock = *sim_context.clock;
  const thread *const other = clock.find(static_cast<uint32_t>(handle));
  if (other == nullptr) {
    return ESRCH;
  }
  while (!other->has_ended) {
    clock.wait(other, NEVER, "wait-join");
  }
  return 0;
}

int thread_setname(pthread_t handle, const char *name)
{
  if (thread *const other = sim_context.clock->find(static_cast<uint32_t>(handle))) {
    other->name = name;
  }
  return 0;
}

[[noreturn]] void process_exit(int code)
{
  sim_context.judge->break_promise("process", here().node, "the library calls exit(" + std::to_string(code) + ")");
  _exit(1);
}

// --- Clocks

constexpr int64_t WALL_START_US = int64_t{1'700'000'000} * US_PER_S;

int64_t wall_us()
{
  return WALL_START_US + sim_context.clock->now_us() + here().home->wall_offset_us;
}

int get_time(clockid_t which, timespec *now)
{
  const int64_t us = which == CLOCK_REALTIME ? wall_us() : sim_context.clock->now_us();
  *now = {.tv_sec = us / US_PER_S, .tv_nsec = us % US_PER_S * 1000};
  return 0;
}

int get_time_of_day(timeval *now, void *)
{
  *now = {.tv_sec = wall_us() / US_PER_S, .tv_usec = wall_us() % US_PER_S};
  return 0;
}

time_t get_seconds(time_t *now)
{
  const time_t seconds = wall_us() / US_PER_S;
  if (now != nullptr) {
    *now = seconds;
  }
  return seconds;
}

// --- Files

constexpr const char *OP_NAMES[DISK_OPS] = {"open-read", "open-write", "read", "write", "datasync", "rename",
                                            "unlink",    "fallocate",  "list", "sync",  "mkdir"};

void die_if_due(bool is_after)
{
  sim_node &node = *here().home;
  if (node.dies.at_operation == 0 || node.dies.is_after != is_after) {
    return;
  }
  if (--node.dies.at_operation == 0) {
    sim_context.die(node);
    caught("died");
  }
}

// One file operation: its time passes, and it may fail. Returns 0 or the error.
int operate(disk_op op, const std::string &path)
{
  scheduler &clock = *sim_context.clock;
  sim_node &node = *here().home;
  const auto index = static_cast<size_t>(op);
  caught(OP_NAMES[index]);
  const bool changes = op == disk_op::open_write || op == disk_op::write || op == disk_op::datasync ||
                       op == disk_op::rename || op == disk_op::unlink || op == disk_op::sync;
  if (changes) {
    die_if_due(false);
  }
  int64_t takes_us = node.disk.stall_us;
  if (op == disk_op::sync || op == disk_op::datasync) {
    takes_us += node.choices.between(40, 300);
  }
  if (takes_us != 0) {
    clock.sleep_for(takes_us, OP_NAMES[index]);
  }
  sim_disk::failure &failure = node.disk.failures[index];
  if (failure.left != 0 && path.find(failure.name) != std::string::npos) {
    --failure.left;
    return failure.error;
  }
  return 0;
}

int failed(int error)
{
  errno = error;
  return -1;
}

const std::string &path_of(int fd)
{
  return here().files.at(fd).path;
}

int file_open(const char *path, int flags, ...)
{
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (const int error = operate(writes ? disk_op::open_write : disk_op::open_read, path)) {
    return failed(error);
  }
  node_run &run = here();
  sim_disk &disk = run.home->disk;
  sim_disk::file_ptr file = disk.find(path);
  if (file == nullptr && (flags & O_CREAT) != 0) {
    file = disk.create(path);
  } else if (file != nullptr && (flags & O_TRUNC) != 0) {
    disk.truncate(path);
  }
  if (file == nullptr) {
    return failed(ENOENT);
  }
  run.files[++run.last_file] = {.file = file, .path = path};
  return run.last_file;
}

int file_close(int fd)
{
  return here().files.erase(fd) == 1 ? 0 : failed(EBADF);
}

ssize_t file_read(int fd, void *to, size_t size)
{
  if (const int error = operate(disk_op::read, path_of(fd))) {
    return failed(error);
  }
  open_file &from = here().files.at(fd);
  const size_t left = from.file->bytes.size() - std::min(from.at, from.file->bytes.size());
  const size_t got = std::min(left, size);
  if (got != 0) {
    std::memcpy(to, from.file->bytes.data() + from.at, got);
  }
  from.at += got;
  return static_cast<ssize_t>(got);
}

ssize_t file_write(int fd, const void *from, size_t size)
{
  const int error = operate(disk_op::write, path_of(fd));
  open_file &to = here().files.at(fd);
  const auto *const bytes = static_cast<const uint8_t *>(from);
  if (error == 0) {
    sim_disk::write(*to.file, to.at, bytes, size);
    to.at += size;
    return static_cast<ssize_t>(size);
  }
  if (error == ENOSPC && size > 1) {  // as much as there was room for
    const size_t part = here().home->choices.below(size);
    sim_disk::write(*to.file, to.at, bytes, part);
    to.at += part;
    return static_cast<ssize_t>(part);
  }
  return failed(error);
}

int file_datasync(int fd)
{
  if (const int error = operate(disk_op::datasync, path_of(fd))) {
    return failed(error);
  }
  sim_disk::datasync(*here().files.at(fd).file);
  die_if_due(true);
  return 0;
}

int file_rename(const char *from, const char *to)
{
  if (const int error = operate(disk_op::rename, to)) {
    return failed(error);
  }
  sim_node &node = *here().home;
  if (!node.disk.rename(from, to)) {
    return failed(ENOENT);
  }
  sim_context.judge->record_saved(node, to, node.disk.find(to)->bytes);
  die_if_due(true);
  return 0;
}

int file_unlink(const char *path)
{
  if (const int error = operate(disk_op::unlink, path)) {
    return failed(error);
  }
  const bool is_done = here().home->disk.unlink(path);
  if (is_done) {
    sim_context.judge->file_removed(*here().home, path);
  }
  die_if_due(true);
  return is_done ? 0 : failed(ENOENT);
}

void disk_sync()
{
  operate(disk_op::sync, "");  // it has no way to tell of a failure
  here().home->disk.sync();
  die_if_due(true);
}

int file_stat(int fd, struct stat *status)
{
  *status = {};
  status->st_mode = S_IFREG | 0600;
  status->st_size = static_cast<off_t>(here().files.at(fd).file->bytes.size());
  return 0;
}

int file_allocate(int fd, off_t, off_t)
{
  return operate(disk_op::allocate, path_of(fd));  // the size is kept by the write that follows
}

int file_space(int, struct statvfs *space)
{
  *space = {};
  space->f_bavail = 1u << 20;
  space->f_frsize = 4096;
  return 0;
}

int directory_make(const char *path, mode_t)
{
  if (const int error = operate(disk_op::make_directory, path)) {
    return failed(error);
  }
  sim_disk &disk = here().home->disk;
  if (disk.has_directory(path)) {
    return failed(EEXIST);
  }
  disk.make_directory(path);
  return 0;
}

int directory_remove(const char *path)
{
  caught("rmdir");
  here().home->disk.remove_directory(path);
  return 0;
}

struct open_directory {
  std::vector<std::string> names;
  size_t at = 0;
  dirent entry{};
};

DIR *directory_open(const char *path)
{
  const int error = operate(disk_op::list, path);
  const sim_disk &disk = here().home->disk;
  if (error != 0 || !disk.has_directory(path)) {
    errno = error != 0 ? error : ENOENT;
    return nullptr;
  }
  return reinterpret_cast<DIR *>(new open_directory{.names = disk.list(path)});
}

dirent *directory_read(DIR *directory)
{
  auto &one = *reinterpret_cast<open_directory *>(directory);
  if (one.at == one.names.size()) {
    return nullptr;
  }
  std::strncpy(one.entry.d_name, one.names[one.at++].c_str(), sizeof one.entry.d_name - 1);
  return &one.entry;
}

int directory_close(DIR *directory)
{
  delete reinterpret_cast<open_directory *>(directory);
  return 0;
}

// --- The queue of signs of life

int queue_get(key_t, int)
{
  return 1;
}

int queue_send(int, const void *, size_t, int)
{
  caught("msgsnd");
  return 0;
}

// --- Memory. What the host gives to the library, such as a state, is not counted.

void *counted(void *block, size_t size)
{
  if (block != nullptr) {
    here().blocks[block] = size;
    here().block_bytes += size;
  }
  return block;
}

void forget(const void *block)
{
  const auto found = here().blocks.find(block);
  if (found != here().blocks.end()) {
    here().block_bytes -= found->second;
    here().blocks.erase(found);
  }
}

void *memory_allocate(size_t size)
{
  return counted(std::malloc(size), size);
}

void *memory_allocate_zeros(size_t count, size_t size)
{
  return counted(std::calloc(count, size), count * size);
}

void *memory_resize(void *block, size_t size)
{
  const size_t before = here().blocks.contains(block) ? here().blocks[block] : 0;
  forget(block);
  void *const now = std::realloc(block, size);
  return now == nullptr && before != 0 ? (counted(block, before), nullptr) : counted(now, size);
}

void memory_free(void *block)
{
  forget(block);
  std::free(block);
}

void *object_new(size_t size, const std::nothrow_t &)
{
  return memory_allocate(size);
}

void object_delete(void *object, size_t)
{
  memory_free(object);
}

template <typename function>
std::pair<const char *, void *> stands_for(const char *name, function instead)
{
  return {name, reinterpret_cast<void *>(instead)};
}

}  // namespace

redirections libc_calls()
{
  return {
      stands_for("pthread_mutex_lock", mutex_lock),
      stands_for("pthread_mutex_clocklock", mutex_clocklock),
      stands_for("pthread_mutex_unlock", mutex_unlock),
      stands_for("pthread_cond_wait", cond_wait),
      stands_for("pthread_cond_clockwait", cond_clockwait),
      stands_for("pthread_cond_signal", cond_signal),
      stands_for("pthread_cond_broadcast", cond_broadcast),
      stands_for("pthread_join", thread_join),
      stands_for("pthread_setname_np", thread_setname),
      stands_for("exit", process_exit),
      stands_for("clock_gettime", get_time),
      stands_for("gettimeofday", get_time_of_day),
      stands_for("time", get_seconds),
      stands_for("open", file_open),
      stands_for("open64", file_open),
      stands_for("close", file_close),
      stands_for("read", file_read),
      stands_for("write", file_write),
      stands_for("fdatasync", file_datasync),
      stands_for("rename", file_rename),
      stands_for("unlink", file_unlink),
      stands_for("sync", disk_sync),
      stands_for("fstat", file_stat),
      stands_for("posix_fallocate", file_allocate),
      stands_for("fstatvfs", file_space),
      stands_for("mkdir", directory_make),
      stands_for("rmdir", directory_remove),
      stands_for("opendir", directory_open),
      stands_for("readdir", directory_read),
      stands_for("closedir", directory_close),
      stands_for("malloc", memory_allocate),
      stands_for("calloc", memory_allocate_zeros),
      stands_for("realloc", memory_resize),
      stands_for("free", memory_free),
      stands_for("_ZnwmRKSt9nothrow_t", object_new),
      stands_for("_ZdlPvm", object_delete),
      stands_for("msgget", queue_get),
      stands_for("msgsnd", queue_send),
  };
}

}  // namespace sim
