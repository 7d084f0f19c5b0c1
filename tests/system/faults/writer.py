"""Changes elements at a steady rate, through the store's own function and nothing of the gateway's code.

usage: writer.py SOCKET ACCOUNT LIFE PUBLICATIONS PER_SECOND
Write n of publication i sets O<i>.x and O<i>.y to LIFE * 100,000,000 + n in one call. What the store did not answer is
sent again under the same number, so nothing is applied twice. ACCOUNT is a file of 64-bit numbers, mapped into memory:
for each publication the newest number that the store has confirmed. Standard input: "stop" and "go"; its end ends it.
"""

import mmap
import os
import struct
import sys
import threading
import time

import resp

LIFE_NUMBERS = 100_000_000
START_MS = 1_700_000_000_000


class Writer:
    def __init__(self, path, account, life, publications, rate):
        self.path, self.life, self.publications, self.rate = path, life, publications, rate
        self.identity = f"harness.{os.getpid()}.{life}"
        self.number = 0
        self.link = None
        self.sending = True
        with open(account, "wb+") as file:
            file.truncate(8 * publications)
            self.account = mmap.mmap(file.fileno(), 8 * publications)

    def obey(self):
        for line in sys.stdin:
            self.sending = line.strip() == "go"
        os._exit(0)

    def write(self, publication, value):
        """Until the store has answered."""
        self.number += 1
        while True:
            try:
                if self.link is None:
                    self.link = resp.Link(self.path)
                self.link.command("FCALL", "dp_set", 0, self.identity, "", self.number, 0, START_MS + value, "",
                                  f"O{publication}.x", f"i0v{value}", f"O{publication}.y", f"i0v{value}")
                return
            except (OSError, resp.Refused):
                if self.link:
                    self.link.close()
                self.link = None
                time.sleep(0.05)

    def run(self):
        threading.Thread(target=self.obey, daemon=True).start()
        counts = [0] * self.publications
        due = time.monotonic()
        turn = 0
        while True:
            due = max(due + 1 / self.rate, time.monotonic() - 0.05)
            time.sleep(max(0.0, due - time.monotonic()))
            if not self.sending:
                continue
            publication = turn % self.publications
            turn += 1
            counts[publication] += 1
            value = self.life * LIFE_NUMBERS + counts[publication]
            self.write(publication, value)
            struct.pack_into("<Q", self.account, 8 * publication, value)


if __name__ == "__main__":
    if len(sys.argv) != 6:
        sys.exit("usage: writer.py SOCKET ACCOUNT LIFE PUBLICATIONS PER_SECOND")
    Writer(sys.argv[1], sys.argv[2], *map(int, sys.argv[3:])).run()
