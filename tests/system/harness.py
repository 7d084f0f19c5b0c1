"""Real servers and real processes for the system tests: each test gets its own, in its own temporary folder, on unix
sockets and free loopback ports, and ends them by process id."""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

BIN = os.environ.get("KELGW_BIN", "")
# Sanitizers slow everything down; the limits below only end a test that hangs.
PATIENCE = float(os.environ.get("KELGW_PATIENCE", "1"))
GROUP = "test"
LIST = "KelGateway.clients"
PUBLICATIONS = "KelGateway.publications"
SEPARATOR = "\x1a"


def wait_until(what, condition, limit=20.0):
    """Polls until the condition gives something true and returns that; fails with `what` at the limit."""
    end = time.monotonic() + limit * PATIENCE
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited {limit * PATIENCE:.0f} s in vain for: {what() if callable(what) else what}")
        time.sleep(0.02)


def holds_for(what, condition, seconds):
    """The condition is true now and stays so for that long."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        assert condition(), what
        time.sleep(0.02)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Process:
    """A child with its standard output and error collected line by line as they come."""

    def __init__(self, arguments, env=None, cwd=None, stdin=False):
        self.arguments = [str(argument) for argument in arguments]
        # The child ends with the test run, whatever ends that.
        self.child = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", "--", *self.arguments],
                                      stdin=subprocess.PIPE if stdin else subprocess.DEVNULL, stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE, env={**os.environ, **(env or {})}, cwd=cwd)
        self.out, self.err = [], []
        self.readers = [threading.Thread(target=self._read, args=pair, daemon=True)
                        for pair in ((self.child.stdout, self.out), (self.child.stderr, self.err))]
        for reader in self.readers:
            reader.start()

    @staticmethod
    def _read(stream, lines):
        for line in iter(stream.readline, b""):
            lines.append(line.decode("utf-8", "backslashreplace").rstrip("\n"))
        stream.close()

    @property
    def pid(self):
        return self.child.pid

    def running(self):
        return self.child.poll() is None

    def send_signal(self, number):
        self.child.send_signal(number)

    def wait(self, limit=20.0):
        """Exit code, with everything it said collected."""
        code = self.child.wait(limit * PATIENCE)
        if self.child.stdin:
            self.child.stdin.close()
        for reader in self.readers:
            reader.join(5)
        return code

    def wait_for(self, what, condition):
        """As wait_until(), but the end of the process is a failure at once."""
        def met():
            assert self.running(), f"it ended instead of: {what}\n{self.said()}"
            return condition()
        return wait_until(lambda: what + "\n" + self.said(), met)

    def stop(self, limit=20.0):
        if self.running():
            self.child.terminate()
        try:
            return self.wait(limit)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.wait()
            raise

    def kill(self):
        if self.running():
            self.child.kill()
        self.wait()

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as stat:
            words = stat.read().rsplit(")", 1)[1].split()
        return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")

    def said(self):
        return "\n".join(["--- " + " ".join(self.arguments), *self.out[-40:], "--- standard error", *self.err[-40:]])


class Redis:
    """A private server on a unix socket; its data survives stop() and start()."""

    def __init__(self, folder, *settings):
        self.folder, self.settings = folder, settings
        self.path = os.path.join(folder, "redis.sock")
        self.url = f"redis+unix://{self.path}"
        self.process = None

    def start(self):
        self.process = Process(["redis-server", "--port", "0", "--unixsocket", self.path, "--dir", self.folder, "--save", "",
                                "--appendonly", "yes", "--appendfsync", "everysec", "--maxmemory-policy", "noeviction",
                                "--daemonize", "no", *self.settings])
        self.process.wait_for("redis to start", self._answers)
        return self

    def _answers(self):
        try:
            return self.command("PING") == b"PONG"
        except (OSError, RuntimeError):
            return False

    def stop(self):
        if self.process:
            self.process.stop()
            self.process = None

    def kill(self):
        self.process.kill()
        self.process = None

    def command(self, *words):
        """One command over a connection of its own; replies as bytes, ints, lists, None."""
        with socket.socket(socket.AF_UNIX) as link:
            link.settimeout(20 * PATIENCE)
            link.connect(self.path)
            parts = [word if isinstance(word, bytes) else str(word).encode() for word in words]
            link.sendall(b"*%d\r\n" % len(parts) + b"".join(b"$%d\r\n%s\r\n" % (len(part), part) for part in parts))
            with link.makefile("rb") as stream:
                return self._reply(stream)

    def _reply(self, stream):
        line = stream.readline()
        if not line:
            raise OSError("connection closed")
        kind, rest = line[:1], line[1:-2]
        if kind == b"+":
            return rest
        if kind == b"-":
            raise RuntimeError(rest.decode())
        if kind == b":":
            return int(rest)
        if kind == b"$":
            if int(rest) < 0:
                return None
            data = stream.read(int(rest) + 2)
            return data[:-2]
        if kind == b"*":
            return None if int(rest) < 0 else [self._reply(stream) for _ in range(int(rest))]
        raise RuntimeError(f"strange reply {line!r}")

    def hash(self, key):
        flat = self.command("HGETALL", key)
        return dict(zip(flat[::2], flat[1::2]))


class Broker:
    """A private mosquitto on a free loopback port; retained messages survive stop() and start()."""

    def __init__(self, folder):
        self.folder = folder
        self.port = free_port()
        self.process = None

    @property
    def url(self):
        return f"mqtt://127.0.0.1:{self.port}?group={GROUP}"

    def start(self):
        path = os.path.join(self.folder, "mosquitto.conf")
        with open(path, "w", encoding="utf-8") as config:
            config.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n"
                         "max_inflight_messages 1000\nmax_queued_messages 0\n"
                         f"persistence true\npersistence_location {self.folder}/\n")
            if os.geteuid() == 0:
                config.write("user root\n")
        self.process = Process(["mosquitto", "-c", path])
        self.process.wait_for("mosquitto to start", self._answers)
        return self

    def _answers(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def stop(self):
        if self.process:
            self.process.stop()
            self.process = None

    def kill(self):
        self.process.kill()
        self.process = None

    def topic(self, publication):
        return f"kel/{GROUP}/data/{publication}"

    def publish(self, publication, payload, retain=True):
        """By a publisher that knows nothing of Kel: mosquitto_pub, the payload from a file."""
        self.publish_topic(self.topic(publication), payload, retain)

    def publish_topic(self, topic, payload, retain=True):
        with tempfile.NamedTemporaryFile(dir=self.folder) as file:
            file.write(payload)
            file.flush()
            how = ["-f", file.name] if payload else ["-n"]
            subprocess.run(["mosquitto_pub", "-V", "5", "-h", "127.0.0.1", "-p", str(self.port), "-q", "1", "-t", topic,
                            *(["-r"] if retain else []), *how], check=True, timeout=60 * PATIENCE)

    def subscribe(self, pattern="kel/#"):
        return Listener(self, pattern)


class Listener:
    """mosquitto_sub as a witness: every message with topic, retain flag and payload, in order."""

    def __init__(self, broker, pattern):
        self.process = Process(["mosquitto_sub", "-V", "5", "-h", "127.0.0.1", "-p", broker.port, "-q", "1", "-t", pattern,
                                "-F", "%U %r %t %x"])

    @property
    def messages(self):
        """(arrival in seconds, retained, topic, payload)"""
        result = []
        for line in list(self.process.out):
            words = line.split(" ")
            result.append((float(words[0]), words[1] == "1", words[2], bytes.fromhex(words[3]) if len(words) > 3 else b""))
        return result

    def of(self, topic):
        return [message for message in self.messages if message[2] == topic]

    def stop(self):
        self.process.kill()


def attributes(text):
    """Text of one element in the log: flags of two bytes each, then the value behind a 'v'."""
    letters, position = "", 0
    while position < len(text):
        letter = chr(text[position])
        letters += letter
        if letter == "v":
            return letters, text[position + 1:].decode("utf-8", "backslashreplace")
        position += 2
    return letters, None


class Site:
    """One site: its folder, store, broker and everything started there; close() ends and removes it all."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="kelgw-test.")
        self.redis = Redis(self.folder)
        self.broker = Broker(self.folder)
        self.processes = []
        self.gateways = []

    def start(self):
        try:
            self.redis.start()
            self.broker.start()
        except BaseException:
            self.close()
            raise
        return self

    @property
    def env(self):
        return {"PVSS_STORE": self.redis.url, "KEL_URL": self.broker.url}

    def spawn(self, program, *arguments, env=None):
        process = Process([os.path.join(BIN, program), *arguments], env={**self.env, **(env or {})}, cwd=self.folder)
        self.processes.append(process)
        return process

    def tool(self, *arguments, env=None, limit=60, stdin=None):
        """Runs kelgw to its end: (exit code, standard output, standard error)."""
        result = subprocess.run([os.path.join(BIN, "kelgw"), *[str(argument) for argument in arguments]],
                                env={**os.environ, **self.env, **(env or {})}, cwd=self.folder, capture_output=True,
                                stdin=subprocess.DEVNULL, timeout=limit * PATIENCE, check=False)
        return result.returncode, result.stdout.decode("utf-8", "backslashreplace"), result.stderr.decode()

    def done(self, *arguments, **options):
        """As tool(), but it has to succeed; its standard output."""
        code, out, err = self.tool(*arguments, **options)
        assert code == 0, f"kelgw {' '.join(map(str, arguments))} ended with {code}\n{out}\n{err}"
        return out

    def json(self, *arguments, **options):
        return json.loads(self.done(*arguments, "--json", **options))

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def apply(self, elements, subscribe=None, publish=None, *switches):
        """Makes the store match: elements {name: type}, subscribe {publication: {tag: element}}, publish as in the file."""
        plant = {"elements": elements, "lists": {"clients": LIST, "publications": PUBLICATIONS},
                 "subscribe": subscribe or {}, "publish": publish or {}}
        # JSON is YAML.
        return self.done("apply", self.write("plant.yaml", json.dumps(plant)), *switches)

    def gateway(self, *switches, env=None, name="KelGateway", config=None, wait=True):
        path = self.write(f"{name}.config", config if config is not None else
                          f'[kel]\nclientDPList = "{LIST}"\npubDPList = "{PUBLICATIONS}"\npublisherName = "{name}"\n')
        process = self.spawn("kel-gateway", "-config", path, *switches, env=env)
        self.gateways.append(process)
        return process

    def get(self, element):
        """One element as kelgw shows it."""
        return self.json("dp", "get", element)

    def watch(self, *elements):
        """Watches from now on; the result, when called, is every event so far."""
        process = self.spawn("kelgw", "dp", "watch", *elements, "--json")
        wait_until(lambda: "the watch to begin\n" + process.said(), lambda: len(process.out) >= len(elements))
        return lambda: [json.loads(line) for line in list(process.out)]

    def log(self):
        """The store's change log as docs/store-format.md describes it: (sequence, time in ms, writer, {element: (letters,
        value text)}) for each write, in order; a large write is logged by names only and has None as text."""
        result = []
        for identity, fields in self.redis.command("XRANGE", "dp:log", "-", "+"):
            if fields[0] not in (b"s", b"S"):
                continue
            time_ms, writer = fields[1].decode().split(" ", 1)
            if fields[0] == b"S":
                pairs = [(line.split(b" ", 1)[1], (line.split(b" ", 1)[0].decode(), None)) for line in fields[3].split(b"\n")]
            else:
                pairs = [(name, attributes(text)) for name, text in zip(fields[2::2], fields[3::2])]
            result.append((int(identity.split(b"-")[0]), int(time_ms), writer,
                           {name.decode(): what for name, what in pairs}))
        return result

    def log_of(self, element):
        """(time in ms, letters, value text) of every write of one element, in order."""
        return [(time_ms, *written[element]) for _, time_ms, _, written in self.log() if element in written]

    def close(self):
        trouble = []
        for process in self.processes:
            if process.running():
                try:
                    code = process.stop()
                    if process in self.gateways and code != 0:
                        trouble.append(f"the gateway ended with {code} on SIGTERM\n" + process.said())
                except subprocess.TimeoutExpired:
                    trouble.append("did not end on SIGTERM\n" + process.said())
            process.wait()
            text = "\n".join(process.err)
            if any(mark in text for mark in ("Sanitizer", "runtime error:", "Assertion")):
                trouble.append("a report of a sanitizer or an assertion\n" + "\n".join(process.err[-200:]))
        for server in (self.broker, self.redis):
            server.stop()
        shutil.rmtree(self.folder)
        assert not trouble, "\n".join(trouble)
