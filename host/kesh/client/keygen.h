/// `kesh keygen`: a key for the key file (seal/seal_keys.h).
#pragma once

namespace kesh
{

/// Prints 64 hexadecimal digits. Returns an exit code.
int keygen_command();

}  // namespace kesh
