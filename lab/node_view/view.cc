#include "view.h"

#include "namespaces.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace node_view
{

namespace
{

namespace fs = std::filesystem;

// The new root is built here: /run is on every machine, and the view replaces it anyway, so nothing that the
// view shows is hidden by it, and nothing has to be made (or could be left behind) outside.
const std::string NEW_ROOT = "/run";

void mount_or_fail(const std::string &source, const std::string &target, const char *type, unsigned long flags,
                   const std::string &data)
{
  if (mount(source.c_str(), target.c_str(), type, flags, data.empty() ? nullptr : data.c_str()) != 0) {
    fail("mount " + source + " on " + target);
  }
}

/// A directory opened by path alone: a handle that survives what is mounted over the path.
class dir_handle
{
public:
  explicit dir_handle(const std::string &path)
  {
    if (path.empty()) {
      return;
    }
    fd_ = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) {
      fail("open directory " + path);
    }
  }
  dir_handle(const dir_handle &) = delete;
  dir_handle &operator=(const dir_handle &) = delete;
  ~dir_handle()
  {
    if (fd_ >= 0) {
      close(fd_);
    }
  }

  /// Binds the directory to `target`, or a tmpfs if there is none.
  void mount_at(const std::string &target) const
  {
    fs::create_directory(target);
    if (fd_ >= 0) {
      mount_or_fail("/proc/self/fd/" + std::to_string(fd_), target, nullptr, MS_BIND | MS_REC, "");
    } else {
      mount_or_fail("tmpfs", target, "tmpfs", 0, "mode=0755");
    }
  }

private:
  int fd_ = -1;
};

/// Shows one entry of the machine's root in the new root. What cannot be bound (it vanished, or is closed to the
/// caller) is left out: the view is for programs that need the usual directories, and those can be.
void show_entry(const fs::path &entry)
{
  std::string target = NEW_ROOT / entry.filename();
  std::error_code ignored;
  if (fs::is_symlink(entry)) {
    fs::copy_symlink(entry, target, ignored);
    return;
  }
  bool is_dir = fs::is_directory(entry, ignored);
  if (!is_dir && !fs::is_regular_file(entry, ignored)) {
    return;
  }
  if (is_dir) {
    fs::create_directory(target, ignored);
  } else {
    close(open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  }
  if (mount(entry.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    fs::remove(target, ignored);
  }
}

void show_machine()
{
  for (const fs::directory_entry &entry : fs::directory_iterator("/")) {
    fs::path name = entry.path().filename();
    if (name != "flashdisk" && name != "run") {
      show_entry(entry.path());
    }
  }
}

/// pivot_root, so that the old root can be let go; chroot where the root is of a kind that cannot be moved.
void change_root(const std::string &work_dir)
{
  if (chdir(NEW_ROOT.c_str()) != 0) {
    fail("chdir " + NEW_ROOT);
  }
  if (syscall(SYS_pivot_root, ".", ".") == 0) {
    // The old root now lies on top of the new one, at the same place.
    if (umount2(".", MNT_DETACH) != 0) {
      fail("let go of the old root");
    }
  } else if (chroot(".") != 0) {
    fail("change the root");
  }
  if (chdir(work_dir.c_str()) != 0 && chdir("/") != 0) {
    fail("chdir /");
  }
}

std::string current_dir()
{
  std::error_code error;
  fs::path path = fs::current_path(error);
  return error ? "/" : path.string();
}

void build_root(const view_options &options)
{
  // Nothing mounted from here on may reach the machine.
  mount_or_fail("none", "/", nullptr, MS_REC | MS_PRIVATE, "");
  std::string work_dir = current_dir();
  dir_handle flashdisk(options.flashdisk_dir), run(options.run_dir);
  mount_or_fail("tmpfs", NEW_ROOT, "tmpfs", 0, "mode=0755");
  show_machine();
  flashdisk.mount_at(NEW_ROOT + "/flashdisk");
  fs::create_directory(NEW_ROOT + "/flashdisk/cons");
  run.mount_at(NEW_ROOT + "/run");
  if (!fs::is_symlink(NEW_ROOT + "/var/run")) {
    mount_or_fail(NEW_ROOT + "/run", NEW_ROOT + "/var/run", nullptr, MS_BIND | MS_REC, "");
  }
  change_root(work_dir);
}

}  // namespace

void enter(const view_options &options)
{
  if (options.net_pid != 0) {
    join_namespaces(options.net_pid, CLONE_NEWNET | CLONE_NEWIPC);
  }
  unshare_namespaces(CLONE_NEWNS | (options.net_pid == 0 ? CLONE_NEWIPC : 0) | (options.net_new ? CLONE_NEWNET : 0));
  if (options.net_new) {
    bring_loopback_up();
  }
  try {
    build_root(options);
  } catch (const fs::filesystem_error &error) {
    throw view_error(error.what());
  }
}

void join(pid_t pid)
{
  std::string work_dir = current_dir();
  // Where the root was changed by chroot, the namespace alone does not bring us there.
  std::string root_path = "/proc/" + std::to_string(pid) + "/root";
  int root = open(root_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  int open_error = errno;
  join_namespaces(pid, CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWNET);
  if (root < 0) {
    root = open(root_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  errno = root < 0 ? open_error : 0;
  if (root < 0 || fchdir(root) != 0 || chroot(".") != 0) {
    fail("enter the root of process " + std::to_string(pid));
  }
  close(root);
  if (chdir(work_dir.c_str()) != 0 && chdir("/") != 0) {
    fail("chdir /");
  }
}

}  // namespace node_view
