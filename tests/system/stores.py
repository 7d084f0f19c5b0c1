"""Stores as a site would run them: with TLS, with the users of packaging/redis-acl.example, behind Sentinel."""

import hashlib
import os
import socket
import ssl
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


class FailoverStore:
    """One master, one replica, three sentinels on loopback ports, with the users of the example unless `guarded` is False.
    Stands in for the one server of a site: start(), stop(), url; command() asks whoever is the master now."""

    NAME = "plant"
    TOLERANCE_MS = 1000  # without an answer for so long a master counts as dead

    def __init__(self, folder, guarded=True, certificates=None):
        self.folder, self.guarded, self.certificates = folder, guarded, certificates
        self.ports = [harness.free_port() for _ in range(2)]
        self.sentinel_ports = [harness.free_port() for _ in range(3)]
        self.servers = [self._server(number) for number in range(2)]
        self.passwords = self.servers[0].passwords if guarded else {}
        self.sentinels = []

    def _server(self, number):
        folder = os.path.join(self.folder, f"store{number}")
        os.makedirs(folder)
        follow = ("--replicaof", "127.0.0.1", str(self.ports[0])) if number else ()
        common = ("--bind", "127.0.0.1", *self._listen(self.ports[number]), "--repl-diskless-sync-delay", "0",
                  "--repl-ping-replica-period", "1", *follow)
        if not self.guarded:
            return harness.Redis(folder, *common)
        return GuardedRedis(folder, "--masteruser", "replica", "--masterauth", password("replica"), *common)

    def _listen(self, port):
        """Switches of a server or a sentinel."""
        if self.certificates is None:
            return ("--port", str(port))
        return ("--port", "0", "--tls-port", str(port), "--tls-replication", "yes", "--tls-auth-clients", "no",
                "--tls-cert-file", self.certificates.cert("server"), "--tls-key-file", self.certificates.key("server"),
                "--tls-ca-cert-file", self.certificates.cert("ca"))

    @property
    def url(self):
        return self.url_of("gateway")

    def url_of(self, user):
        places = ",".join(f"127.0.0.1:{port}" for port in self.sentinel_ports)
        login = f"?user={user}&passfile={self.passwords[user]}" if self.guarded else ""
        if self.certificates is None:
            return f"redis+sentinel://{places}/{self.NAME}{login}"
        return f"rediss+sentinel://{places}/{self.NAME}{login}&ca={self.certificates.cert('ca')}"

    def start(self):
        for server in self.servers:
            server.start()
        harness.wait_until("the replica to follow", self.follows)
        for number, port in enumerate(self.sentinel_ports):
            self._start_sentinel(number, port)
        harness.wait_until("the sentinels to know each other", lambda: all(self._complete(port) for port in self.sentinel_ports), 30)
        return self

    def _start_sentinel(self, number, port):
        folder = os.path.join(self.folder, f"sentinel{number}")
        os.makedirs(folder)
        path = os.path.join(folder, "sentinel.conf")
        with open(path, "w", encoding="utf-8") as file:
            switches = self._listen(port)
            file.write("".join(f"{name[2:]} {value}\n" for name, value in zip(switches[::2], switches[1::2])))
            file.write(f'bind 127.0.0.1\ndir "{folder}"\n'
                       f"sentinel monitor {self.NAME} 127.0.0.1 {self.ports[0]} 2\n"
                       f"sentinel down-after-milliseconds {self.NAME} {int(self.TOLERANCE_MS * harness.PATIENCE)}\n"
                       f"sentinel failover-timeout {self.NAME} {int(6000 * harness.PATIENCE)}\n"
                       + (f'sentinel auth-user {self.NAME} sentinel\nsentinel auth-pass {self.NAME} "{password("sentinel")}"\n'
                          if self.guarded else ""))
        process = harness.Process(["redis-sentinel", path])
        self.sentinels.append(process)
        process.wait_for("the sentinel to start", lambda: self._sentinel(port, "PING") == b"PONG")

    def _complete(self, port):
        flat = self._sentinel(port, "SENTINEL", "MASTER", self.NAME)
        known = dict(zip(flat[::2], flat[1::2]))
        return known[b"num-slaves"] == b"1" and known[b"num-other-sentinels"] == b"2" and known[b"flags"] == b"master"

    def _sentinel(self, port, *words):
        try:
            with self._connect(port) as link, link.makefile("rb") as stream:
                link.sendall(b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%s\r\n" % (len(word), word.encode()) for word in words))
                return self.servers[0]._reply(stream)  # pylint: disable=protected-access
        except OSError:
            return None

    def _connect(self, port):
        link = socket.create_connection(("127.0.0.1", port), 5)
        if self.certificates is None:
            return link
        return ssl.create_default_context(cafile=self.certificates.cert("ca")).wrap_socket(link, server_hostname="localhost")

    def follows(self):
        """Whether the replica has everything that the master has."""
        place = [self.servers[number].command("INFO", "replication").decode() for number in range(2)]
        offsets = [dict(line.split(":", 1) for line in text.split("\r\n") if ":" in line) for text in place]
        return offsets[1].get("master_link_status") == "up" and \
            offsets[0]["master_repl_offset"] == offsets[1]["master_repl_offset"]

    def let_the_replica_fall_behind(self):
        """From now on what the master takes does not reach the replica."""
        self.servers[0].command("ACL", "SETUSER", "replica" if self.guarded else "default", "-sync", "-psync", "-replconf")
        self.servers[0].command("CLIENT", "KILL", "TYPE", "replica")

    def behind_seconds(self):
        """How long the replica has had no link to its master."""
        text = self.servers[1].command("INFO", "replication").decode()
        found = dict(line.split(":", 1) for line in text.split("\r\n") if ":" in line)
        return int(found.get("master_link_down_since_seconds", "0"))

    def kill_master(self):
        self.servers[0].kill()

    def promoted(self):
        try:
            return self.servers[1].command("ROLE")[0] == b"master"
        except OSError:  # Sentinel closes every connection of the server that it promotes
            return False

    def agreed(self):
        """Whether every sentinel names the promoted server. One that has not heard of it yet sends a tool, which asks once, to
        the dead one."""
        return all(self._sentinel(port, "SENTINEL", "GET-MASTER-ADDR-BY-NAME", self.NAME) == [b"127.0.0.1", str(self.ports[1]).encode()]
                   for port in self.sentinel_ports)

    def command(self, *words):
        return self.servers[1 if self.servers[0].process is None else 0].command(*words)

    def stop(self):
        for process in self.sentinels:
            process.stop()
        for server in self.servers:
            server.stop()
