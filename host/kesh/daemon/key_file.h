/// The key file of messaging, as the daemon finds it.
#pragma once

#include <string>

namespace kesh
{

/// Unless the configuration names a key file: the default one, if it exists. So keys can be introduced while all run.
void name_default_keys();
/// Reads it anew. On failure returns false, `error` says why, and the former keys stay.
bool reload_keys(std::string &error);

}  // namespace kesh
