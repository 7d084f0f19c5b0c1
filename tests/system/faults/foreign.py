"""A publisher that knows nothing of Kel's presences: records of every quality, for what the Kel library itself sends is good or
declared bad. It is a part of every load, at a modest rate; what it sent last has to be there in the end."""

import socket
import struct
import threading
import time

import harness
import traffic
from witness import codec

PUBLICATION = "foreign/0"
FIELDS = {"n": "int", "text": "text"}
QUALITIES = (1, 2, 0)
EVERY = 0.2  # seconds
# quality -> (invalid, user bit 1, user bit 2)
STATES = {1: ("0", "1", "1"), 2: ("1", "1", "0"), 0: ("1", "0", "0")}


def quality_of(number):
    return QUALITIES[number % len(QUALITIES)]


def payload_of(number):
    return codec.encode({"n": ("int", number), "text": ("string", f"Größe {number}")}, quality=quality_of(number),
                        time_ns=(traffic.START_MS + number) * 1_000_000)


def state_of(number):
    """element -> its state in the store when this record was the last one"""
    invalid, bit1, bit2 = STATES[quality_of(number)]
    return {f"F.{tag}": {"v": value, "i": invalid, "1": bit1, "2": bit2, "t": str(traffic.START_MS + number)}
            for tag, value in (("n", str(number)), ("text", f"Größe {number}"))}


def difference(number, elements):
    """What of these states is not as it has to be; an empty list when all is."""
    wrong = []
    for element, wanted in state_of(number).items():
        found = {key: elements.get(element, {}).get(key) for key in wanted}
        if found != wanted:
            wrong.append(f"{element} is {found}, the record of quality {quality_of(number)} says {wanted}")
    return wrong


class Foreign(threading.Thread):
    """Sends one record after the other, each until the broker has taken it, and the last one again on every new link."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.port = port
        self.number = traffic.LIFE_NUMBERS
        self.taken = None  # the newest number that the broker has taken over
        self.sending = True
        self.ended = threading.Event()
        self.start()

    def run(self):
        while not self.ended.is_set():
            try:
                self._talk()
            except OSError:
                self.ended.wait(0.1)

    def _talk(self):
        with socket.create_connection(("127.0.0.1", self.port), 2) as link:
            name = f"foreign-{time.monotonic_ns()}".encode()
            body = b"\0\4MQTT\4\2\0\0" + struct.pack(">H", len(name)) + name
            link.sendall(bytes([0x10, len(body)]) + body)
            stream = link.makefile("rb")
            if not stream.read(4):
                raise OSError("closed")
            if self.number > traffic.LIFE_NUMBERS:
                self._publish(link, stream)
            while not self.ended.wait(EVERY):
                if self.sending:
                    self.number += 1
                if self.taken != self.number and self.number > traffic.LIFE_NUMBERS:
                    self._publish(link, stream)

    def _publish(self, link, stream):
        topic = f"kel/{harness.GROUP}/data/{PUBLICATION}".encode()
        number = self.number
        body = struct.pack(">H", len(topic)) + topic + b"\0\1" + payload_of(number)
        size, length = b"", len(body)
        while True:
            size += bytes([length % 128 | (0x80 if length > 127 else 0)])
            length //= 128
            if not length:
                break
        link.sendall(b"\x33" + size + body)
        if len(stream.read(4)) < 4:
            raise OSError("closed")
        self.taken = number

    def stop(self):
        self.ended.set()
        self.join(5)
