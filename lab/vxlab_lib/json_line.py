"""Requests and answers of one line of JSON each, over a Unix socket."""

import json
import os
import socket
from contextlib import contextmanager

from .rundir import short_path


@contextmanager
def connect(directory, name, timeout_s):
    """Gives (socket, stream to read) of a connection to the socket `name` in `directory`. Raises OSError."""
    path, fd = short_path(directory, name)
    try:
        with socket.socket(socket.AF_UNIX) as sock:
            sock.settimeout(timeout_s)
            sock.connect(path)
            with sock.makefile("rb") as stream:
                yield sock, stream
    finally:
        os.close(fd)


def ask(connection, request):
    """Sends the request (text goes as it is). Returns the answer, or None if the other side went away."""
    sock, stream = connection
    text = request if isinstance(request, str) else json.dumps(request)
    sock.sendall(text.encode() + b"\n")
    answer = stream.readline()
    return json.loads(answer) if answer else None
