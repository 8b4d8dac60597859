"""A cluster of one node; and the sign of life that it gives keepalived every second."""

import json
import time
import unittest

from scenario import Scenario

# Takes what is in the queue, then waits for one message more.
RECEIVE = """
import ctypes, json, struct
libc = ctypes.CDLL(None, use_errno=True)
queue = libc.msgget(0x64387148, 0)
IPC_NOWAIT = 0o4000
buffer = ctypes.create_string_buffer(64)
while libc.msgrcv(queue, buffer, 56, 0, IPC_NOWAIT) >= 0:
    pass
size = libc.msgrcv(queue, buffer, 56, 0, 0)
print(json.dumps({"size": size, "type": struct.unpack_from("l", buffer)[0],
                  "words": struct.unpack_from("II", buffer, 8)}))
"""


class Liveness(Scenario):
    nodes = 1

    def test_sign_of_life_and_a_cluster_of_one(self):
        self.submit(1, 300, window=1).wait()
        self.check_all()
        for _ in range(2):
            message = json.loads(self.cluster.node(1).run_inside(["python3", "-c", RECEIVE], timeout_s=10.0))
            self.assertEqual((message["size"], message["type"]), (8, 1))
            self.assertIn(self.cluster.status(1)["build"], message["words"])
            self.assertTrue(any(abs(word - time.time()) < 5 for word in message["words"]), message)


if __name__ == "__main__":
    unittest.main()
