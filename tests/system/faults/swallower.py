"""A link that loses single records and tells nobody: between a client and the broker, every MQTT packet passes but those
that it was told to swallow, and these it acknowledges itself. Not for scenarios: it is what their judges have to find.

usage: swallower.py PORT BROKER_PORT. Orders on standard input, each answered by a line on standard output: "one TOPIC" for
the next record of a publication, "all TOPIC" for all from now on. Each that is swallowed is a line "swallowed TOPIC".
"""

import socket
import struct
import sys
import threading

ONE, ALL = "one", "all"


class Orders:
    def __init__(self):
        self.lock = threading.Lock()
        self.wanted = {}  # end of a topic -> ONE or ALL

    def obey(self):
        for line in sys.stdin:
            how, topic = line.split()
            with self.lock:
                self.wanted[topic] = how
            print(line.strip(), flush=True)

    def takes(self, topic):
        with self.lock:
            for end, how in list(self.wanted.items()):
                if topic.endswith("/data/" + end):
                    if how == ONE:
                        del self.wanted[end]
                    print("swallowed " + topic, flush=True)
                    return True
        return False


def packets(source):
    """(first byte, body, the whole packet) one after the other, until the link ends."""
    stream = source.makefile("rb")
    while True:
        head = stream.read(1)
        if not head:
            return
        length = shift = 0
        size = b""
        while True:
            byte = stream.read(1)
            if not byte:
                return
            size += byte
            length |= (byte[0] & 0x7F) << shift
            shift += 7
            if not byte[0] & 0x80:
                break
        body = stream.read(length)
        if len(body) < length:
            return
        yield head[0], body, head + size + body


def carry(source, target, locks, orders):
    try:
        for kind, body, packet in packets(source):
            if kind >> 4 == 3:
                (size,) = struct.unpack_from(">H", body)
                if orders.takes(body[2:2 + size].decode()):
                    if kind & 0x06:
                        with locks[source]:
                            source.sendall(b"\x40\x02" + body[2 + size:4 + size])
                    continue
            with locks[target]:
                target.sendall(packet)
    except OSError:
        pass
    for link in (source, target):
        try:
            link.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def main(port, broker_port):
    orders = Orders()
    listener = socket.create_server(("127.0.0.1", port))
    threading.Thread(target=orders.obey, daemon=True).start()
    while True:
        client, _ = listener.accept()
        try:
            server = socket.create_connection(("127.0.0.1", broker_port))
        except OSError:
            client.close()
            continue
        locks = {client: threading.Lock(), server: threading.Lock()}
        for link in (client, server):
            link.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for pair in ((client, server), (server, client)):
            threading.Thread(target=carry, args=(*pair, locks, orders), daemon=True).start()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: swallower.py PORT BROKER_PORT")
    main(*map(int, sys.argv[1:]))
