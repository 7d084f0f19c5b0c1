"""Witnesses: what was written into the store, what went over the broker, what a subscriber of the Kel library was told.
Each notes what comes with the moment of its arrival (time.monotonic()) and judges nothing."""

import json
import socket
import struct
import threading
import time

import harness
import resp
from witness import codec


class Write:
    """One entry of the store's log that changes elements."""
    __slots__ = ("at", "sequence", "time_ms", "writer", "elements")

    def __init__(self, at, sequence, time_ms, writer, elements):
        self.at, self.sequence, self.time_ms, self.writer, self.elements = at, sequence, time_ms, writer, elements

    def __repr__(self):
        return f"write {self.sequence} by {self.writer}: {self.elements}"


def log_entry(at, identity, fields):
    """The Write of a log entry, or None for one of the catalogue."""
    if fields[0] not in (b"s", b"S"):
        return None
    time_ms, writer = fields[1].decode().split(" ", 1)
    if fields[0] == b"S":  # a large one has the letters only
        elements = {name.decode(): dict.fromkeys(letters.decode())
                    for letters, name in (line.split(b" ", 1) for line in fields[3].split(b"\n"))}
    else:
        elements = {name.decode(): attributes_of(text) for name, text in zip(fields[2::2], fields[3::2])}
    return Write(at, int(identity.split(b"-")[0]), int(time_ms), writer, elements)


def attributes_of(text):
    """({letter: flag or value text}) of one element's text in the log."""
    found, position = {}, 0
    while position < len(text):
        letter = chr(text[position])
        if letter == "v":
            found["v"] = text[position + 1:].decode("utf-8", "backslashreplace")
            break
        found[letter] = chr(text[position + 1])
        position += 2
    return found


class LogWatcher(threading.Thread):
    """Follows the store's log from its beginning, across restarts. What a restarted store no longer knows is taken out of
    the record and counted."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.path = path
        self.raw = []  # (arrival, id, fields), parsed on demand
        self.forgotten = []  # writes that a store has confirmed and the one in its place does not know
        self.ended = threading.Event()
        self._lock = threading.Lock()  # of what is parsed: what a store has lost is taken out while others read
        self._parsed = []
        self._taken = 0

    def run(self):
        last, link = b"0-0", None
        while not self.ended.is_set():
            try:
                if link is None:
                    link = resp.Link(self.path, 3.0)
                    last = self._forget(link, last)
                reply = link.command("XREAD", "COUNT", "2000", "BLOCK", "100", "STREAMS", "dp:log", last)
            except (OSError, resp.Refused):
                if link:
                    link.close()
                link = None
                self.ended.wait(0.02)
                continue
            if not reply:
                continue
            at = time.monotonic()
            for identity, fields in reply[0][1]:
                self.raw.append((at, identity, fields))
            last = reply[0][1][-1][0]
            # A little at a time, so that watching costs less than what is watched.
            self.ended.wait(0.01)
        if link:
            link.close()

    def _forget(self, link, last):
        """Takes out what the store does not have, or has otherwise: what was lost may have been followed by something else
        under the same numbers before anybody looks. The id of the last entry that both have."""
        while self.raw and not self._has(link, self.raw[-1]):
            with self._lock:
                gone = log_entry(*self.raw.pop())
                if gone:
                    self.forgotten.append(gone)
                self._parsed, self._taken = [], 0
        return self.raw[-1][1] if self.raw else b"0-0"

    @staticmethod
    def _has(link, entry):
        _, identity, fields = entry
        return link.command("XRANGE", "dp:log", identity, identity) == [[identity, fields]]

    def writes(self):
        """Every write so far, in order."""
        with self._lock:
            while self._taken < len(self.raw):
                entry = log_entry(*self.raw[self._taken])
                self._taken += 1
                if entry:
                    self._parsed.append(entry)
            return self._parsed

    def stop(self):
        self.ended.set()
        self.join(5)


class Message:
    """One record of a publication as it went over the broker."""
    __slots__ = ("at", "retained", "publication", "incarnation", "sequence", "quality", "fields", "time_ns")

    def __init__(self, at, retained, publication, incarnation, sequence, quality, fields, time_ns):
        self.at, self.retained, self.publication, self.incarnation = at, retained, publication, incarnation
        self.sequence, self.quality, self.fields, self.time_ns = sequence, quality, fields, time_ns


class BrokerRecorder(threading.Thread):
    """Reads the gateway's publications as an MQTT 3.1.1 client of our own: it is back within a blink after the broker is,
    and shares nothing with the library under test. The decoder is the witness's."""

    PREFIX = f"kel/{harness.GROUP}/data/"

    def __init__(self, port, *patterns):
        super().__init__(daemon=True)
        self.port, self.patterns = port, patterns or (self.PREFIX + "out/#",)
        self.raw = []  # (arrival, retained, topic, payload)
        self.subscribed = threading.Event()
        self.ended = threading.Event()
        self._parsed = []
        self._taken = 0

    def run(self):
        while not self.ended.is_set():
            try:
                self._follow()
            except (OSError, ValueError):
                self.on_link(False)
                self.ended.wait(0.03)

    def on_link(self, up):
        """Called when the broker has taken the subscription, and when the link is lost."""

    def keep(self, at, retained, topic, payload):
        self.raw.append((at, retained, topic, payload))

    def _follow(self):
        with socket.create_connection(("127.0.0.1", self.port), 2) as link:
            link.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            name = f"recorder-{time.monotonic_ns()}".encode()
            body = b"\0\4MQTT\4\2\0\0" + struct.pack(">H", len(name)) + name
            link.sendall(bytes([0x10, len(body)]) + body)
            body = b"\0\1" + b"".join(struct.pack(">H", len(topic)) + topic + b"\1"
                                      for topic in (pattern.encode() for pattern in self.patterns))
            link.sendall(bytes([0x82, len(body)]) + body)
            link.settimeout(0.3)
            data = b""
            while not self.ended.is_set():
                try:
                    more = link.recv(65536)
                except socket.timeout:
                    continue
                if not more:
                    raise OSError("closed")
                data = self._take(link, data + more, time.monotonic())

    def _take(self, link, data, at):
        acknowledged = bytearray()
        try:
            return self._packets(data, at, acknowledged)
        finally:
            if acknowledged:
                link.sendall(acknowledged)

    def _packets(self, data, at, acknowledged):
        """What is left of `data` behind the whole packets."""
        position = 0
        while True:
            length, shift, index = 0, 0, position + 1
            while index < len(data):
                length |= (data[index] & 0x7F) << shift
                shift += 7
                index += 1
                if not data[index - 1] & 0x80:
                    break
            else:
                return data[position:]
            if len(data) < index + length:
                return data[position:]
            kind, body = data[position], data[index:index + length]
            position = index + length
            if kind >> 4 == 3:
                self._publish(kind, body, at, acknowledged)
            elif kind >> 4 == 9:
                self.on_link(True)
                self.subscribed.set()

    def _publish(self, kind, body, at, acknowledged):
        (size,) = struct.unpack_from(">H", body)
        topic, rest = body[2:2 + size].decode(), body[2 + size:]
        if kind & 0x06:
            acknowledged += b"\x40\x02" + rest[:2]
            rest = rest[2:]
        self.keep(at, bool(kind & 1), topic, rest)

    def messages(self):
        """Every record so far, in order; an empty one (closed) has no fields and quality None."""
        while self._taken < len(self.raw):
            at, retained, topic, payload = self.raw[self._taken]
            self._taken += 1
            publication = topic[len(self.PREFIX):]
            if not payload:
                self._parsed.append(Message(at, retained, publication, None, None, None, {}, None))
                continue
            record = codec.Record(payload)
            incarnation = (record.publisher or "/").split("/")[-1]
            self._parsed.append(Message(at, retained, publication, incarnation, record.sequence, record.quality,
                                        {tag: value for tag, (_, value) in record.fields.items()}, record.time_ns))
        return self._parsed

    def stop(self):
        self.ended.set()
        self.join(5)


def retained(port, pattern):
    """Topics that the broker keeps below a pattern. OSError when there is no broker."""
    return list(kept(port, pattern))


def kept(port, pattern):
    """topic -> payload of what the broker keeps below a pattern. OSError when there is no broker."""
    recorder = BrokerRecorder(port, pattern)
    recorder.start()
    try:
        if not recorder.subscribed.wait(5 * harness.PATIENCE):
            raise OSError("the broker does not answer")
        # Retained messages come right behind the answer to the subscription.
        time.sleep(0.1 * harness.PATIENCE)
        return {topic: payload for _, is_kept, topic, payload in list(recorder.raw) if is_kept and payload}
    finally:
        recorder.stop()


class TimedProcess(harness.Process):
    """A process whose lines carry the moment of their arrival."""

    def __init__(self, *arguments, **options):
        self.moments = {}
        super().__init__(*arguments, **options)

    def _read(self, stream, lines):
        moments = self.moments[id(lines)] = []
        for line in iter(stream.readline, b""):
            moments.append(time.monotonic())
            lines.append(line.decode("utf-8", "backslashreplace").rstrip("\n"))
        stream.close()

    def order(self, line):
        self.child.stdin.write(line.encode() + b"\n")
        self.child.stdin.flush()

    def lines(self, errors=False):
        """(arrival, line) of standard output so far, or of standard error."""
        said = self.err if errors else self.out
        return list(zip(list(self.moments[id(said)]), list(said)))


class KelReader:
    """A subscriber with the Kel library: what an application is told of the gateway's publications."""

    def __init__(self, process):
        self.process = process

    def events(self):
        """(arrival, event as `kelgw kel sub --json` gives it) in order."""
        return [(at, json.loads(line)) for at, line in self.process.lines() if line.startswith("{")]


class Sampler(threading.Thread):
    """The most memory that each process ever had resident, in bytes, and how much processor time it took."""

    def __init__(self):
        super().__init__(daemon=True)
        self.watched = {}  # name -> pid
        self.high = {}     # name -> bytes
        self.ended = threading.Event()

    def watch(self, name, pid):
        self.watched[name] = pid
        self.high.setdefault(name, 0)

    def look(self):
        for name, pid in list(self.watched.items()):
            try:
                with open(f"/proc/{pid}/status", encoding="ascii") as status:
                    for line in status:
                        if line.startswith("VmHWM:"):
                            self.high[name] = max(self.high[name], int(line.split()[1]) * 1024)
            except (OSError, ValueError):
                continue

    def run(self):
        while not self.ended.wait(0.25):
            self.look()

    def stop(self):
        self.look()
        self.ended.set()
        self.join(5)
