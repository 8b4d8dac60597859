#include "wire_log.h"

#include "clock.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <system_error>

namespace fabric
{
namespace
{
constexpr int64_t FLUSH_NS = 100 * MS_NS;
constexpr int64_t SENT_LINE_NS = 10 * MS_NS;
}  // namespace

wire_log::~wire_log()
{
  if (file_ != nullptr) {
    fclose(file_);
  }
}

void wire_log::open(const std::string &path)
{
  file_ = fopen(path.c_str(), "ae");
  if (file_ == nullptr) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

void wire_log::sent(uint32_t from, const datagram_info &info)
{
  if (file_ == nullptr || (info.channel != 4 && info.channel != 5)) {
    return;
  }
  const int64_t now = now_ns();
  int64_t &last = sent_line_ns_[from][info.channel];
  if (last == 0 || now - last >= SENT_LINE_NS) {
    last = now;
    fprintf(file_, "%" PRId64 " %" PRIu32 " send%" PRIu32 "\n", now, from, info.channel);
    written();
  }
}

void wire_log::decided(uint32_t from, const decide_view &what, decide_kind kind)
{
  if (file_ == nullptr) {
    return;
  }
  const char *const kinds[] = {"once", "repeat", "update"};
  const auto crc = static_cast<uint32_t>(crc32(0, what.log.data(), static_cast<uInt>(what.log.size())));
  fprintf(file_, "%" PRId64 " %" PRIu32 " decide %" PRIu32 " %" PRIu32 " %" PRIu32 " %" PRIu32 ".%" PRIu32 " %s\n",
          now_ns(), from, what.number, what.count, crc, what.first_sender, what.first_id,
          kinds[static_cast<size_t>(kind)]);
  written();
}

void wire_log::end(const std::string &stats)
{
  if (file_ != nullptr) {
    fprintf(file_, "%" PRId64 " stats %s\n", now_ns(), stats.c_str());
    fflush(file_);
  }
}

void wire_log::written()
{
  flush_due_ns_ = std::min(flush_due_ns_, now_ns() + FLUSH_NS);
}

int64_t wire_log::next_due_ns() const
{
  return flush_due_ns_;
}

void wire_log::advance(int64_t now)
{
  if (now >= flush_due_ns_) {
    fflush(file_);
    flush_due_ns_ = NEVER_NS;
  }
}

}  // namespace fabric
