"""Changes elements at a steady rate, through the store's own function and nothing of the gateway's code.

usage: writer.py SOCKET ACCOUNT LIFE PUBLICATIONS PER_SECOND
Write n of publication i sets the elements of O<i> to what traffic.py says of LIFE * 100,000,000 + n, in one call; behind
the PUBLICATIONS that are busy come those that are not. What the store did not answer is sent again under the same number, so
nothing is applied twice. ACCOUNT is a file of 64-bit numbers, mapped into memory: for each publication the newest number
that the store has confirmed. Standard input: "stop", "go", and "hush" for the end of what falls silent in a fault; its end
ends it.
"""

import mmap
import os
import struct
import sys
import threading
import time

import resp
import traffic

# kind -> seconds from one write to the next; what is written once is written in the first life
PAUSES = {"hushed": 0.05, "typed": 0.2, "large": 3.0}
AFTER_THE_HUSH = 5


class Writer:
    def __init__(self, path, account, life, publications, rate):
        self.path, self.life, self.publications, self.rate = path, life, publications, rate
        self.identity = f"harness.{os.getpid()}.{life}"
        self.number = 0
        self.link = None
        self.sending, self.hushed = True, False
        self.kinds = traffic.out_kinds(publications)
        self.counts = [0] * len(self.kinds)
        with open(account, "wb+") as file:
            file.truncate(8 * len(self.kinds))
            self.account = mmap.mmap(file.fileno(), 8 * len(self.kinds))

    def obey(self):
        for line in sys.stdin:
            if line.strip() == "hush":
                self.hushed = True
            else:
                self.sending = line.strip() == "go"
        os._exit(0)

    def write(self, publication):
        """The publication's next number; until the store has answered."""
        self.number += 1
        self.counts[publication] += 1
        value = self.life * traffic.LIFE_NUMBERS + self.counts[publication]
        words = []
        for tag, text in traffic.out_texts(self.kinds[publication], value).items():
            words += [f"O{publication}.{tag}", "i0v" + text]
        while True:
            try:
                if self.link is None:
                    self.link = resp.Link(self.path)
                self.link.command("FCALL", "dp_set", 0, self.identity, "", self.number, 0, traffic.START_MS + value, "", *words)
                break
            except (OSError, resp.Refused):
                if self.link:
                    self.link.close()
                self.link = None
                time.sleep(0.05)
        struct.pack_into("<Q", self.account, 8 * publication, value)

    def write_quiet(self, due, left):
        now = time.monotonic()
        for publication in range(self.publications, len(self.kinds)):
            kind = self.kinds[publication]
            if kind == "hushed" and self.hushed and publication not in left:
                left[publication] = AFTER_THE_HUSH
            if now < due.get(publication, 0) or left.get(publication, 1) == 0:
                continue
            if publication in left:
                left[publication] -= 1
            due[publication] = now + PAUSES.get(kind, 0)
            self.write(publication)

    def run(self):
        threading.Thread(target=self.obey, daemon=True).start()
        once = [publication for publication, kind in enumerate(self.kinds) if kind == "once"]
        quiet_due, left = {}, dict.fromkeys(once, 1 if self.life == 1 else 0)
        due = time.monotonic()
        turn = 0
        while True:
            due = max(due + 1 / self.rate, time.monotonic() - 0.05)
            time.sleep(max(0.0, due - time.monotonic()))
            if not self.sending:
                continue
            self.write(turn % self.publications)
            self.write_quiet(quiet_due, left)
            turn += 1


if __name__ == "__main__":
    if len(sys.argv) != 6:
        sys.exit("usage: writer.py SOCKET ACCOUNT LIFE PUBLICATIONS PER_SECOND")
    Writer(sys.argv[1], sys.argv[2], *map(int, sys.argv[3:])).run()
