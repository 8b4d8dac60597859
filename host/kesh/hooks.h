/// What the library calls: deliveries and states of data type 0 for the journal, cluster messages for the list.
///
/// Hooks run on threads with 64 KiB of stack and with locks of the library held. So they are short, keep large
/// things on the heap, let no exception out and never call the library.
#pragma once

namespace kesh
{

class heard;
class journal;

/// Registers the hooks, after vx_cons_init. Both objects must live until vx_cons_cleanup has returned.
void hooks_register(journal &lines, heard &messages);

}  // namespace kesh
