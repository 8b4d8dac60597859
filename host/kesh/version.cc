#include "version.h"

#include <link.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include "vx_host.h"

namespace kesh
{

namespace
{

constexpr char LIBRARY_NOTE[] = "vx_cons";  // src/api/version_note.cc

constexpr size_t padded(size_t size)
{
  return (size + 3) & ~size_t{3};
}

/// The text of the library's note, or nothing, among those of one segment.
std::string_view note_among(std::span<const char> notes)
{
  ElfW(Nhdr) head;
  while (notes.size() >= sizeof head) {
    memcpy(&head, notes.data(), sizeof head);
    notes = notes.subspan(sizeof head);
    if (head.n_namesz > notes.size() || padded(head.n_namesz) > notes.size() ||
        head.n_descsz > notes.size() - padded(head.n_namesz)) {
      break;
    }
    const std::string_view text(notes.data() + padded(head.n_namesz), head.n_descsz);
    if (std::string_view(notes.data(), head.n_namesz) == std::string_view(LIBRARY_NOTE, sizeof LIBRARY_NOTE)) {
      return text.substr(0, text.find('\0'));
    }
    notes = notes.subspan(std::min(padded(head.n_namesz) + padded(head.n_descsz), notes.size()));
  }
  return {};
}

int look_into(dl_phdr_info *object, size_t, void *version)
{
  for (ElfW(Half) i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr) &segment = object->dlpi_phdr[i];
    // Notes of wider alignment are of other kinds.
    if (segment.p_type == PT_NOTE && segment.p_align <= 4) {
      // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader tells addresses as numbers
      const auto *begin = reinterpret_cast<const char *>(object->dlpi_addr + segment.p_vaddr);
      const std::string_view found = note_among({begin, segment.p_memsz});
      if (!found.empty()) {
        *static_cast<std::string *>(version) = found;
        return 1;
      }
    }
  }
  return 0;
}

}  // namespace

std::string version_text()
{
  std::string library = "of an unknown version";
  dl_iterate_phdr(look_into, &library);
  return "kesh " VX_VERSION ", build " + std::to_string(vx_firmware_dova_build_nr) + ", libvx_cons " + library;
}

}  // namespace kesh
