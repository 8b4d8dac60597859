/// What clients ask the daemon on its control socket, but for `submit`.
#pragma once

#include "control/operations.h"
#include "daemon/service.h"

namespace kesh
{

/// `host` must outlive the server that uses the table.
operation_table daemon_operations(service &host);

}  // namespace kesh
