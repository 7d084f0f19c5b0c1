"""The two servers as the fault scenarios want them: the ones of harness.py with a disk that can be full, with and without
persistence, and with queues that never close a link."""

import os
import random
import resource
import signal
import socket
import subprocess

import harness
import recorders
import stores
import witnesses


PASSWORD = "open sesame"
SERVER = ["redis-server", "--port", "0", "--save", "", "--appendonly", "yes", "--appendfsync", "everysec", "--maxmemory-policy",
          "noeviction", "--daemonize", "no"]


def quiet_port():
    """A free port that the system gives to no outgoing connection: while its server is down, somebody who tries to reach
    it could otherwise be given that very port and hold it."""
    with open("/proc/sys/net/ipv4/ip_local_port_range", encoding="ascii") as file:
        lowest = int(file.read().split()[0])
    while lowest > 12_000:
        port = random.randrange(10_000, lowest)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    return harness.free_port()


class Store(harness.Redis):
    """With `disk_mb`, its folder is a file system of that size in a mount namespace of its own; where the system does not
    allow that, a limit on the size of its files does instead, and `disk_kind` says which. With `log_in` it has a user
    `gateway`; with a `clock` its time is that one's."""

    def __init__(self, folder, disk_mb=None, log_in=False, clock=None):
        super().__init__(folder)
        self.disk_mb, self.log_in, self.clock = disk_mb, log_in, clock
        self.disk = os.path.join(folder, "disk")
        self.disk_kind = None

    @staticmethod
    def _private_mounts():
        for switches in (["-m"], ["-r", "-m"]):
            if subprocess.run(["unshare", *switches, "mount", "-t", "tmpfs", "none", "/mnt"], check=False,
                              capture_output=True).returncode == 0:
                return switches
        return None

    def start(self):
        if self.disk_mb is None:
            rights = ["--user", "gateway", "on", ">" + PASSWORD, "~*", "&*", "+@all"] if self.log_in else []
            self.process = harness.Process([*SERVER, "--unixsocket", self.path, "--dir", self.folder, *rights],
                                           env=self.clock.environment if self.clock else None)
            self.process.wait_for("the store to start", self._answers)
            return self
        os.makedirs(self.disk, exist_ok=True)
        command = [*SERVER, "--unixsocket", self.path, "--dir", self.disk]
        switches = self._private_mounts()
        if switches:
            self.disk_kind = "tmpfs"
            script = f'mount -t tmpfs -o size={int(self.disk_mb * 1024)}k none "$1" && shift && exec "$@"'
            command = ["unshare", *switches, "sh", "-c", script, "sh", self.disk, *command]
        else:
            self.disk_kind = "file size limit"
            command = ["env", "--ignore-signal=XFSZ", *command]
        self.process = harness.Process(command)
        self.process.wait_for("the store to start", self._answers)
        return self

    def _ballast(self):
        return f"/proc/{self.process.pid}/root{self.disk}/ballast"

    def fill(self):
        """Nothing more fits."""
        if self.disk_kind == "tmpfs":
            with open(self._ballast(), "wb", buffering=0) as file:
                for size in (1 << 20, 1 << 12):
                    try:
                        while file.write(b"\0" * size) == size:
                            pass
                    except OSError:
                        pass
        else:
            used = max(os.path.getsize(os.path.join(top, name)) for top, _, names in os.walk(self.disk) for name in names)
            resource.prlimit(self.process.pid, resource.RLIMIT_FSIZE, (used, resource.RLIM_INFINITY))

    def free(self):
        if self.disk_kind == "tmpfs":
            os.unlink(self._ballast())
        else:
            resource.prlimit(self.process.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))


class ReplicatedStore:
    """A master, its replica and three sentinels. `path` leads to the master; once that is dead, to the replica."""

    disk_kind = None

    def __init__(self, folder):
        self.servers = stores.FailoverStore(os.path.join(folder, "replicated"), guarded=False)
        self.path = os.path.join(folder, "redis.sock")
        self._lead_to(0)
        self.lags = False

    def _lead_to(self, number):
        new = self.path + ".new"
        os.symlink(self.servers.servers[number].path, new)
        os.rename(new, self.path)
        self.number = number

    @property
    def url(self):
        return self.servers.url

    @property
    def process(self):
        return self.servers.servers[self.number].process

    def others(self):
        """(name, process) of everything besides the master."""
        return [("replica", self.servers.servers[1].process), *(("sentinel", process) for process in self.servers.sentinels)]

    def start(self):
        self.servers.start()
        return self

    def let_the_replica_fall_behind(self):
        self.servers.let_the_replica_fall_behind()
        self.lags = True

    def master_is_dead(self):
        if self.lags and self.servers.behind_seconds() < 1:
            raise RuntimeError("the replica is not behind its master; wait 2 s before the kill")
        self._lead_to(1)

    def wait_until_promoted(self):
        harness.wait_until("Sentinel to make the replica the master", self.servers.promoted, 30)


class Broker(harness.Broker):
    """As `scenario` wants it. A queue that is full closes no link; with persistence, retained messages are on disk within a
    second."""

    def __init__(self, folder, scenario):
        super().__init__(folder)
        self.port = quiet_port()
        self.scenario = scenario
        self.acl = os.path.join(folder, "acl")
        self.orders = []  # (process, gateways) of each time that it was told to read its rights anew

    def allow(self, gateways):
        """Whether gateways may do anything; everybody else, who comes without a name, may do all."""
        with open(self.acl, "w", encoding="ascii") as file:
            file.write("topic readwrite #\nuser gateway\n" + ("topic readwrite #\n" if gateways else ""))
        if self.process:
            self.orders.append((self.process, gateways))
            self.process.send_signal(signal.SIGHUP)

    def start(self):
        path = os.path.join(self.folder, "mosquitto.conf")
        with open(path, "w", encoding="utf-8") as config:
            config.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n")
            config.write(witnesses.BROKER_LOG)
            if not self.scenario.default_queue:
                config.write("max_inflight_messages 1000\nmax_queued_messages 1000000\n")
            if self.scenario.message_limit_kb is not None:
                config.write(f"message_size_limit {int(self.scenario.message_limit_kb * 1024)}\n")
            if self.scenario.log_in:
                self.process = None
                self.allow(True)
                config.write(f"acl_file {self.acl}\n")
            if self.scenario.broker_persistence:
                config.write(f"persistence true\npersistence_location {self.folder}/\nautosave_interval 1\n")
            if os.geteuid() == 0:
                config.write("user root\n")
        self.process = recorders.TimedProcess(["mosquitto", "-c", path])
        self.process.wait_for("mosquitto to start", self._answers)
        return self
