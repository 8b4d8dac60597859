#include "client/keygen.h"

#include <cstdio>

#include "exit_codes.h"
#include "seal/seal_keys.h"

namespace kesh
{

int keygen_command()
{
  const std::string key = platform::seal_key_generate();
  if (key.empty()) {
    fprintf(stderr, "kesh keygen: the kernel gives no random bytes\n");
    return EXIT_RUNTIME;
  }
  printf("%s\n", key.c_str());
  return fflush(stdout) == 0 ? EXIT_OK : EXIT_RUNTIME;
}

}  // namespace kesh
