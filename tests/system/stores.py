"""Stores as a site would run them: with TLS, with the users of packaging/redis-acl.example, behind Sentinel."""

import hashlib
import os
import socket
import subprocess

import harness

USERS = ("gateway", "tools", "watcher", "replica", "sentinel")
EXAMPLE = os.path.join(os.path.dirname(__file__), "..", "..", "packaging", "redis-acl.example")


def password(user):
    return f"the password of {user}"


def secret_file(folder, name, text):
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8", opener=lambda file, flags: os.open(file, flags, 0o600)) as file:
        file.write(text)
    return path


def example_lines():
    """The users of the example, each a list of words behind `user NAME`, with the tests' passwords put in."""
    with open(EXAMPLE, encoding="utf-8") as file:
        text = file.read()
    for user in USERS:
        text = text.replace(f"{user.upper()}_SHA256", hashlib.sha256(password(user).encode()).hexdigest())
    return text


def example_users():
    """{user: its words} of the example."""
    lines = [line.split() for line in example_lines().splitlines() if line.startswith("user ")]
    return {words[1]: words[2:] for words in lines}


class Certificates:
    """An authority and what it signed, made by the openssl command."""

    def __init__(self, folder, authority="ca"):
        self.folder, self.authority = folder, authority
        self._openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                      "-subj", f"/CN={authority} of a test", "-keyout", self.key(authority), "-out", self.cert(authority))

    def cert(self, name):
        return os.path.join(self.folder, name + ".pem")

    def key(self, name):
        return os.path.join(self.folder, name + ".key")

    def issue(self, name, names):
        request, extensions = os.path.join(self.folder, name + ".csr"), os.path.join(self.folder, name + ".ext")
        with open(extensions, "w", encoding="ascii") as file:
            file.write(f"subjectAltName={names}\n")
        self._openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", f"/CN={name}",
                      "-keyout", self.key(name), "-out", request)
        self._openssl("x509", "-req", "-in", request, "-CA", self.cert(self.authority), "-CAkey", self.key(self.authority),
                      "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", self.cert(name))
        os.chmod(self.key(name), 0o600)

    @staticmethod
    def _openssl(*words):
        subprocess.run(["openssl", *words], check=True, capture_output=True, timeout=60 * harness.PATIENCE)


class GuardedRedis(harness.Redis):
    """A server that nobody enters without a name: the users of the example, and one more for the test itself."""

    def __init__(self, folder, *settings):
        acl = os.path.join(folder, "acl.conf")
        with open(acl, "w", encoding="utf-8") as file:
            file.write(example_lines() + "\nuser test on nopass ~* &* +@all\n")
        super().__init__(folder, "--include", acl, *settings)
        self.passwords = {user: secret_file(folder, user + ".pass", password(user) + "\n") for user in USERS}

    def url_of(self, user):
        return f"{self.url}?user={user}&passfile={self.passwords[user]}"

    def command(self, *words, user="test", secret="x"):
        return self.commands([words], user, secret)[0]

    def commands(self, lines, user="test", secret="x"):
        """Several commands over one connection, after the log-in; an error is thrown."""
        with socket.socket(socket.AF_UNIX) as link:
            link.settimeout(20 * harness.PATIENCE)
            link.connect(self.path)
            with link.makefile("rb") as stream:
                replies = []
                for words in [("AUTH", user, secret), *lines]:
                    parts = [word if isinstance(word, bytes) else str(word).encode() for word in words]
                    link.sendall(b"*%d\r\n" % len(parts) + b"".join(b"$%d\r\n%s\r\n" % (len(part), part) for part in parts))
                    replies.append(self._reply(stream))
                return replies[1:]
