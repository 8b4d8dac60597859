/// What people read about the configuration keys, made of their table.
#pragma once

#include <string>

namespace kesh
{

/// The example file, kesh.conf.example.
std::string config_example();

/// The keys for the manual page kesh.conf(5), in mdoc.
std::string config_manual();

}  // namespace kesh
