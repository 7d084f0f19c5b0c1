"""Witnesses of what was published: when a record was handed over, when it reached the broker, and when the broker had a
gateway to give it to. None of it is the word of the gateway or of the Kel library."""

import bisect
import re
import struct
import threading
import time

import harness
import recorders
import traffic

DROPPED = "$SYS/broker/publish/messages/dropped"
BROKER_LOG = ("log_dest stderr\nlog_timestamp false\nlog_type error\nlog_type warning\nlog_type notice\nlog_type information\n"
              "log_type subscribe\nlog_type unsubscribe\nsys_interval 1\n")
EVERY = 0.05  # seconds from one look at the accounts to the next


def number_of_payload(payload):
    """The number of a record, from the source time that its payload begins with; None when it has none of ours."""
    if not payload or payload[0] != 0x08:
        return None
    value = shift = 0
    for byte in payload[1:11]:
        value |= (byte & 0x7F) << shift
        shift += 7
        if not byte & 0x80:
            return traffic.number_of_time(value)
    return None


class Arrivals(recorders.BrokerRecorder):
    """Every record of load/... that reached the broker, and how many messages the broker says it dropped."""

    def __init__(self, port):
        super().__init__(port, self.PREFIX + "load/#", DROPPED)
        self.reached = {}  # publication -> {number: moment of its first arrival}
        self.down = []     # (begin, end) of times without a link, end None: still
        self.dropped = 0
        self._counted = 0
        self._down_since = time.monotonic()

    def on_link(self, up):
        now = time.monotonic()
        if up and self._down_since is not None:
            self.down.append((self._down_since, now))
            self._down_since, self._counted = None, 0
        elif not up and self._down_since is None:
            self._down_since = now

    def away(self):
        """Stretches in which this witness could not look."""
        since = self._down_since
        return [*self.down, *([(since, float("inf"))] if since is not None else [])]

    def keep(self, at, retained, topic, payload):
        if topic == DROPPED:
            count = int(payload or b"0")
            self.dropped += max(count - self._counted, 0)  # one that begins anew has lost nothing by that
            self._counted = count
            return
        number = number_of_payload(payload)
        if number is not None:
            self.reached.setdefault(int(topic.rsplit("/", 1)[1]), {}).setdefault(number, at)


class Session:
    """One link of a client of the broker, in the broker's own words: which publications it was subscribed to since when."""

    def __init__(self, client, opened):
        self.client, self.opened, self.closed = client, opened, None
        self.topics = {}  # publication -> moment of its subscription
        self.dropped = False

    def since(self):
        """The moment of its first subscription; infinity without one."""
        return min(self.topics.values(), default=float("inf"))

    def had(self, publication, at):
        since = self.topics.get(publication)
        return since is not None and since <= at and (self.closed is None or at < self.closed)


CONNECTED = re.compile(r"New client connected from \S+ as (\S+) \(")
GONE = re.compile(r"Client (\S+?) (?:disconnected|closed its connection|has exceeded timeout|already connected)")
DROPS = re.compile(r"Outgoing messages are being dropped for client (\S+?)\.$")
RELOADED = "Reloading config."
TAKEN = re.compile(r"(\S+) [012] (\S+)$")


def sessions_of(lines, ended, prefix):
    """Sessions of the clients whose names begin with `prefix`. `lines` are (moment, line) of one run of the broker, which
    ended at `ended` or lives (None)."""
    found, now = [], {}
    data = f"kel/{harness.GROUP}/data/load/"
    for at, line in lines:
        match = CONNECTED.match(line)
        if match and match[1].startswith(prefix):
            if match[1] in now:
                now[match[1]].closed = at
            now[match[1]] = Session(match[1], at)
            found.append(now[match[1]])
            continue
        match = GONE.match(line)
        if match:
            session = now.pop(match[1], None)
            if session:
                session.closed = at
            continue
        match = DROPS.match(line)
        if match and match[1] in now:
            now[match[1]].dropped = True
            continue
        match = TAKEN.match(line)
        if match and match[1] in now and match[2].startswith(data):
            index = match[2][len(data):]
            if index.isdigit():
                now[match[1]].topics.setdefault(int(index), at)
            elif index in ("#", "+"):
                now[match[1]].topics = _Everything(at)
    for session in now.values():
        session.closed = ended
    return found


def without_rights(lines, orders, ended):
    """(begin, end) of times in which gateways had no right at this run of the broker. `orders` are what its files said (True:
    they have it) each time that it was told to read them anew; when it did so it says itself."""
    found, since = [], None
    for at, allowed in zip([at for at, line in lines if line.startswith(RELOADED)], orders):
        if not allowed and since is None:
            since = at
        elif allowed and since is not None:
            found.append((since, at))
            since = None
    return [*found, *([(since, float("inf") if ended is None else ended)] if since is not None else [])]


class _Everything(dict):
    """A subscription to all publications at once."""

    def __init__(self, at):
        super().__init__()
        self.at = at

    def values(self):
        return [self.at]

    def get(self, _, default=None):
        return self.at


class Handed:
    """When a publisher had handed over how much, as its account said from time to time."""

    def __init__(self):
        self.looks = {}  # life -> ([moment], [counts of all publications])

    def note(self, at, life, counts):
        moments, tables = self.looks.setdefault(life, ([], []))
        if not tables or tables[-1] != counts:
            moments.append(at)
            tables.append(counts)

    def by(self, life, publication, count):
        """A moment at which so many had surely been handed over; None when no look has seen it."""
        moments, tables = self.looks.get(life, ([], []))
        index = bisect.bisect_left(tables, count, key=lambda counts: counts[publication] if publication < len(counts) else 0)
        return moments[index] if index < len(moments) else None


class AccountWatcher(threading.Thread):
    """Looks at the publishers' accounts. `accounts` gives (life, path) of each."""

    def __init__(self, accounts):
        super().__init__(daemon=True)
        self.accounts = accounts
        self.handed = Handed()
        self.ended = threading.Event()
        self.start()

    def look(self):
        for life, path in self.accounts():
            try:
                with open(path, "rb") as file:
                    data = file.read()
            except OSError:
                continue
            if data:
                self.handed.note(time.monotonic(), life, struct.unpack(f"<{len(data) // 8}Q", data))

    def run(self):
        while not self.ended.wait(EVERY):
            self.look()

    def stop(self):
        self.ended.set()
        self.join(5)
