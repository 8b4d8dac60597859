"""The cluster laboratory: `cluster.Cluster` is the way in for programs, `cli.main` for people."""
