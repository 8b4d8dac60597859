/// What the library calls: deliveries and states of data type 0 for the store, cluster messages for the list. Types 1
/// to 3 have no states; all four calls of a full state are one change.
///
/// Hooks run on threads with 64 KiB of stack, with locks of the library held. So they are short, keep large objects on
/// the heap, let no exception escape and never call the library.
#pragma once

namespace kesh
{

class service;

/// Registers the hooks, after vx_cons_init. The service must live until vx_cons_cleanup has returned.
void hooks_register(service &host);

}  // namespace kesh
