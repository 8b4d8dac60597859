"""Runs tshark with the dissector over a capture."""

import json
import os
import subprocess
from collections import defaultdict

DISSECTOR = os.path.join(os.environ["VX_LAB_DIR"], "wireshark", "vx_cons.lua")
ALWAYS = ("frame.protocols", "_ws.col.Info", "_ws.expert.message", "vx.fault", "vx.rest")


class DissectorFailed(Exception):
    pass


def dissect(capture, *fields, options=()):
    """Returns a dictionary per frame: field -> list of its values as text. Raises DissectorFailed if the dissector
    itself fails, whatever the frames are."""
    wanted = [word for field in (*ALWAYS, *fields) for word in ("-e", field)]
    command = ["tshark", "-n", "-X", f"lua_script:{DISSECTOR}", "-r", capture, "-T", "json", *wanted, *options]
    result = subprocess.run(command, capture_output=True, text=True, check=True)
    frames = [defaultdict(list, packet["_source"].get("layers", {})) for packet in json.loads(result.stdout)]
    told = result.stderr.splitlines() + [text for frame in frames for text in frame["_ws.expert.message"]]
    errors = [text for text in told if "Lua" in text or "Dissector bug" in text]
    if errors:
        raise DissectorFailed("\n".join(errors))
    return frames


def info_of(frame):
    return frame["_ws.col.Info"][0]
