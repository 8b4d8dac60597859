"""The cluster laboratory. Programs begin with `cluster.Cluster`, people with `cli.main`."""
