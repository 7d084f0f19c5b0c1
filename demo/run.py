#!/usr/bin/python3
"""The demonstration behind ./dev run: everything private, everything live, everything gone afterwards.

usage: demo/run.py --bin FOLDER [--for SECONDS] [--table]

Starts Redis on a unix socket and mosquitto on a free loopback port, both in one temporary folder; puts demo/plant.yaml
into the store; starts the gateway and the live input; shows the values as they change, as a table on a terminal and as
lines elsewhere. Ctrl-C or the end of SECONDS stops and removes everything and prints a summary.

The summary is counted from outside: what was written is read from the store's own change log, what was published is
received by a subscriber of its own, and both are held against what the senders say they sent.
"""

import argparse
import ctypes
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
GROUP = "demo"
LISTS = {"clients": "KelGateway.clients", "publications": "KelGateway.publications"}
PUBLISHER = "KelGateway"
SETTLE_SECONDS = 15
QUALITY = {(True, True): "good", (True, False): "uncertain", (False, False): "bad", (False, True): "?"}


class Trouble(Exception):
    """One line for the person at the screen."""


class Stop(Exception):
    """Somebody asked for the end."""


def say(text):
    print(f"run: {text}", flush=True)


# ------------------------------------------------------------------------------------------------ processes

def die_with_parent():
    """A child must not outlive this script, whatever ends it; and Ctrl-C is for this script alone."""
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG


class Child:
    def __init__(self, name, folder, arguments, env=None):
        self.name = name
        self.out_path = os.path.join(folder, name + ".out")
        self.err_path = os.path.join(folder, name + ".err")
        with open(self.out_path, "wb") as out, open(self.err_path, "wb") as err:
            self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                            env={**os.environ, **(env or {})}, cwd=folder, start_new_session=True,
                                            preexec_fn=die_with_parent)

    def output(self):
        with open(self.out_path, encoding="utf-8", errors="replace") as out:
            return out.read()

    def check(self):
        if self.process.poll() is not None:
            with open(self.err_path, encoding="utf-8", errors="replace") as err:
                last = [line for line in (self.output() + err.read()).splitlines() if line.strip()][-3:]
            raise Trouble(f"{self.name} ended with {self.process.returncode}: " + " | ".join(last or ["it said nothing"]))

    def stop(self, limit=10):
        """Asks, waits, and at the limit no longer asks. The exit code."""
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(limit)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        return self.process.returncode


def wait_for(what, condition, child, limit=30):
    end = time.monotonic() + limit
    while not condition():
        child.check()
        if time.monotonic() > end:
            raise Trouble(f"{what} did not happen within {limit} s")
        time.sleep(0.05)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(family, address):
    with socket.socket(family) as probe:
        try:
            probe.connect(address)
            return True
        except OSError:
            return False


# ------------------------------------------------------------------------------------------------ the store's log

class StoreLog:
    """Reads the change log of the store (docs/store-format.md) as it grows, and counts the values written by managers."""

    def __init__(self, path):
        self.link = socket.socket(socket.AF_UNIX)
        self.link.settimeout(10)
        self.link.connect(path)
        self.stream = self.link.makefile("rb")
        self.position = b"-"
        self.values = 0
        self.writes = 0

    def command(self, *words):
        parts = [word if isinstance(word, bytes) else str(word).encode() for word in words]
        self.link.sendall(b"*%d\r\n" % len(parts) + b"".join(b"$%d\r\n%s\r\n" % (len(part), part) for part in parts))
        return self.reply()

    def reply(self):
        line = self.stream.readline()
        if not line:
            raise Trouble("the store closed the connection")
        kind, rest = line[:1], line[1:-2]
        if kind == b"+":
            return rest
        if kind == b":":
            return int(rest)
        if kind == b"$":
            return None if int(rest) < 0 else self.stream.read(int(rest) + 2)[:-2]
        if kind == b"*":
            return None if int(rest) < 0 else [self.reply() for _ in range(int(rest))]
        raise Trouble(f"the store says {rest.decode(errors='replace')}")

    def manager(self):
        """State and counters of the one manager, as its heartbeat shows them."""
        numbers = self.command("ZRANGE", "dp:mgr", 0, -1)
        if not numbers:
            return {}
        flat = self.command("HGETALL", b"dp:mgr:" + numbers[0])
        return {name.decode(): text.decode(errors="replace") for name, text in zip(flat[::2], flat[1::2])}

    def read_on(self, writer):
        """Counts what has come since the last call; `writer` names the manager's incarnation."""
        while True:
            entries = self.command("XRANGE", "dp:log", self.position, "+", "COUNT", 1000)
            for identity, fields in entries:
                self.position = b"(" + identity
                kind, head = fields[0], fields[1].split(b" ")
                if kind not in (b"s", b"S") or head[1].decode() != writer:
                    continue
                self.writes += 1
                if kind == b"S":
                    self.values += sum(b"v" in line.split(b" ", 1)[0] for line in fields[3].split(b"\n"))
                else:
                    self.values += sum(has_value(text) for text in fields[3::2])
            if len(entries) < 1000:
                return


def has_value(text):
    """Flags come first, two bytes each; the value, if any, is the rest behind a 'v'."""
    position = 0
    while position < len(text) and text[position:position + 1] in b"i12":
        position += 2
    return text[position:position + 1] == b"v"


# ------------------------------------------------------------------------------------------------ the demonstration

class Demonstration:
    def __init__(self, binaries, folder):
        self.bin, self.folder = os.path.abspath(binaries), folder
        self.children = []
        self.socket = os.path.join(folder, "redis.sock")
        self.store_url = f"redis+unix://{self.socket}"
        self.kel_url = ""
        self.shown = {}

    @property
    def env(self):
        return {"PVSS_STORE": self.store_url, "KEL_URL": self.kel_url}

    def start_child(self, name, *arguments):
        child = Child(name, self.folder, arguments, self.env)
        self.children.append(child)
        return child

    def program(self, name):
        return os.path.join(self.bin, name)

    def tool(self, *arguments):
        # In a session of its own too: Ctrl-C must not reach it halfway.
        result = subprocess.run([self.program("kelgw"), *arguments], capture_output=True, stdin=subprocess.DEVNULL,
                                env={**os.environ, **self.env}, start_new_session=True, timeout=30, check=False)
        if result.returncode != 0:
            raise Trouble(f"kelgw {' '.join(arguments)}: " + result.stderr.decode(errors="replace").strip().replace("\n", " | "))
        return result.stdout.decode(errors="replace")

    def start(self):
        redis = self.start_child("redis", "redis-server", "--port", "0", "--unixsocket", self.socket, "--dir", self.folder,
                                 "--save", "", "--appendonly", "yes", "--maxmemory-policy", "noeviction")
        wait_for("the start of Redis", lambda: answers(socket.AF_UNIX, self.socket), redis)
        port = free_port()
        self.kel_url = f"mqtt://127.0.0.1:{port}?group={GROUP}"
        config = os.path.join(self.folder, "mosquitto.conf")
        with open(config, "w", encoding="utf-8") as file:
            file.write(f"listener {port} 127.0.0.1\nallow_anonymous true\npersistence false\nset_tcp_nodelay true\n"
                       "max_inflight_messages 200\nmax_queued_messages 1000000\n")
            if os.geteuid() == 0:
                file.write("user root\n")
        broker = self.start_child("mosquitto", "mosquitto", "-c", config)
        wait_for("the start of mosquitto", lambda: answers(socket.AF_INET, ("127.0.0.1", port)), broker)
        say(f"private Redis on {self.socket}, private MQTT broker on 127.0.0.1:{port}")

        self.tool("apply", os.path.join(HERE, "plant.yaml"))
        addressed = [element for element in json.loads(self.tool("dp", "ls", "--json"))["elements"] if element["address"]]
        (listed,) = json.loads(self.tool("dp", "get", LISTS["publications"], "--json"))["elements"]
        self.publications = [entry.split("\x1a")[0] for entry in listed["value"] or []]
        self.publication_of = {element["name"]: element["address"]["publication"] for element in addressed}
        say(f"plant applied: {len(addressed)} elements fed from Kel, {len(self.publications)} publications fed from elements")

        config = os.path.join(self.folder, "gateway.config")
        with open(config, "w", encoding="utf-8") as file:
            file.write(f'[kel]\nclientDPList = "{LISTS["clients"]}"\npubDPList = "{LISTS["publications"]}"\n'
                       f'publisherName = "{PUBLISHER}"\n')
        self.gateway = self.start_child("kel-gateway", self.program("kel-gateway"), "-config", config)
        wait_for("the mapping of every element",
                 lambda: self.gateway.output().count("Created client mapping") >= len(addressed), self.gateway)
        self.log = StoreLog(self.socket)
        wait_for("the gateway's first heartbeat", lambda: self.log.manager().get("@writer"), self.gateway)
        self.writer = self.log.manager()["@writer"]
        self.witness = None
        if self.publications:
            self.witness = self.start_child("subscriber", self.program("kelgw"), "kel", "sub", *self.publications, "--json")
        self.input = self.start_child("live-input", self.program("kel-live-input"), "--summary-json")
        say("gateway and live input are running; look deeper from a second terminal:")
        store, kel = f"PVSS_STORE={self.store_url}", f"KEL_URL='{self.kel_url}'"
        self.hints = [f"{store} {self.program('kelgw')} dp watch 'Machine.*'",
                      f"{kel} {self.program('kelgw')} kel sub machine/load machine/cpu",
                      f"redis-cli -s {self.socket} HGETALL dp:d:Machine.load"]
        if self.publications:
            self.hints.append(f"{store} {self.program('kelgw')} dp set Operator.setpoint 42    # while this one watches:")
            self.hints.append(f"{kel} {self.program('kelgw')} kel sub operator/setpoint")
        for hint in self.hints:
            print(f"  {hint}", flush=True)

    # -------------------------------------------------------------------------------------- watching

    def watch(self, seconds, table):
        end = None if seconds is None else time.monotonic() + seconds
        if table:
            sys.stdout.write("\x1b[?1049h\x1b[?25l")
        try:
            turn = time.monotonic()
            while end is None or time.monotonic() < end:
                for child in self.children:
                    child.check()
                self.log.read_on(self.writer)
                readings = json.loads(self.tool("dp", "get", *sorted(self.publication_of), "--json"))["elements"]
                (self.draw if table else self.lines)(readings)
                turn += 1
                pause = turn - time.monotonic()
                if end is not None:
                    pause = min(pause, end - time.monotonic())
                time.sleep(max(0.0, pause))
        finally:
            if table:
                sys.stdout.write("\x1b[?25h\x1b[?1049l")
                sys.stdout.flush()

    @staticmethod
    def row(reading):
        value = reading["value"]
        if isinstance(value, list):
            text = "[" + ", ".join(short(item) for item in value) + "]"
        else:
            text = short(value)
        text = text.encode("ascii", "replace").decode()
        return (reading["name"], text if len(text) <= 44 else text[:41] + "...",
                QUALITY[(reading["userbit1"], reading["userbit2"])], "invalid" if reading["invalid"] else "valid",
                reading["stime"] or "-")

    def lines(self, readings):
        for reading in readings:
            # Every second everything arrives anew; here a line is worth it when something is different.
            name, value, quality, invalid, when = self.row(reading)
            if reading["stimeMs"] and self.shown.get(name) != (value, quality, invalid):
                self.shown[name] = (value, quality, invalid)
                print(f"{when}  {name} = {value}  {quality}, {invalid}", flush=True)

    def draw(self, readings):
        size = shutil.get_terminal_size()
        rows = [("ELEMENT", "VALUE", "QUALITY", "FLAG", "SOURCE TIME")] + [self.row(reading) for reading in readings]
        widths = [max(len(row[column]) for row in rows) for column in range(5)]
        errors = [line for line in self.gateway.output().splitlines() if line.startswith("ERROR:")][-2:]
        foot = ["", f"{self.log.values} values written in {self.log.writes} writes"
                + (f", {self.published()[0]} records published" if self.witness else "") + "; Ctrl-C stops and removes everything",
                *[f"gateway: {line}" for line in errors], "", "from a second terminal:", *["  " + hint for hint in self.hints]]
        room = max(2, size.lines - len(foot) - 1)
        if len(rows) > room:
            rows = rows[:room - 1] + [(f"... {len(rows) - room + 1} more; a taller terminal shows them", "", "", "", "")]
        text = []
        for number, row in enumerate(rows):
            line = "  ".join(cell.ljust(width) for cell, width in zip(row, widths))[:size.columns]
            style = "1" if number == 0 else "31" if row[3] == "invalid" else "0"
            text.append(f"\x1b[{style}m{line}\x1b[0m\x1b[K")
        text += [line + "\x1b[K" for line in foot]
        sys.stdout.write("\x1b[H" + "\r\n".join(text) + "\x1b[J")
        sys.stdout.flush()

    # -------------------------------------------------------------------------------------- the end

    def published(self):
        """(records received by the subscriber here, numbers missing in their sequences)"""
        received, ends = 0, {}
        for line in self.witness.output().splitlines(keepends=True):
            if not line.endswith("\n"):
                continue
            event = json.loads(line)
            if event["event"] == "record":
                received += 1
                first, last, count = ends.get(event["publication"], (event["sequence"], 0, 0))
                ends[event["publication"]] = (first, max(last, event["sequence"]), count + 1)
        return received, sum(last - first + 1 - count for first, last, count in ends.values())

    def gateway_counters(self):
        for publisher in json.loads(self.tool("kel", "ls", "--json"))["publishers"]:
            if publisher["name"] == PUBLISHER:
                return publisher["counters"]
        raise Trouble("the gateway's presence is not there")

    def finish(self):
        """Stops the input, lets everything arrive, and prints the summary; the exit code."""
        self.input.check()
        self.input.stop()
        sent = json.loads(self.input.output().splitlines()[-1])
        end = time.monotonic() + SETTLE_SECONDS
        previous = None
        while True:
            kel = self.gateway_counters()
            manager = {name: int(text) for name, text in self.log.manager().items() if text.isdigit()}
            now = (kel["received"], kel["delivered"], kel["sends"], manager["queued"], manager["confirmed"])
            # Still for a heartbeat and more, and nothing on its way.
            if now == previous and kel["received"] >= sent["sent"] and manager["pending"] == 0 \
                    and kel["pending"] == 0 and kel["outgoingPending"] == 0:
                break
            if time.monotonic() > end:
                break
            previous = now
            time.sleep(1.5)
        self.log.read_on(self.writer)
        received, missing = self.published() if self.witness else (0, 0)

        lost = {
            "not acknowledged by the broker": sent["sent"] - sent["acknowledged"],
            "not received by the gateway": max(0, sent["sent"] - kel["received"]),
            "received but not delivered": sum(kel[name] for name in
                                              ("superseded", "decodeErrors", "discarded", "held", "pending")),
            "given to the store but not confirmed": manager["queued"] - manager["confirmed"],
            "published but not acknowledged": kel["sends"] - kel["acknowledged"],
            "missing at the subscriber": missing,
        }
        total = sum(lost.values())
        say(f"live input sent {sent['sent']} records, the gateway received {kel['received']}")
        say(f"values written    {self.log.values} (in {self.log.writes} writes)")
        say(f"records published {received}" + ("" if self.publications else " (the plant has no publication)"))
        say(f"lost              {total}" + "".join(f"; {count} {what}" for what, count in lost.items() if count))
        errors = [line for line in self.gateway.output().splitlines() if line.startswith("ERROR:")]
        for line in errors[:10]:
            say(f"the gateway reported: {line}")
        code = self.gateway.stop()
        if code != 0:
            raise Trouble(f"the gateway ended with {code}")
        flowed = self.log.values > 0 and (received > 0 or not self.publications)
        if not flowed:
            say("data did not flow" + (" both ways" if self.publications else ""))
        return 0 if flowed and total == 0 else 1

    def clean_up(self):
        for child in reversed(self.children):
            child.stop()


def short(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    return f"{value:.4g}" if isinstance(value, float) else "-" if value is None else str(value)


def stop_asked(_number, _frame):
    # Once is enough: a second Ctrl-C must not end the clean-up halfway.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    raise Stop


def main():
    parser = argparse.ArgumentParser(description="Runs the whole demonstration privately.")
    parser.add_argument("--bin", required=True, help="folder with kel-gateway, kelgw and kel-live-input")
    parser.add_argument("--for", dest="seconds", type=float, help="end after this many seconds")
    parser.add_argument("--table", action="store_true", default=sys.stdout.isatty(), help="the table also where there is no terminal")
    arguments = parser.parse_args()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop_asked)

    folder = tempfile.mkdtemp(prefix="kelgw-run.")
    demonstration = Demonstration(arguments.bin, folder)
    code = 1
    try:
        started = False
        try:
            demonstration.start()
            started = True
            demonstration.watch(arguments.seconds, arguments.table)
        except Stop:
            pass
        # The end was asked for, by time or by a person; nobody may interrupt what follows.
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        if started:
            code = demonstration.finish()
        else:
            say("stopped before everything was running")
    except (Trouble, OSError, subprocess.TimeoutExpired) as trouble:
        print(f"run: {trouble}", file=sys.stderr)
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        demonstration.clean_up()
        shutil.rmtree(folder, ignore_errors=True)
    return code


if __name__ == "__main__":
    sys.exit(main())
