"""A lasting connection to the store, with one thing on its mind: commands and their replies."""

import socket


class Refused(Exception):
    """The server's own words."""


class Link:
    def __init__(self, path, limit=5.0):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(limit)
        try:
            self.socket.connect(path)
        except OSError:
            self.socket.close()
            raise
        self.stream = self.socket.makefile("rb")

    def close(self):
        self.stream.close()
        self.socket.close()

    def command(self, *words):
        """The reply as bytes, int, list or None; Refused for an error, OSError when the link is broken."""
        parts = [word if isinstance(word, bytes) else str(word).encode() for word in words]
        self.socket.sendall(b"*%d\r\n" % len(parts) + b"".join(b"$%d\r\n%s\r\n" % (len(part), part) for part in parts))
        return self.reply()

    def reply(self):
        line = self.stream.readline()
        if not line.endswith(b"\r\n"):
            raise OSError("connection closed")
        kind, rest = line[:1], line[1:-2]
        if kind == b"$":
            length = int(rest)
            if length < 0:
                return None
            data = self.stream.read(length + 2)
            if len(data) != length + 2:
                raise OSError("connection closed")
            return data[:-2]
        if kind == b"*":
            return None if rest == b"-1" else [self.reply() for _ in range(int(rest))]
        if kind == b":":
            return int(rest)
        if kind == b"+":
            return rest
        if kind == b"-":
            raise Refused(rest.decode("utf-8", "backslashreplace"))
        raise OSError(f"strange reply {line!r}")
