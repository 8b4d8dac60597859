"""Seeded faults on a whole cluster, after which all promises are checked: `vxlab chaos --help`."""
