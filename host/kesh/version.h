/// Which program this is.
#pragma once

#include <string>

namespace kesh
{

/// "kesh VERSION, build NUMBER, libvx_cons VERSION": nodes of another build number are not heard, and the library is
/// the one that this process has loaded.
std::string version_text();

}  // namespace kesh
