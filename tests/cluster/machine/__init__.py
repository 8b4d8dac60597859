"""Machines for tests: what an operator types runs in them as it stands."""

from .site import Machine, Site, enter_own_namespaces

__all__ = ["Machine", "Site", "enter_own_namespaces"]
