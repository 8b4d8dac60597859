"""All faults by name, one file per group. A fault is a list of steps drawn from a seed."""

from . import disk, exact, host, leadership, lifecycle, network, process

GROUPS = (network, leadership, process, disk, host, lifecycle, exact)
FAULTS = {fault.name: fault for group in GROUPS for fault in group.FAULTS}


def names_of(arena, durable=False):
    return [name for name, fault in FAULTS.items() if arena in fault.arenas and (durable or not fault.is_durable)]
