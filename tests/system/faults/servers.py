"""The two servers as the fault scenarios want them: the ones of harness.py with a disk that can be full, with and without
persistence, and with queues that never close a link."""

import os
import random
import resource
import socket
import subprocess

import harness
import stores


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
    allow that, a limit on the size of its files does instead, and `disk_kind` says which."""

    def __init__(self, folder, disk_mb=None):
        super().__init__(folder)
        self.disk_mb = disk_mb
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
            return super().start()
        os.makedirs(self.disk, exist_ok=True)
        command = ["redis-server", "--port", "0", "--unixsocket", self.path, "--dir", self.disk, "--save", "", "--appendonly",
                   "yes", "--appendfsync", "everysec", "--maxmemory-policy", "noeviction", "--daemonize", "no"]
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
    """A queue that is full closes no link; with persistence, retained messages are on disk within a second."""

    def __init__(self, folder, persistence):
        super().__init__(folder)
        self.port = quiet_port()
        self.persistence = persistence

    def start(self):
        path = os.path.join(self.folder, "mosquitto.conf")
        with open(path, "w", encoding="utf-8") as config:
            config.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n"
                         "max_inflight_messages 1000\nmax_queued_messages 1000000\n")
            if self.persistence:
                config.write(f"persistence true\npersistence_location {self.folder}/\nautosave_interval 1\n")
            if os.geteuid() == 0:
                config.write("user root\n")
        self.process = harness.Process(["mosquitto", "-c", path])
        self.process.wait_for("mosquitto to start", self._answers)
        return self
