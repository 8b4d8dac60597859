// Writes what is made of the table of configuration keys; the build runs it.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "config/describe.h"

namespace
{

int fail(const char *path, const char *why)
{
  fprintf(stderr, "vx-kesh-conf: %s: %s\n", path, why);
  return 1;
}

/// Replaces the line "@KEYS@" of the page by the keys.
int write_manual(const char *page_path, const char *output_path)
{
  constexpr std::string_view MARK = "@KEYS@\n";
  std::ifstream page(page_path);
  std::string text{std::istreambuf_iterator<char>(page), {}};
  const size_t at = text.find(MARK);
  if (at == std::string::npos) {
    return fail(page_path, "no line @KEYS@");
  }
  text.replace(at, MARK.size(), kesh::config_manual());
  std::ofstream output(output_path, std::ios::trunc);
  output << text << std::flush;
  return output ? 0 : fail(output_path, "cannot be written");
}

}  // namespace

int main(int argc, char **argv)
{
  if (argc == 2 && strcmp(argv[1], "example") == 0) {
    return fputs(kesh::config_example().c_str(), stdout) < 0 || fflush(stdout) != 0 ? 1 : 0;
  }
  if (argc == 4 && strcmp(argv[1], "manual") == 0) {
    return write_manual(argv[2], argv[3]);
  }
  fprintf(stderr, "usage: vx-kesh-conf example | vx-kesh-conf manual PAGE OUTPUT\n");
  return 2;
}
