"""The language of the fault scenarios: one small text file each, one statement a line, '#' begins a comment.

parse() reads a text and refuses what cannot run: every mistake with file, line, what is wrong and what to do. It starts
nothing. docs/faults.md has the list of statements; FORMS below is what it is held against by a test.
"""

import difflib
import os
import re
import shlex

PROCESSES = ("store", "broker", "gateway", "gateway2", "publisher", "publisher2", "writer")
LINKS = ("gateway-store", "gateway-broker", "publisher-broker")
SERVERS = ("store", "broker")
CLOCKS = ("gateway", "store")
# Publications of one element each, to which something happens that does not happen to the others.
ODD = ("deleted", "retyped", "large")

# Each form is the line as it is written, with places in angle brackets.
FORMS = {
    # What is known before anything starts.
    "title <text>": "what the scenario shows, for the table and for people",
    "runs <count>": "how often it is run unless somebody says otherwise",
    "with keep-alive <number> s": "keep-alive of the broker links",
    "with backlog <number> MB": "bound of the gateway's backlog of writes",
    "with broker persistence": "the broker keeps retained messages on disk, written every second",
    "with buffer time <count> ms": "of every other outgoing publication",
    "with default broker queue": "the broker's queues are as mosquitto has them when nobody says anything",
    "with broker message limit <number> KB": "larger messages are refused",
    "with log-in": "gateways log in at both servers, so that their rights can be taken away",
    "with invalid after <number> s": "how long the store may be away before publications are bad",
    "with small disk <number> MB": "the store's folder is a file system of that size",
    "with replica": "the store has a replica, and three sentinels that make it the master when the store dies",
    "load <count> records/s over <count> publications": "what the publisher sends; without it there is no publisher",
    "writes <count> /s over <count> publications": "what the writer changes; without it there is no writer",
    # What happens.
    "start <process>": "starts it; one that ran before starts again, with the data it had",
    "kill -9 <process>": "SIGKILL",
    "kill -9 <process> and <process>": "SIGKILL for both in one moment",
    "stop <process>": "SIGTERM, and waits for its end",
    "stop load": "publisher and writer send nothing more, and stay alive",
    "resume load": "and go on",
    "pause <process>": "SIGSTOP",
    "continue <process>": "SIGCONT",
    "restart <process> when it ends": "a second after it has ended by itself, as a service manager does",
    "cut <link>": "nothing passes any more, and nobody is told: no FIN, no RST",
    "refuse <link>": "open connections are closed and new ones refused",
    "delay <link> <number> ms": "everything arrives so much later",
    "throttle <link> <number> KB/s": "everything passes at most so fast",
    "heal <link>": "all is well again; what waited passes",
    "fill disk": "nothing more fits into the store's folder",
    "free disk": "and again it does",
    "fill memory": "the store has reached its bound of memory and refuses what takes more",
    "free memory": "and has room again",
    "take rights at <server>": "the gateways may do nothing there any more that they were logged in for",
    "give rights at <server>": "and again they may",
    "cut <count> KB off the log of store": "the end of what the dead store had on disk is gone",
    "change lists": "elements move over publications; outgoing publications come and go",
    "delete published element": "while its publication is in use",
    "retype published element": "from int to text, while its publication is in use",
    "publish a record of <count> KB": "by somebody who is no member, into one element of type text",
    "write a value of <count> KB": "into an element of type text that is published",
    "let replica fall behind": "what the store takes from now on does not reach its replica",
    "wait until promoted": "until the replica is the store",
    "step clock of <clock> by <signed> s": "the wall clock of that one process",
    "wait <number> s": "nothing happens for so long",
    "wait until flowing": "until every publication in use has passed, both ways",
    # What must hold.
    "expect flow resumes within <number> s": "after the last return every publication passes again, both ways",
    "expect flow goes on within <number> s": "counted from this line, every publication passes, both ways",
    "expect elements invalid within <number> s": "after the last loss every fed element is marked invalid",
    "expect source times kept": "no value's source time changes by anything but a new value",
    "expect elements equal the last published values within <number> s": "value good, of the newest record",
    "expect publications carry the last element values within <number> s": "the newest record is good and has them",
    "expect sequences never go back": "in the store's log, within one incarnation",
    "expect records whole": "all fields of one record are written together",
    "expect no presence of <process> within <number> s": "the broker keeps no sign of life of its name",
    "expect nothing dead shown as good after <number> s": "a killed publisher's values, a killed gateway's records",
    "expect ledger balances within <number> s": "as kelgw status --ledger says",
    "expect lost at most <count>": "records that nothing accounts for",
    "expect coalesced above <count>": "superseded and counted",
    "expect memory of <process> below <number> MB": "the most that was ever resident",
    "expect owner changes at most <count>": "of publications, seen by a subscriber",
    "expect <process> says <text> once": "on standard output or error, since its last start",
    "expect <process> says <text> at least once within <number> s": "likewise",
    "expect <process> never says <text>": "likewise",
    "expect <process> ended by itself with <count> within <number> s": "at least once, and with no other exit code",
    "expect one owner within <number> s": "of the manager number and of everything published",
    "expect publications bad within <number> s": "after the last loss every outgoing one says that it is bad",
    "expect <odd> publication bad within <number> s": "the newest record of that one says so",
    "expect <odd> publication good within <number> s": "and carries what its element has",
    "expect large record written within <number> s": "its element is good and has all of it",
    "expect moved elements right within <number> s": "after the last change of the lists, both ways",
    "expect forgotten above <count>": "records that a store had confirmed and lost",
    "expect <process> running": "it has not ended",
    "expect <process> idle": "no mapping made, nothing published: it waits",
}

PLACES = {
    "count": (re.compile(r"\d{1,9}\Z"), int, "a whole number"),
    "number": (re.compile(r"\d{1,6}(\.\d{1,3})?\Z"), float, "a number"),
    "signed": (re.compile(r"[+-]?\d{1,7}\Z"), int, "whole seconds with a sign"),
    "process": (None, str, "one of: " + ", ".join(PROCESSES)),
    "link": (None, str, "one of: " + ", ".join(LINKS)),
    "server": (None, str, "one of: " + ", ".join(SERVERS)),
    "clock": (None, str, "one of: " + ", ".join(CLOCKS)),
    "odd": (None, str, "one of: " + ", ".join(ODD)),
    "text": (None, str, "a text in double quotes"),
}
NAMES = {"process": PROCESSES, "link": LINKS, "server": SERVERS, "clock": CLOCKS, "odd": ODD}
SETTINGS = ("title", "runs", "with", "load", "writes")
# What is done to servers beyond signals and links; troubles.py does it.
TROUBLES = ("fill memory", "free memory", "take rights at <server>", "give rights at <server>",
            "cut <count> KB off the log of store", "change lists", "delete published element", "retype published element",
            "publish a record of <count> KB", "write a value of <count> KB")
ODD_STATEMENTS = {"deleted": "delete published element", "retyped": "retype published element",
                  "large": "write a value of 100 KB"}


class Mistake(Exception):
    """One line a mistake: file:line: what is wrong; what to do."""


class Statement:
    """One line: its form, and what stands in the form's places, in order."""

    def __init__(self, line, text, form, values):
        self.line, self.text, self.form, self.values = line, text, form, values

    @property
    def verb(self):
        return self.form.split()[0]

    def __repr__(self):
        return f"{self.line}: {self.text}"


class Scenario:
    """A scenario that can be run: what it needs to know before the start, and its steps in order."""

    def __init__(self, name):
        self.name = name
        self.title = name
        self.runs = 20
        self.keep_alive = 5
        self.backlog_mb = None
        self.broker_persistence = False
        self.disk_mb = None
        self.replica = False
        self.buffer_ms = 100
        self.default_queue = False
        self.message_limit_kb = None
        self.log_in = False
        self.invalid_after = None
        self.rate = self.publications = 0
        self.write_rate = self.out_publications = 0
        self.steps = []

    @property
    def links(self):
        return {value for step in self.steps for place, value in zip(places(step.form), step.values) if place == "link"}

    def steps_clock(self, whose):
        return any(step.form.startswith("step clock") and step.values[0] == whose for step in self.steps)

    def has(self, *starts):
        """Whether a step begins with one of these texts."""
        return any(step.form.startswith(starts) for step in self.steps)

    @property
    def expectations(self):
        return [step for step in self.steps if step.verb == "expect"]


def places(form):
    return [word[1:-1] for word in form.split() if word.startswith("<")]


def _match(form, words):
    """(values, number of words that fitted, what is wrong with the next one): values is None when the form does not fit."""
    pattern = form.split()
    values = []
    for index, expected in enumerate(pattern):
        if index >= len(words):
            return None, index, f"the line ends where '{' '.join(pattern[index:])}' is expected"
        word = words[index]
        if not expected.startswith("<"):
            if word != expected:
                return None, index, f"'{word}' stands where '{expected}' is expected"
            continue
        place = expected[1:-1]
        if place == "text" and index == len(pattern) - 1 and index > 0 and form.startswith("title"):
            values.append(" ".join(words[index:]))
            return values, len(words), ""
        check, convert, what = PLACES[place]
        if (check and not check.match(word)) or (place in NAMES and word not in NAMES[place]):
            return None, index, f"'{word}' is not {what}"
        values.append(convert(word))
    if len(words) > len(pattern):
        return None, len(pattern), f"'{words[len(pattern)]}' is too much here"
    return values, len(words), ""


def _closest(words):
    """The mistake of the form that fits the furthest; of equals the one that looks most like the line."""
    best = []
    for form in FORMS:
        values, length, wrong = _match(form, words)
        if values is None:
            alike = difflib.SequenceMatcher(None, " ".join(words), form).ratio()
            best.append((length, alike, form, wrong))
    length, _, form, wrong = max(best)
    if length == 0:
        verbs = sorted({form.split()[0] for form in FORMS})
        return f"no statement begins with '{words[0]}'; write one of: {', '.join(verbs)}"
    return f"{wrong}; write: {form}"


def parse_line(text):
    """(form, values) or raises Mistake without file and line."""
    try:
        lexer = shlex.shlex(text, posix=True)
        lexer.quotes, lexer.whitespace_split = '"', True
        words = list(lexer)
    except ValueError:
        raise Mistake("a quote is opened and not closed; close it on the same line") from None
    if not words:
        return None
    for form in FORMS:
        values, _, _ = _match(form, words)
        if values is not None:
            return form, values
    raise Mistake(_closest(words))


def _take_setting(scenario, form, values):
    if form.startswith("title"):
        (scenario.title,) = values
    elif form.startswith("runs"):
        (scenario.runs,) = values
        if scenario.runs == 0:
            raise Mistake("it would never run; write at least: runs 1")
    elif form.startswith("with keep-alive"):
        (scenario.keep_alive,) = values
        if scenario.keep_alive != int(scenario.keep_alive) or scenario.keep_alive < 1:
            raise Mistake("a keep-alive is whole seconds from 1; write: with keep-alive 2 s")
        scenario.keep_alive = int(scenario.keep_alive)
    elif form.startswith("with backlog"):
        (scenario.backlog_mb,) = values
    elif form == "with broker persistence":
        scenario.broker_persistence = True
    elif form.startswith("with broker message limit"):
        (scenario.message_limit_kb,) = values
    elif form == "with default broker queue":
        scenario.default_queue = True
    elif form == "with log-in":
        scenario.log_in = True
    elif form.startswith("with invalid after"):
        (scenario.invalid_after,) = values
    elif form.startswith("with buffer time"):
        (scenario.buffer_ms,) = values
    elif form.startswith("with small disk"):
        (scenario.disk_mb,) = values
    elif form == "with replica":
        scenario.replica = True
    else:
        rate, count = values
        if rate == 0 or count == 0:
            raise Mistake("nothing would ever flow; leave the line out, or give numbers from 1")
        if form.startswith("load"):
            scenario.rate, scenario.publications = rate, count
        else:
            scenario.write_rate, scenario.out_publications = rate, count
    if scenario.replica and scenario.disk_mb is not None:
        raise Mistake("a store has a replica or a small disk, not both; leave one of the two out")
    if scenario.log_in and (scenario.replica or scenario.disk_mb is not None):
        raise Mistake("a store with a log-in has neither a replica nor a small disk; leave one of the two out")


class _Life:
    """What can be said about each process and link by reading from above: who runs, who is paused, which link is ill."""

    def __init__(self, scenario):
        self.scenario = scenario
        self.running, self.paused, self.ill = set(), set(), set()
        self.lost = self.returned = False
        self.full = False        # the disk
        self.short = False       # the memory
        self.rights = set(SERVERS)
        self.odd = set()         # what has happened to odd publications

    def step(self, form, values):
        verb = form.split()[0]
        if verb == "expect":
            self.expect(form, values)
        elif form == "start <process>":
            self.start(*values)
        elif verb in ("kill", "pause", "continue") or form == "stop <process>":
            for process in values:
                self.hit(verb, process)
        elif form.startswith("restart"):
            self.runs(values[0])
        elif form in TROUBLES:
            self.trouble(form, values)
        elif verb in ("cut", "refuse", "delay", "throttle"):
            if values[0] == "gateway-store" and self.scenario.replica:
                raise Mistake("with a replica this link has no one place to be cut; leave one of the two out")
            self.ill.add(values[0])
            self.lost = True
        elif verb == "heal":
            if values[0] not in self.ill:
                raise Mistake(f"nothing is wrong with {values[0]} here; cut, refuse, delay or throttle it first")
            self.ill.discard(values[0])
            self.returned = True
        elif form in ("fill disk", "free disk"):
            self.disk(form == "fill disk")
        elif form in ("let replica fall behind", "wait until promoted"):
            self.replica(form == "wait until promoted")
        elif form in ("stop load", "resume load", "wait until flowing"):
            if not self.running & {"publisher", "writer"}:
                raise Mistake("neither publisher nor writer has been started; start one before this line")

    def start(self, process):
        if process in self.running:
            raise Mistake(f"{process} runs already; kill or stop it first")
        if process == "store" and self.scenario.replica and self.lost:
            raise Mistake("its replica takes its place; write instead: wait until promoted")
        if process in ("publisher", "publisher2") and not self.scenario.rate:
            raise Mistake("the publisher has nothing to send; write a line before it: load 2000 records/s over 20 publications")
        if process == "writer" and not self.scenario.write_rate:
            raise Mistake("the writer has nothing to write; write a line before it: writes 200 /s over 10 publications")
        self.running.add(process)
        self.returned = self.returned or self.lost

    def runs(self, process):
        if process not in self.running:
            raise Mistake(f"{process} does not run here; write a line before it: start {process}")

    def trouble(self, form, values):
        if form.endswith("log of store"):
            if "store" in self.running or not self.lost or self.scenario.replica:
                raise Mistake("its log is cut while the store is dead and will be started again; write a line before it: "
                              "kill -9 store")
            return
        self.runs("broker" if form.startswith("publish") or values[:1] == ["broker"] else "store")
        if form.endswith("memory"):
            if (form == "fill memory") == self.short:
                raise Mistake("write 'fill memory' and 'free memory' in turn")
            self.short = not self.short
            self.lost, self.returned = True, self.returned or not self.short
        elif "rights" in form:
            self.rights_change(form.startswith("give"), *values)
        elif form == "delete published element":
            self.odd.add("deleted")
        elif form == "retype published element":
            self.odd.add("retyped")
        elif form.startswith("write a value"):
            self.odd.add("large")
        elif form.startswith("publish a record"):
            self.odd.add("record")
        else:
            self.odd.add("lists")

    def rights_change(self, back, server):
        if not self.scenario.log_in:
            raise Mistake("nobody has logged in; write a line before the first start: with log-in")
        if back == (server in self.rights):
            raise Mistake(f"write 'take rights at {server}' and 'give rights at {server}' in turn")
        (self.rights.add if back else self.rights.discard)(server)
        self.lost, self.returned = True, self.returned or back

    def hit(self, verb, process):
        self.runs(process)
        if process == "store" and verb in ("stop", "pause") and self.scenario.replica:
            raise Mistake("with a replica a store only dies; write instead: kill -9 store")
        if process == "store" and verb in ("kill", "stop") and self.scenario.disk_mb is not None:
            raise Mistake("the store could not come back, for its small disk goes with it; pause it, or leave the small disk out")
        if verb == "continue":
            if process not in self.paused:
                raise Mistake(f"{process} is not paused here; write a line before it: pause {process}")
            self.paused.discard(process)
            self.returned = True
            return
        if verb == "pause":
            self.paused.add(process)
        else:
            self.running.discard(process)
            self.paused.discard(process)
        self.lost = True

    def disk(self, full):
        if self.scenario.disk_mb is None:
            raise Mistake("the store has no disk of its own; write a line before the first start: with small disk 16 MB")
        if full == self.full:
            raise Mistake(f"the disk is {'full' if full else 'not full'} already; write 'fill disk' and 'free disk' in turn")
        self.full = full
        self.lost = True
        self.returned = self.returned or not full

    def replica(self, promoted):
        if not self.scenario.replica:
            raise Mistake("the store has no replica; write a line before the first start: with replica")
        if promoted == ("store" in self.running):
            raise Mistake("the store is not dead; write a line before it: kill -9 store" if promoted else
                          "the store does not run here; write a line before it: start store")
        if promoted:
            self.running.add("store")
            self.returned = True

    def expect(self, form, values):
        if "flow resumes" in form and not self.returned:
            raise Mistake("nothing has come back before this line; it needs a start, continue, heal or free disk after a loss")
        if "invalid within" in form and not self.lost:
            raise Mistake("nothing was lost before this line; it needs a kill, stop, pause or cut")
        if form.startswith("expect publications bad") and not self.lost:
            raise Mistake("nothing was lost before this line; it needs a kill, stop, pause or cut")
        if form.startswith("expect <odd>") and values[0] not in self.odd:
            raise Mistake(f"nothing has happened to it; write a line before it: {ODD_STATEMENTS[values[0]]}")
        if form.startswith("expect large record") and "record" not in self.odd:
            raise Mistake("there is none; write a line before it: publish a record of 100 KB")
        if form.startswith("expect moved") and "lists" not in self.odd:
            raise Mistake("nothing has moved; write a line before it: change lists")
        wanted = [value for place, value in zip(places(form), values) if place == "process"]
        if (form.endswith("running") or form.endswith("idle")) and wanted[0] not in self.running:
            raise Mistake(f"{wanted[0]} does not run here; write a line before it: start {wanted[0]}")


def parse(name, text, path=None):
    """The scenario in `text`; raises Mistake with every mistake, a line each. `path` is what the lines are named by."""
    path = path or name
    scenario = Scenario(name)
    life = _Life(scenario)
    wrong = []
    begun = False
    for number, line in enumerate(text.split("\n"), 1):
        try:
            found = parse_line(line)
            if found is None:
                continue
            form, values = found
            if form.split()[0] in SETTINGS:
                if begun:
                    raise Mistake(f"'{form.split()[0]}' is settled before anything happens; move this line above the first start")
                _take_setting(scenario, form, values)
                continue
            begun = True
            life.step(form, values)
            scenario.steps.append(Statement(number, " ".join(line.split("#")[0].split()), form, values))
        except Mistake as mistake:
            wrong.append(f"{path}:{number}: {mistake}")
    if not wrong and not scenario.expectations:
        wrong.append(f"{path}:{text.count(chr(10)) + 1}: it expects nothing, so it could not fail; add a line: expect ...")
    if wrong:
        raise Mistake("\n".join(wrong))
    return scenario


def load(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    name = os.path.basename(path)
    return parse(name[:-len(".scenario")] if name.endswith(".scenario") else name, text, path)
