"""What a scenario does to servers and configuration beyond signals and links, and what it asks of them to be judged by
verdicts.py. One of these belongs to each run; docs/faults.md has the statements."""

import glob
import json
import os
import re
import struct
import time

import harness
import recorders
import resp
import verdicts
from witness import codec

CLOCK_LIBRARY = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1"
USER = "gateway"
MANAGER = 1
# What a gateway says that has lost its number and ends.
ENDS = re.compile(r"manager number \d+ was taken by .*: this one ends, (\d+) values were not written$")
MOVING = 4  # elements that move, over one publication less and one that nobody publishes
SEEN_EVERY_SECONDS = 0.05


class Clock:
    """The offset that one process's wall clock has from the true one, through a library that reads it from a file: that of
    the package faketime, which goes with threads that wait, or, for the store, whose allocator that one does not go with,
    clock_shim.cpp."""

    def __init__(self, folder, whose):
        self.whose, self.path = whose, os.path.join(folder, whose + ".clock")
        self.shim = whose == "store"
        self.library = os.path.join(harness.BIN, "libclock_shim.so") if self.shim else CLOCK_LIBRARY
        self.step(0)

    def step(self, seconds):
        if self.shim:
            with open(self.path, "r+b" if os.path.exists(self.path) else "wb", buffering=0) as file:
                file.write(struct.pack("<q", seconds))
            return
        with open(self.path + ".new", "w", encoding="ascii") as file:
            file.write(f"{seconds:+d}s\n")
        os.rename(self.path + ".new", self.path)

    @property
    def environment(self):
        if self.shim:
            return {"LD_PRELOAD": self.library, "STEPPED_CLOCK": self.path}
        return {"LD_PRELOAD": self.library, "FAKETIME_TIMESTAMP_FILE": self.path, "FAKETIME_NO_CACHE": "1",
                "FAKETIME_DONT_FAKE_MONOTONIC": "1"}

    def works_for(self, process):
        with open(f"/proc/{process.pid}/maps", encoding="utf-8") as maps:
            if os.path.basename(self.library) not in maps.read():
                raise RuntimeError(f"the clock of {self.whose} cannot be stepped: {self.library} is not there")


class Troubles:
    def __init__(self, rig):
        self.rig = rig
        self.turn = 0      # how often the lists have been changed
        self.plant = None  # as it was before the first change
        self.sent = {}     # what was last given to an odd element
        self.moved_at = None

    @property
    def scenario(self):
        return self.rig.scenario

    # -------------------------------------------------------------------------------------------- the plant

    def extend(self, plant):
        """Adds the elements and publications of the statements that the scenario has."""
        if self.scenario.has("delete published"):
            self._odd(plant, "deleted", "int")
        if self.scenario.has("retype published"):
            self._odd(plant, "retyped", "int")
        if self.scenario.has("write a value"):
            self._odd(plant, "large", "text")
        if self.scenario.has("publish a record"):
            plant["elements"]["In.v"] = "text"
            plant["subscribe"]["in/large"] = {"v": "In.v"}
        self.plant = plant
        return self._with_moving(plant) if self.scenario.has("change lists") else plant

    @staticmethod
    def _odd(plant, name, kind):
        plant["elements"][f"Odd.{name}"] = {"type": kind, "value": "small" if kind == "text" else 1}
        plant["publish"][f"odd/{name}"] = {"bufferTime": 0, "fields": {"v": f"Odd.{name}"}}

    def _source(self, element):
        """The publication that feeds a moving element now; None for the one that nobody publishes."""
        place = (element + self.turn) % MOVING
        return place if place < MOVING - 1 else None

    def _with_moving(self, plant):
        plant = json.loads(json.dumps(plant))
        for element in range(MOVING):
            plant["elements"][f"M{element}.v"] = "int"
            source = self._source(element)
            name = "nobody/0" if source is None else f"load/{source}"
            plant["subscribe"].setdefault(name, {})["m"] = f"M{element}.v"
        plant["publish"][f"moved/{self.turn}"] = {"bufferTime": 0, "fields": {"v": self._published(self.turn)}}
        return plant

    @staticmethod
    def _published(turn):
        """The element of the publication that came with that change of the lists, and went with the next. A gateway goes on
        with those that have gone from the list, until it is started again."""
        return f"O{turn % 2}.y"

    def _change_lists(self):
        self.turn += 1
        self.rig.apply(self._with_moving(self.plant))
        self.moved_at = time.monotonic()

    # -------------------------------------------------------------------------------------------- statements

    def do(self, form, values):
        {"change lists": self._change_lists,
         "fill memory": self._fill_memory,
         "free memory": self._free_memory,
         "take rights at <server>": self._take_rights,
         "give rights at <server>": self._give_rights,
         "cut <count> KB off the log of store": self._cut_log,
         "delete published element": self._delete,
         "retype published element": self._retype,
         "publish a record of <count> KB": self._publish,
         "write a value of <count> KB": self._write}[form](*values)

    def _command(self, *words):
        link = resp.Link(self.rig.store.path)
        try:
            return link.command(*words)
        finally:
            link.close()

    def _fill_memory(self):
        used = dict(line.split(":", 1) for line in self._command("INFO", "memory").decode().split("\r\n") if ":" in line)
        self.rig.lost("the store's memory was full")
        self._command("CONFIG", "SET", "maxmemory", int(used["used_memory"]) // 2)

    def _free_memory(self):
        self.rig.came_back(time.monotonic(), "the store's memory had room again")
        self._command("CONFIG", "SET", "maxmemory", 0)

    def _take_rights(self, server):
        self.rig.lost(f"rights were taken at {server}")
        if server == "store":
            self._command("ACL", "SETUSER", USER, "-fcall")
        else:
            self.rig.broker.allow(False)

    def _give_rights(self, server):
        self.rig.came_back(time.monotonic(), f"rights were given back at {server}")
        if server == "store":
            self._command("ACL", "SETUSER", USER, "+fcall")
        else:
            self.rig.broker.allow(True)

    def _cut_log(self, kilobytes):
        path = max(glob.glob(os.path.join(self.rig.folder, "appendonlydir", "*.incr.aof")), key=os.path.getmtime)
        size = os.path.getsize(path) - kilobytes * 1024
        if size < 4096:
            raise RuntimeError(f"the store's log is too short to lose {kilobytes} KB")
        os.truncate(path, size)

    def _delete(self):
        self._command("FCALL", "dp_del", 0, "harness", "Odd.deleted")

    def _retype(self):
        self._command("FCALL", "dp_put", 0, "harness", "Odd.retyped", "text")
        self._command("FCALL", "dp_set", 0, f"harness.odd.{os.getpid()}", "", 1, 0, "", "", "Odd.retyped", "i0vnow a text")

    def _publish(self, kilobytes):
        self.sent["record"] = "r" * (kilobytes * 1024)
        payload = codec.encode({"v": ("string", self.sent["record"])}, time_ns=time.time_ns())
        self.rig.broker.publish("in/large", payload)

    def _write(self, kilobytes):
        self.sent["large"] = "w" * (kilobytes * 1024)
        self._command("FCALL", "dp_set", 0, f"harness.odd.{time.monotonic_ns()}", "", 1, 0, "", "", "Odd.large",
                      "i0v" + self.sent["large"])

    # -------------------------------------------------------------------------------------------- what is asked

    def one_owner(self):
        verdicts.one_owner(*self._owners(), {name: process.pid for name, process in self.rig.now.items() if process.running()})

    def _owners(self):
        """(process that holds the manager number, {publication: process that it says it is published by}); None: nobody."""
        try:
            holder = self._command("HGET", f"dp:mgr:{MANAGER}:lease", "writer")
            flat = self._command("HGETALL", f"dp:mgr:{MANAGER}")
            told = dict(zip(flat[::2], flat[1::2]))
            records = recorders.kept(self.rig.broker.port, f"kel/{harness.GROUP}/data/out/#")
            presences = recorders.kept(self.rig.broker.port, f"kel/{harness.GROUP}/publisher/#")
        except (OSError, resp.Refused) as trouble:
            raise verdicts.Violated(f"a server does not answer: {trouble}") from None
        number = int(told[b"@process"]) if holder is not None and told.get(b"@writer") == holder else None
        alive = {topic.split("/")[-1]: codec.Record(payload).fields["process"][1] for topic, payload in presences.items()}
        owners = {}
        for topic, payload in records.items():
            incarnation = (codec.Record(payload).publisher or "/").split("/")[-1]
            owners[topic.split("/data/")[-1]] = alive.get(incarnation)
        return number, owners

    def odd_publication(self, name, good):
        payload = self._kept("odd").get(f"odd/{name}")
        verdicts.odd_publication(name, good, payload and codec.Record(payload), self._element(f"Odd.{name}"))

    def _kept(self, room):
        prefix = f"kel/{harness.GROUP}/data/"
        try:
            return {topic[len(prefix):]: payload
                    for topic, payload in recorders.kept(self.rig.broker.port, f"{prefix}{room}/#").items()}
        except OSError as trouble:
            raise verdicts.Violated(str(trouble)) from None

    def _element(self, name):
        try:
            flat = self._command("HGETALL", "dp:d:" + name)
        except (OSError, resp.Refused) as trouble:
            raise verdicts.Violated(f"the store does not answer: {trouble}") from None
        return {key.decode(): value.decode("utf-8", "backslashreplace") for key, value in zip(flat[::2], flat[1::2])}

    def large_record(self):
        verdicts.large_record(self._element("In.v"), self.sent["record"])

    def moved(self, newest):
        """`newest`: publication -> number, of load/..."""
        wanted = {f"M{element}.v": None if self._source(element) is None else newest(self._source(element))
                  for element in range(MOVING)}
        verdicts.moved_elements(wanted, {name: self._element(name) for name in wanted})
        records = {name: codec.Record(payload) for name, payload in self._kept("moved").items()}
        wanted = {f"moved/{turn}": self._element(self._published(turn)) for turn in range(self.turn + 1)}
        verdicts.moved_publications(wanted, records)


class Supervisor:
    """Starts again what ends by itself, a second later, as the service manager does that packaging/ has a unit for."""

    PAUSE_SECONDS = 1.0

    def __init__(self, rig):
        self.rig = rig
        self.names = set()
        self.due = {}    # process -> when it is started again
        self.codes = {}  # process -> exit codes of its ends by itself

    def look(self):
        now = time.monotonic()
        for name in self.names:
            if name in self.rig.now and not self.rig.now[name].running():
                self.codes.setdefault(name, []).append(self.rig.ended(name))
                self.due[name] = now + self.PAUSE_SECONDS
            elif name in self.due and now >= self.due[name]:
                del self.due[name]
                self.rig.start(name, is_return=False)

    def wait(self, seconds):
        """As time.sleep(), but what ends meanwhile is seen."""
        end = time.monotonic() + seconds
        while self.names and time.monotonic() + SEEN_EVERY_SECONDS < end:
            self.look()
            time.sleep(SEEN_EVERY_SECONDS)
        time.sleep(max(0.0, end - time.monotonic()))
        self.look()
