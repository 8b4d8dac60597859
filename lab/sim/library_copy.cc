#include "library_copy.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

// What the loader calls for each access to thread-local storage.
struct tls_index {
  size_t ti_module;
  size_t ti_offset;
};
extern "C" void *__tls_get_addr(tls_index *at);

namespace sim
{

namespace
{

bool write_all(int fd, const std::vector<char> &bytes)
{
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
    if (written <= 0) {
      return false;
    }
    done += static_cast<size_t>(written);
  }
  return true;
}

// A name that the loader has not seen yet: else it would return the copy that it has.
std::string copy_of(const library_image &image, const std::string &directory, std::string &error)
{
  static int number = 0;
  const std::string name = "vx_cons." + std::to_string(++number) + ".so";
  const int fd = directory.empty() ? memfd_create(name.c_str(), 0)
                                   : open((directory + "/" + name).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0700);
  if (fd < 0 || !write_all(fd, image.bytes())) {
    error = "cannot copy the library: " + std::string(std::strerror(errno));
    return "";
  }
  return directory.empty() ? "/proc/self/fd/" + std::to_string(fd) : directory + "/" + name;
}

struct tables {
  const ElfW(Sym) *symbols = nullptr;
  const char *strings = nullptr;
  const ElfW(Rela) * relocations[2] = {};
  size_t counts[2] = {};
};

tables tables_of(const link_map &map)
{
  tables found;
  for (const ElfW(Dyn) *entry = map.l_ld; entry->d_tag != DT_NULL; ++entry) {
    switch (entry->d_tag) {
    case DT_SYMTAB:
      found.symbols = reinterpret_cast<const ElfW(Sym) *>(entry->d_un.d_ptr);
      break;
    case DT_STRTAB:
      found.strings = reinterpret_cast<const char *>(entry->d_un.d_ptr);
      break;
    case DT_JMPREL:
      found.relocations[0] = reinterpret_cast<const ElfW(Rela) *>(entry->d_un.d_ptr);
      break;
    case DT_PLTRELSZ:
      found.counts[0] = entry->d_un.d_val / sizeof(ElfW(Rela));
      break;
    case DT_RELA:
      found.relocations[1] = reinterpret_cast<const ElfW(Rela) *>(entry->d_un.d_ptr);
      break;
    case DT_RELASZ:
      found.counts[1] = entry->d_un.d_val / sizeof(ElfW(Rela));
      break;
    default:
      break;
    }
  }
  return found;
}

void set_address(uintptr_t at, void *to)
{
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  void *const begin = reinterpret_cast<void *>(at & ~(page - 1));
  mprotect(begin, page, PROT_READ | PROT_WRITE);
  *reinterpret_cast<void **>(at) = to;
}

void redirect(const link_map &map, const redirections &redirected)
{
  const tables all = tables_of(map);
  for (int table = 0; table < 2; ++table) {
    for (size_t i = 0; i < all.counts[table]; ++i) {
      const ElfW(Rela) &one = all.relocations[table][i];
      const auto type = ELF64_R_TYPE(one.r_info);
      if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT && type != R_X86_64_64) {
        continue;
      }
      const char *const name = all.strings + all.symbols[ELF64_R_SYM(one.r_info)].st_name;
      for (const auto &[caught, instead] : redirected) {
        if (std::strcmp(caught, name) == 0) {
          set_address(map.l_addr + one.r_offset, instead);
        }
      }
    }
  }
}

// Asked for by its address it is there, even if this thread has not used it before.
std::span<uint8_t> storage_of(void *handle, const link_map &map)
{
  tls_index at{};
  if (dlinfo(handle, RTLD_DI_TLS_MODID, &at.ti_module) != 0 || at.ti_module == 0) {
    return {};
  }
  const auto *const head = reinterpret_cast<const ElfW(Ehdr) *>(map.l_addr);
  const auto *const parts = reinterpret_cast<const ElfW(Phdr) *>(map.l_addr + head->e_phoff);
  for (size_t i = 0; i < head->e_phnum; ++i) {
    if (parts[i].p_type == PT_TLS) {
      return {static_cast<uint8_t *>(__tls_get_addr(&at)), parts[i].p_memsz};
    }
  }
  return {};
}

template <typename function>
bool find(void *handle, const char *name, function &to, std::string &error)
{
  to = reinterpret_cast<function>(dlsym(handle, name));
  if (to == nullptr) {
    error = std::string("the library has no ") + name;
  }
  return to != nullptr;
}

}  // namespace

bool library_image::read(const std::string &path, std::string &error)
{
  std::ifstream file(path, std::ios::binary);
  bytes_.assign(std::istreambuf_iterator<char>(file), {});
  if (!file || bytes_.empty()) {
    error = "cannot read the library " + path;
    return false;
  }
  return true;
}

bool library_copy::load(const library_image &image, const std::string &directory, const redirections &redirected,
                        std::string &error)
{
  const std::string path = copy_of(image, directory, error);
  if (path.empty()) {
    return false;
  }
  void *const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  link_map *map = nullptr;
  if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) {
    error = "cannot load the library: " + std::string(dlerror());
    return false;
  }
  redirect(*map, redirected);
  storage = storage_of(handle, *map);
  return find(handle, "vx_cons_init", init, error) && find(handle, "vx_cons_cleanup", cleanup, error) &&
         find(handle, "vx_cons_start", start, error) && find(handle, "vx_cons_stop", stop, error) &&
         find(handle, "vx_cons_configure", configure, error) &&
         find(handle, "vx_cons_register_data_hooks", register_data_hooks, error) &&
         find(handle, "vx_cons_register_clmsg_hook", register_clmsg_hook, error) &&
         find(handle, "vx_cons_distribute", distribute, error) &&
         find(handle, "vx_cons_bcast_clmsg", bcast_clmsg, error) &&
         find(handle, "vx_cons_cluster_active", cluster_active, error);
}

}  // namespace sim
