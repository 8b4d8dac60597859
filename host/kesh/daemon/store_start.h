/// Brings the store up, and makes it and the library's records agree before the library starts.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "settings.h"
#include "store/store.h"

namespace kesh
{

/// Opens the store. One that is missing or damaged is replaced by an empty one; what was there is put aside, and the
/// new one waits for a state if this node has a past. EXIT_OK, else `error` says why: EXIT_CONFIG if only an
/// operator can mend it, so that no supervisor starts the daemon again and again; EXIT_STORE if the disk fails. Counts
/// what was put aside.
int store_bring_up(store &lines, const settings &configured, std::atomic<uint64_t> &put_aside, std::string &error);

/// To be called before each start of the library, while it does not run: what will be delivered next has to be what the
/// store expects. If they do not fit, the store is marked incomplete and the library begins with its log's state.
/// `is_reformed`: an empty log begins a new generation of the cluster, and fits any store. `rejoins` says why then,
/// else it is empty. EXIT_OK, else `error` says why: EXIT_CONFIG if the record of the decision cannot be read, so
/// that nothing can be compared; EXIT_STORE if a file cannot be written.
int store_make_fit(store &lines, bool is_reformed, std::string &rejoins, std::string &error);

}  // namespace kesh
