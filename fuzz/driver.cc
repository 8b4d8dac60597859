// What all targets share: the entry of the fuzzer or, in an ordinary build, a main that replays the files of a
// directory.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz_target.h"

void FUZZ_TARGET(std::span<const uint8_t> input);

// Saves go to a private file system in memory; the machine's disks keep out of it.
extern "C" void sync() noexcept {}

void require(bool holds, const char *what)
{
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

std::vector<uint8_t> input_reader::bytes(size_t count)
{
  const auto taken = left_.first(std::min(count, left_.size()));
  left_ = left_.subspan(taken.size());
  return {taken.begin(), taken.end()};
}

uint8_t input_reader::byte()
{
  const std::vector<uint8_t> one = bytes(1);
  return one.empty() ? uint8_t{0} : one[0];
}

uint32_t input_reader::near(uint32_t around)
{
  constexpr uint32_t LIMITS[] = {0, 1, 16, 250, 1400, 0x7fffffff, 0x80000000, UINT32_MAX};
  const uint8_t choice = byte();
  return choice < 240 ? around + choice % 16 - 4 : LIMITS[choice % 8];
}

#ifdef VX_FUZZ
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  FUZZ_TARGET({data, size});
  return 0;
}
#else
int main(int, char **argv)
{
  for (const auto &item : std::filesystem::directory_iterator(argv[1])) {
    std::fprintf(stderr, "%s\n", item.path().c_str());
    std::ifstream file(item.path(), std::ios::binary);
    const std::vector<uint8_t> input{std::istreambuf_iterator<char>(file), {}};
    FUZZ_TARGET(input);
  }
}
#endif
