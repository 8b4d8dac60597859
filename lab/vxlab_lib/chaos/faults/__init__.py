"""All faults by name, one file per group. A fault is a list of steps drawn from a seed."""

from . import disk, host, leadership, lifecycle, network, process

GROUPS = (network, leadership, process, disk, host, lifecycle)
FAULTS = {fault.name: fault for group in GROUPS for fault in group.FAULTS}
