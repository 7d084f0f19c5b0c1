"""A link that can fail: everything between a listening socket and a server passes through this process.

usage: proxy.py LISTEN SERVER, each a path (unix socket) or HOST:PORT. Orders on standard input, each answered by a line
on standard output when it holds:

  pass            what comes goes
  hold            nothing passes in either direction and nobody is told; new connections are taken and stay silent.
                  Afterwards what waited goes on, as TCP does when a cable is plugged in again
  refuse          open connections are reset and new ones refused
  delay MS        everything goes that much later
  rate BYTES      at most so many bytes a second in each direction
"""

import collections
import os
import selectors
import socket
import struct
import sys
import time

CHUNK = 65536
# Beyond that nothing is read any more, so that the sender feels a slow link and not an endless buffer.
MOST_WAITING = 262144


def address_of(text):
    if "/" in text:
        return socket.AF_UNIX, text
    host, port = text.rsplit(":", 1)
    return socket.AF_INET, (host, int(port))


def reset(link):
    """Closes with RST, so that the other side sees an error and not an orderly end."""
    if link.family == socket.AF_INET:
        link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    link.close()


class Direction:
    """One way of one connection: what was read and may not go yet."""

    def __init__(self, source, target):
        self.source, self.target = source, target
        self.waiting = collections.deque()  # (due, bytes)
        self.bytes = 0
        self.ended = False
        self.allowance = 0.0
        self.filled = time.monotonic()

    def take(self, data, due):
        self.waiting.append((due, data))
        self.bytes += len(data)

    def give(self, now, rate):
        """Writes what may go; False when the target is broken."""
        if rate:
            self.allowance = min(self.allowance + (now - self.filled) * rate, rate * 0.1 + 1)
            self.filled = now
        while self.waiting and self.waiting[0][0] <= now:
            due, data = self.waiting[0]
            room = len(data) if not rate else int(self.allowance)
            if room <= 0:
                return True
            try:
                sent = self.target.send(data[:room])
            except BlockingIOError:
                return True
            except OSError:
                return False
            self.allowance -= sent
            self.bytes -= sent
            self.waiting.popleft()
            if sent < len(data):
                self.waiting.appendleft((due, data[sent:]))
        return True


class Proxy:
    def __init__(self, listen, server):
        self.listen, self.server = address_of(listen), address_of(server)
        self.mode, self.figure = "pass", 0.0
        self.selector = selectors.DefaultSelector()
        self.listener = None
        self.directions = {}  # source socket -> Direction
        self.input = b""
        self.selector.register(sys.stdin.fileno(), selectors.EVENT_READ, self.order)
        self.open()

    def open(self):
        family, address = self.listen
        if family == socket.AF_UNIX and os.path.exists(address):
            os.unlink(address)
        self.listener = socket.socket(family)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(address)
        self.listener.listen(64)
        self.listener.setblocking(False)
        self.selector.register(self.listener, selectors.EVENT_READ, self.accept)

    def shut(self):
        self.selector.unregister(self.listener)
        self.listener.close()
        self.listener = None
        if self.listen[0] == socket.AF_UNIX:
            os.unlink(self.listen[1])
        for source in list(self.directions):
            self.drop(source)

    def accept(self, _):
        if self.mode == "hold":
            return  # the kernel has taken it already; it stays silent in the queue
        try:
            client, _ = self.listener.accept()
        except OSError:
            return
        server = socket.socket(self.server[0])
        try:
            server.connect(self.server[1])
        except OSError:
            server.close()
            reset(client)
            return
        for link in (client, server):
            link.setblocking(False)
            if link.family == socket.AF_INET:
                link.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.directions[client] = Direction(client, server)
        self.directions[server] = Direction(server, client)

    def drop(self, source):
        """Both directions of the connection that `source` belongs to."""
        direction = self.directions.pop(source, None)
        if direction is None:
            return
        self.directions.pop(direction.target, None)
        for link in (source, direction.target):
            reset(link)

    def order(self, _):
        data = os.read(sys.stdin.fileno(), 4096)
        if not data:
            sys.exit(0)
        *lines, self.input = (self.input + data).split(b"\n")
        for line in lines:
            word, *figure = line.decode().split()
            if word == "refuse" and self.mode != "refuse":
                self.shut()
            elif word != "refuse" and self.mode == "refuse":
                self.open()
            self.mode, self.figure = word, float(figure[0]) if figure else 0.0
            print(line.decode(), flush=True)

    def read(self, direction, now):
        """False when the connection is over."""
        try:
            data = direction.source.recv(CHUNK)
        except BlockingIOError:
            return True
        except OSError:
            return False
        if not data:
            direction.ended = True
            return True
        direction.take(data, now + self.figure / 1000 if self.mode == "delay" else now)
        return True

    def run(self):
        while True:
            held = self.mode == "hold"
            wanted = {}
            if not held:
                for source, direction in self.directions.items():
                    if not direction.ended and direction.bytes < MOST_WAITING:
                        wanted[source] = selectors.EVENT_READ
            self.watch(wanted)
            waits = any(direction.waiting for direction in self.directions.values()) and not held
            for key, _ in self.selector.select(0.005 if waits else 0.2):
                if callable(key.data):
                    if not (held and key.fileobj is self.listener):
                        key.data(key)
                    else:
                        time.sleep(0.02)
                elif key.fileobj in self.directions and not self.read(self.directions[key.fileobj], time.monotonic()):
                    self.drop(key.fileobj)
            if self.mode == "hold":
                continue
            now = time.monotonic()
            for source, direction in list(self.directions.items()):
                if source not in self.directions:
                    continue
                broken = not direction.give(now, self.figure if self.mode == "rate" else 0)
                if broken or (direction.ended and not direction.waiting):
                    self.drop(source)

    def watch(self, wanted):
        """Registers exactly the wanted sockets beside standard input and the listener."""
        known = {key.fileobj for key in list(self.selector.get_map().values()) if key.data is None}
        for link in known - set(wanted):
            self.selector.unregister(link)
        for link in set(wanted) - known:
            self.selector.register(link, selectors.EVENT_READ)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: proxy.py LISTEN SERVER")
    Proxy(sys.argv[1], sys.argv[2]).run()
