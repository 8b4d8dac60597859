"""Seeded faults on a whole cluster, all promises checked afterwards: `vxlab chaos --help`."""
