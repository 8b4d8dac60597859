"""Machines for tests: what an operator types runs in them as it stands."""

from .load import Load, longest_gap
from .packages import install_tree, raise_build_number
from .site import Machine, Site, enter_own_namespaces

__all__ = ["Load", "Machine", "Site", "enter_own_namespaces", "install_tree", "longest_gap", "raise_build_number"]
