"""Everything of one run: servers, processes, links and witnesses, and what each statement does to them. Nothing here says
what is right; evidence.py does."""

import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

import evidence
import foreign
import harness
import language
import recorders
import resp
import servers
import standing
import traffic
import troubles
import verdicts
import witnesses

HERE = os.path.dirname(os.path.abspath(__file__))
PYTHON = "/usr/bin/python3"
PUBLISHER_NAMES = {"publisher": "load", "publisher2": "load", "gateway": "KelGateway", "gateway2": "KelGateway"}
# The numbers of the second publisher of one name are above all those of the first.
SECOND_LIVES = 10
STORE_SIDE = ("gateway-store",)


class Rig:
    """One run of one scenario in a folder of its own. run() gives a Result; close() ends every process that was started."""

    def __init__(self, scenario, keep_under=None):
        self.scenario = scenario
        self.folder = tempfile.mkdtemp(prefix=f"kelgw-faults.{scenario.name}.", dir=keep_under)
        self.clocks = {whose: troubles.Clock(self.folder, whose) for whose in language.CLOCKS if scenario.steps_clock(whose)}
        self.store = servers.ReplicatedStore(self.folder) if scenario.replica else servers.Store(
            self.folder, scenario.disk_mb, scenario.log_in, self.clocks.get("store"))
        self.broker = servers.Broker(self.folder, scenario)
        self.troubles = troubles.Troubles(self)
        self.supervisor = troubles.Supervisor(self)
        self.rate = max(1, int(scenario.rate / harness.PATIENCE))
        self.write_rate = max(1, int(scenario.write_rate / harness.PATIENCE))
        self.evidence = evidence.Evidence(scenario.publications if scenario.rate else 0,
                                          scenario.out_publications if scenario.write_rate else 0)
        self.now = {}        # name -> the running process
        self.past = []       # (name, process) of all that ever ran
        self.links = {}      # link -> its proxy
        self.watcher = self.recorder = self.reader = self.arrivals = self.foreign = None
        self.evidence.patience = harness.PATIENCE
        self.accounts = witnesses.AccountWatcher(self._publisher_accounts)
        self.wrong = set()   # what is paused, ill or full now
        self.hushed = set()  # processes of which what falls silent in a fault has been told so
        self.sampler = recorders.Sampler()
        self.sampler.start()
        self.applied = False
        self.figures = {"recovery": [], "invalid": []}
        self.story = []
        self.began = time.monotonic()

    @property
    def buffered(self):
        """Seconds that a buffered publication may wait."""
        return self.scenario.buffer_ms / 1000

    # -------------------------------------------------------------------------------------------- addresses

    def kel_url(self, link=None):
        port = self.broker.port if link not in self.scenario.links else self._proxy(link)
        return f"mqtt://127.0.0.1:{port}?group={harness.GROUP}&keepAlive={self.scenario.keep_alive}"

    def store_url(self, link=None):
        if self.scenario.replica:
            return self.store.url
        path = self.store.path if link not in self.scenario.links else self._proxy(link)
        return f"redis+unix://{path}"

    def _proxy(self, link):
        """Where to connect instead: the address of the link's proxy, started when first asked for."""
        if link not in self.links:
            if link in STORE_SIDE:
                address, server = os.path.join(self.folder, link + ".sock"), self.store.path
            else:
                address, server = servers.quiet_port(), f"127.0.0.1:{self.broker.port}"
            listen = address if isinstance(address, str) else f"127.0.0.1:{address}"
            process = recorders.TimedProcess([PYTHON, "-B", os.path.join(HERE, "proxy.py"), listen, server], stdin=True)
            self.past.append((link, process))
            self.links[link] = (address, process)
            self._order(link, "pass")
        return self.links[link][0]

    def _order(self, link, order):
        process = self.links[link][1]
        before = len(process.out)
        process.order(order)
        process.wait_for(f"{link}: {order}", lambda: len(process.out) > before)

    def environment(self, kel_link=None, store_link=None, log_in=False):
        kel, store = self.kel_url(kel_link), self.store_url(store_link)
        if log_in:
            passfile = os.path.join(self.folder, "password")
            with open(passfile, "w", encoding="ascii", opener=lambda path, flags: os.open(path, flags, 0o600)) as file:
                file.write(servers.PASSWORD + "\n")
            kel += f"&user={troubles.USER}&passfile={passfile}"
            store += f"?user={troubles.USER}&passfile={passfile}"
        return {"KEL_URL": kel, "PVSS_STORE": store, "PYTHONDONTWRITEBYTECODE": "1"}

    # -------------------------------------------------------------------------------------------- processes

    def start(self, name, is_return=True):
        again = name in self.evidence.lives
        lives = self.evidence.lives.setdefault(name, [])
        published, confirmed = self._published(), self._confirmed()
        born = time.monotonic()
        lives.append(evidence.Life(len(lives) + 1 + (SECOND_LIVES if name == "publisher2" else 0), born))
        getattr(self, "_start_" + name)(lives[-1].number)
        if name in self.now:
            self.sampler.watch(name, self.now[name].pid)
        if is_return and (again or self.evidence.losses):
            self.came_back(born, f"the start of {name}", published, confirmed)

    def _spawn(self, name, arguments, **options):
        process = recorders.TimedProcess(arguments, cwd=self.folder, **options)
        self.now[name] = process
        self.past.append((name, process))

    def _start_store(self, _):
        self.store.start()
        self.now["store"] = self.store.process
        self.past.append(("store", self.store.process))
        if self.scenario.replica:
            self.past.extend(self.store.others())
        if not self.applied:
            self._apply()
            self.watcher = recorders.LogWatcher(self.store.path)
            self.watcher.start()

    def _start_broker(self, _):
        self.broker.start()
        self.now["broker"] = self.broker.process
        self.past.append(("broker", self.broker.process))
        if self.recorder is None:
            self.recorder = recorders.BrokerRecorder(self.broker.port)
            self.recorder.start()
            self.arrivals = witnesses.Arrivals(self.broker.port)
            self.arrivals.start()
            if self.evidence.publications:
                self.foreign = foreign.Foreign(self.broker.port)
        if self.reader is None and self.evidence.out_publications:
            names = [f"out/{index}" for index in range(len(self.evidence.out_kinds()))]
            process = recorders.TimedProcess([os.path.join(harness.BIN, "kelgw"), "kel", "sub", *names, "--json"],
                                             env=self.environment(), cwd=self.folder)
            self.past.append(("reader", process))
            self.reader = recorders.KelReader(process)

    def _start_gateway(self, _):
        self._gateway("gateway", "gateway-broker", "gateway-store")

    def _start_gateway2(self, _):
        self._gateway("gateway2", None, None)

    def _gateway(self, name, kel_link, store_link):
        config = os.path.join(self.folder, name + ".config")
        with open(config, "w", encoding="utf-8") as file:
            file.write("[general]\n")
            if self.scenario.backlog_mb is not None:
                file.write(f"backlogBytes = {int(self.scenario.backlog_mb * 1048576 / harness.PATIENCE)}\n")
            if self.scenario.invalid_after is not None:
                file.write(f"invalidAfter = {self.scenario.invalid_after:g}\n")
            file.write(f'[kel]\nclientDPList = "{harness.LIST}"\npubDPList = "{harness.PUBLICATIONS}"\n'
                       f'publisherName = "{PUBLISHER_NAMES[name]}"\n')
        env = self.environment(kel_link, store_link, self.scenario.log_in)
        if name in self.clocks:
            env.update(self.clocks[name].environment)
        self._spawn(name, [os.path.join(harness.BIN, "kel-gateway"), "-config", config], env=env)

    def _start_publisher(self, life, name="publisher"):
        self._spawn(name, [os.path.join(harness.BIN, "load_publisher"), PUBLISHER_NAMES[name], self._account(name, life), life,
                           self.evidence.publications, self.rate],
                    env=self.environment("publisher-broker"), stdin=True)

    def _start_publisher2(self, life):
        self._start_publisher(life, "publisher2")

    def _start_writer(self, life):
        self._spawn("writer", [PYTHON, "-B", os.path.join(HERE, "writer.py"), self.store.path,
                               self._account("writer", life), life, self.evidence.out_publications, self.write_rate], stdin=True)

    def _apply(self):
        elements, subscribe, publish = {}, {}, {}
        for index, kind in enumerate(self.evidence.kinds()):
            elements.update({f"L{index}.{tag}": of for tag, of in traffic.fields(kind).items()})
            subscribe[f"load/{index}"] = {tag: f"L{index}.{tag}" for tag in traffic.fields(kind)}
        if self.evidence.publications:
            elements.update({f"F.{tag}": of for tag, of in foreign.FIELDS.items()})
            subscribe[foreign.PUBLICATION] = {tag: f"F.{tag}" for tag in foreign.FIELDS}
        for index, kind in enumerate(self.evidence.out_kinds()):
            elements.update({f"O{index}.{tag}": of for tag, of in traffic.out_fields(kind).items()})
            publish[f"out/{index}"] = {"bufferTime": self.scenario.buffer_ms if evidence.is_buffered(index) else 0,
                                       "fields": {tag: f"O{index}.{tag}" for tag in traffic.out_fields(kind)}}
        plant = {"elements": elements, "lists": {"clients": harness.LIST, "publications": harness.PUBLICATIONS},
                 "subscribe": subscribe, "publish": publish}
        self.apply(self.troubles.extend(plant))
        self.applied = True

    def apply(self, plant):
        path = os.path.join(self.folder, "plant.yaml")
        with open(path, "w", encoding="utf-8") as file:
            json.dump(plant, file)  # JSON is YAML
        code, out, err = self.tool("apply", path)
        if code != 0:
            raise RuntimeError(f"kelgw apply ended with {code}\n{out}\n{err}")

    def tool(self, *arguments, limit=60):
        done = subprocess.run([os.path.join(harness.BIN, "kelgw"), *arguments], env={**os.environ, **self.environment()},
                              cwd=self.folder, capture_output=True, stdin=subprocess.DEVNULL, timeout=limit * harness.PATIENCE,
                              check=False)
        return done.returncode, done.stdout.decode("utf-8", "backslashreplace"), done.stderr.decode("utf-8", "backslashreplace")

    def hit(self, names, number):
        """A signal for all of them in one moment; ends are waited for."""
        published = self._published()
        # The moment before the signals: what follows from them may be there before the next line runs.
        self.lost(" and ".join(f"the {'end' if number != signal.SIGSTOP else 'pause'} of {name}" for name in names))
        for name in names:
            if number != signal.SIGSTOP:
                self.supervisor.names.discard(name)
            self.now[name].send_signal(number)
        if number == signal.SIGSTOP:
            for name in names:
                self.evidence.lives[name][-1].hung.append(self.evidence.losses[-1][0])
            return
        for name in names:
            process = self.now.pop(name)
            self.sampler.look()
            process.wait(30)
            self.evidence.lives[name][-1].died = self.evidence.losses[-1][0]
            self.evidence.lives[name][-1].published = published
        if self.scenario.replica and "store" in names:
            self.store.master_is_dead()

    def ended(self, name):
        """Notes an end that nobody here has caused; the exit code."""
        process = self.now.pop(name)
        self.sampler.look()
        code = process.wait(30)
        life = self.evidence.lives[name][-1]
        life.died, life.published = time.monotonic(), self._published()
        for at, line in process.lines(errors=True):
            said = troubles.ENDS.search(line)
            if said:  # it may be a while ago until somebody looks
                life.died, life.left = at, int(said[1])
        self.story.append(f"{time.monotonic() - self.began:8.3f}  {name} has ended by itself with {code}")
        return code

    def _wait_until_promoted(self):
        published, confirmed = self._published(), self._confirmed()
        self.store.wait_until_promoted()
        born = time.monotonic()
        lives = self.evidence.lives["store"]
        lives.append(evidence.Life(len(lives) + 1, born))
        self.now["store"] = self.store.process
        self.sampler.watch("store", self.store.process.pid)
        self.came_back(born, "the replica became the master", published, confirmed)

    def lost(self, what):
        """Something is about to be done to somebody: what falls silent in a fault is told so."""
        for name in ("publisher", "publisher2", "writer"):
            process = self.now.get(name)
            if process is not None and process.running() and process.pid not in self.hushed:
                self.hushed.add(process.pid)
                process.order("hush")
        self.evidence.losses.append((time.monotonic(), int(time.time() * 1000), what))

    def came_back(self, at, what, published=None, confirmed=None):
        self.evidence.returns.append(evidence.Return(at, what, published if published is not None else self._published(),
                                                     confirmed if confirmed is not None else self._confirmed()))

    # -------------------------------------------------------------------------------------------- accounts

    def _account(self, name, life):
        return os.path.join(self.folder, f"{name}.{life}.account")

    def _counts(self, name, life):
        try:
            with open(self._account(name, life), "rb") as file:
                data = file.read()
        except FileNotFoundError:
            return []
        return [count for (count,) in struct.iter_unpack("<Q", data)]

    def _publisher_accounts(self):
        return [(life.number, self._account(name, life.number)) for name in ("publisher", "publisher2")
                for life in list(self.evidence.lives.get(name, []))]

    def _published(self):
        """publication -> number of its newest record that a publisher has handed over. The second of one name has the word
        from the end of the first."""
        newest = {}
        for name in ("publisher", *(["publisher2"] if "publisher" not in self.now else [])):
            for life in self.evidence.lives.get(name, []):
                for publication, count in enumerate(self._counts(name, life.number)):
                    if count:
                        newest[publication] = life.number * evidence.LIFE_NUMBERS + count
        return newest

    def _confirmed(self):
        newest = {}
        for life in self.evidence.lives.get("writer", []):
            for publication, value in enumerate(self._counts("writer", life.number)):
                if value:
                    newest[publication] = value
        return newest

    def _elements(self):
        names = [f"L{index}.{tag}" for index, kind in enumerate(self.evidence.kinds()) for tag in traffic.fields(kind)]
        names += [f"O{index}.{tag}" for index, kind in enumerate(self.evidence.out_kinds()) for tag in traffic.out_fields(kind)]
        names += [f"F.{tag}" for tag in foreign.FIELDS] if self.evidence.publications else []
        try:
            link = resp.Link(self.store.path)
        except OSError:
            return {}
        try:
            found = {}
            for name in names:
                flat = link.command("HGETALL", "dp:d:" + name)
                found[name] = {key.decode(): value.decode("utf-8", "backslashreplace")
                               for key, value in zip(flat[::2], flat[1::2])}
            return found
        except (OSError, resp.Refused):
            return {}
        finally:
            link.close()

    def look(self, elements=False):
        """Brings the evidence up to now."""
        self.supervisor.look()
        seen = self.evidence
        seen.now = time.monotonic()
        seen.writes = self.watcher.writes() if self.watcher else []
        seen.messages = self.recorder.messages() if self.recorder else []
        seen.events = self.reader.events() if self.reader else []
        seen.confirmed = self._confirmed()
        seen.forgotten_writes = list(self.watcher.forgotten) if self.watcher else []
        if self.arrivals:
            seen.reached = {index: dict(numbers) for index, numbers in self.arrivals.reached.copy().items()}
            seen.witness_away = self.arrivals.away()
            seen.sessions, seen.rightless = self._sessions()
            seen.dropped = self.arrivals.dropped
        self.accounts.look()
        seen.handed = self.accounts.handed
        seen.foreign = self.foreign.number if self.foreign else None
        seen.published = {}
        for name in ("publisher", "publisher2"):
            for life in seen.lives.get(name, []):
                for publication, count in enumerate(self._counts(name, life.number)):
                    seen.published.setdefault(publication, []).append((life.number, count))
        seen.memory = dict(self.sampler.high)
        seen.running = {name: process.running() for name, process in self.now.items()}
        seen.said = {name: [*process.out, *process.err] for name, process in self.now.items()}
        if elements:
            seen.elements = self._elements()
        return seen

    def _sessions(self):
        """Links of gateways to every broker that there was, and when they had no rights there."""
        found, rightless = [], []
        brokers = [process for name, process in self.past if name == "broker"]
        for life, process in zip(self.evidence.lives.get("broker", []), brokers):
            lines = process.lines(errors=True)
            found += witnesses.sessions_of(lines, life.died, PUBLISHER_NAMES["gateway"] + "-")
            orders = [allowed for of, allowed in self.broker.orders if of is process]
            rightless += witnesses.without_rights(lines, orders, life.died)
        return found, rightless

    # -------------------------------------------------------------------------------------------- statements

    def do(self, step):
        """One statement that is not an expectation."""
        form, values = step.form, step.values
        standing.note(self.wrong, form, values)
        if form == "start <process>":
            self.start(*values)
        elif step.verb == "kill":
            self.hit(values, signal.SIGKILL)
        elif form == "stop <process>":
            self.hit(values, signal.SIGTERM)
        elif form in ("stop load", "resume load"):
            self._load("stop" if form == "stop load" else "go")
        elif form.startswith("restart"):
            self.supervisor.names.add(*values)
        elif form in language.TROUBLES:
            self.troubles.do(form, values)
        elif step.verb == "pause":
            self.hit(values, signal.SIGSTOP)
        elif step.verb == "continue":
            self.came_back(time.monotonic(), f"the end of the pause of {values[0]}")
            self.now[values[0]].send_signal(signal.SIGCONT)
        elif step.verb in ("cut", "refuse", "delay", "throttle", "heal"):
            self._link(step)
        elif form == "fill disk":
            self.store.fill()
            self.lost("the disk was full")
        elif form == "free disk":
            self.came_back(time.monotonic(), "the disk had room again")
            self.store.free()
        elif step.verb == "step":
            whose, seconds = values
            self.clocks[whose].works_for(self.now[whose])
            self.clocks[whose].step(seconds)
        elif form == "let replica fall behind":
            self.store.let_the_replica_fall_behind()
        elif form == "wait until promoted":
            self._wait_until_promoted()
        elif form == "wait <number> s":
            self.supervisor.wait(values[0])
        elif form == "wait until flowing":
            self._wait_until_flowing()
        else:
            raise RuntimeError(f"nobody knows how to do: {form}")

    def _link(self, step):
        link, *figure = step.values
        if link not in self.links:
            self._proxy(link)
        order = {"cut": "hold", "refuse": "refuse", "heal": "pass"}.get(step.verb)
        if order is None:
            order = f"delay {figure[0]}" if step.verb == "delay" else f"rate {figure[0] * 1024 / harness.PATIENCE}"
        if step.verb == "heal":
            self.came_back(time.monotonic(), f"{link} was healed")
        else:
            self.lost(f"{step.verb} {link}")
        self._order(link, order)

    def quiet(self):
        """Nobody sends or writes anything more."""
        if any(name in self.now for name in ("publisher", "publisher2", "writer")):
            self._load("stop")

    def _load(self, order):
        if self.foreign:
            self.foreign.sending = order == "go"
        for name in ("publisher", "publisher2", "writer"):
            if name in self.now:
                self.now[name].order(order)
        # What was just being sent is still counted.
        last = None
        while order == "stop" and (self._published(), self._confirmed()) != last:
            last = (self._published(), self._confirmed())
            time.sleep(0.15)

    def _wait_until_flowing(self):
        try:
            self._flows(60)
        except evidence.Violated as violated:
            raise RuntimeError(f"it never flowed: {violated}") from None

    def _flows(self, seconds):
        """As flow_resumes, but counted from now; figures of it belong to no recovery."""
        here = evidence.Return(time.monotonic(), "this line", self._published(), self._confirmed())

        def judge(seen):
            kept, seen.returns = seen.returns, [here]
            try:
                return evidence.flow_resumes(seen, seconds * harness.PATIENCE)
            finally:
                seen.returns = kept
        return self.within(seconds, judge)

    # -------------------------------------------------------------------------------------------- expectations

    def judge(self, step):
        """Raises evidence.Violated when the expectation does not hold; its figure otherwise."""
        words, values = step.form.split(), step.values
        if "flow resumes" in step.form:
            took = self.within(values[0], lambda seen: evidence.flow_resumes(seen, values[0] * harness.PATIENCE))
            self.figures["recovery"].append(took)
            return took
        if "flow goes on" in step.form:
            took = self._flows(values[0])
            lost, back = (times[-1] for times in ([0, *(loss[0] for loss in self.evidence.losses)],
                                                  [0, *(back.at for back in self.evidence.returns)]))
            if lost > back:  # nobody came back: somebody else took over
                self.figures["recovery"].append(took)
            return took
        if "elements invalid" in step.form:
            took = self.within(values[0], lambda seen: evidence.elements_invalid(seen, values[0] * harness.PATIENCE))
            self.figures["invalid"].append(took)
            return took
        if "elements equal" in step.form:
            return self.within(values[0], evidence.elements_equal, elements=True)
        if "publications carry" in step.form:
            return self.within(values[0], evidence.publications_carry, elements=True)
        if "no presence" in step.form:
            return self.within(values[1], lambda seen: self._presence(seen, values[0]))
        if "at least once" in step.form:
            return self.within(values[2], lambda seen: evidence.says(seen, values[0], values[1], 1, None))
        if "ledger" in step.form:
            return self.within(values[0], self._balances)
        if step.form == "expect publications bad within <number> s":
            return self.within(values[0], lambda seen: verdicts.publications_bad(seen, values[0] * harness.PATIENCE))
        if step.form in TROUBLE_JUDGES:
            return TROUBLE_JUDGES[step.form](self, *values)
        seen = self.look(elements=True)
        simple = {"expect source": evidence.source_times_kept, "expect sequences": evidence.sequences_forward,
                  "expect records": evidence.records_whole, "expect nothing": evidence.nothing_dead,
                  "expect owner": evidence.owner_changes}
        key = " ".join(words[:2])
        if key == "expect nothing":
            return evidence.nothing_dead(seen, values[0] * harness.PATIENCE, self.buffered)
        if key == "expect memory":
            return evidence.memory_below(seen, values[0], values[1] * harness.PATIENCE)
        if key in simple:
            return simple[key](seen, *values)
        if key in ("expect lost", "expect coalesced"):
            self.ledger(seen)
            return (evidence.lost_at_most if "lost" in key else evidence.coalesced_above)(seen, *values)
        if words[2] == "says":
            return evidence.says(seen, *values, 1, 1)
        if words[2] == "never":
            return evidence.says(seen, *values, 0, 0)
        return (evidence.is_idle if words[2] == "idle" else evidence.is_running)(seen, *values)

    def within(self, seconds, judge, elements=False):
        """The judge's figure as soon as it holds, at the latest after so many seconds."""
        end = time.monotonic() + seconds * harness.PATIENCE
        while True:
            late = time.monotonic() > end
            try:
                return judge(self.look(elements))
            except evidence.Violated:
                if late:
                    raise
            time.sleep(0.05)

    def _presence(self, seen, process):
        try:
            seen.presences = recorders.retained(self.broker.port, f"kel/{harness.GROUP}/publisher/#")
        except OSError as trouble:
            raise evidence.Violated(str(trouble)) from None
        return evidence.no_presence(seen, PUBLISHER_NAMES.get(process, process))

    def ledger(self, seen):
        """What the product says became of everything."""
        code, out, err = self.tool("status", "--ledger", "--json")
        try:
            seen.ledger = json.loads(out)
        except ValueError:
            raise evidence.Violated(f"kelgw status --ledger gave no document, exit code {code}: {err.strip()}") from None

    def _balances(self, seen):
        self.ledger(seen)
        evidence.ledger_balances(seen)

    # -------------------------------------------------------------------------------------------- the run

    def run(self):
        """None when everything holds, else (step, text)."""
        for step in self.scenario.steps:
            self.story.append(f"{time.monotonic() - self.began:8.3f}  {step.text}")
            try:
                if step.verb != "expect":
                    self.do(step)
                    continue
                figure = self.judge(step)
                if isinstance(figure, float):
                    self.story.append(f"          {figure:.3f} s")
            except evidence.Violated as violated:
                return self._failed(step, str(violated))
            except (AssertionError, RuntimeError, OSError, subprocess.SubprocessError) as trouble:
                return self._failed(step, f"{type(trouble).__name__}: {trouble}")
        violated = standing.judge(self)
        if violated:
            return self._failed(self.scenario.steps[-1], violated)
        for name, process in self.past:
            found = [line for line in process.err if any(mark in line for mark in ("Sanitizer", "runtime error:", "Assertion"))]
            if found:
                return self._failed(self.scenario.steps[-1], f"{name} has reported: {evidence.some(found)}")
        return None

    def _failed(self, step, text):
        self.story.append("failed: " + text)
        return step, text

    def close(self, keep):
        """Ends everything; the folder stays when `keep`, with all that was said."""
        self.sampler.stop()
        self.accounts.stop()
        for witness in (self.watcher, self.recorder, self.arrivals, self.foreign):
            if witness:
                witness.stop()
        for _, process in reversed(self.past):
            if process.running():
                process.send_signal(signal.SIGCONT)
                process.kill()
        if keep:
            self._tell()
        else:
            shutil.rmtree(self.folder, ignore_errors=True)

    def _tell(self):
        runs = {}
        for name, process in self.past:
            runs[name] = runs.get(name, 0) + 1
            for kind, lines in (("out", process.out), ("err", process.err)):
                with open(os.path.join(self.folder, f"{name}.{runs[name]}.{kind}"), "w", encoding="utf-8") as file:
                    file.write("".join(line + "\n" for line in lines))
        with open(os.path.join(self.folder, "story"), "w", encoding="utf-8") as file:
            file.write("".join(line + "\n" for line in self.story))
            file.write(f"monotonic time at the beginning: {self.began:.3f}\n")
        with open(os.path.join(self.folder, "log"), "w", encoding="utf-8") as file:
            for write in self.evidence.writes:
                file.write(f"{write.at - self.began:.3f} {write!r}\n")
        with open(os.path.join(self.folder, "messages"), "w", encoding="utf-8") as file:
            for message in self.evidence.messages:
                file.write(f"{message.at - self.began:.3f} {message.publication} {message.incarnation} {message.sequence} "
                           f"quality {message.quality} {message.fields}{' retained' if message.retained else ''}\n")
        with open(os.path.join(self.folder, "ledger.json"), "w", encoding="utf-8") as file:
            json.dump(self.evidence.ledger, file, indent=1)


def _forgotten(rig, least):
    seen = rig.look()
    rig.ledger(seen)
    verdicts.forgotten_above(seen, least)


# Expectations that are judged by what troubles.py finds out.
TROUBLE_JUDGES = {
    "expect <process> ended by itself with <count> within <number> s":
        lambda rig, name, code, limit:
        rig.within(limit, lambda seen: verdicts.ended_by_itself(name, rig.supervisor.codes.get(name, []), code)),
    "expect one owner within <number> s": lambda rig, limit: rig.within(limit, lambda seen: rig.troubles.one_owner()),
    "expect <odd> publication bad within <number> s":
        lambda rig, name, limit: rig.within(limit, lambda seen: rig.troubles.odd_publication(name, False)),
    "expect <odd> publication good within <number> s":
        lambda rig, name, limit: rig.within(limit, lambda seen: rig.troubles.odd_publication(name, True)),
    "expect large record written within <number> s":
        lambda rig, limit: rig.within(limit, lambda seen: rig.troubles.large_record()),
    "expect moved elements right within <number> s":
        lambda rig, limit: rig.within(limit, lambda seen: rig.troubles.moved(seen.newest)),
    "expect forgotten above <count>": _forgotten,
}


def scenario_paths(names):
    """Paths of the scenarios so named, or of all; a path is taken as it is."""
    folder = os.path.join(HERE, "scenarios")
    if not names:
        return sorted(os.path.join(folder, name) for name in os.listdir(folder) if name.endswith(".scenario"))
    paths = []
    for name in names:
        path = name if name.endswith(".scenario") else os.path.join(folder, name + ".scenario")
        if not os.path.exists(path):
            known = ", ".join(sorted(entry[:-9] for entry in os.listdir(folder) if entry.endswith(".scenario")))
            raise language.Mistake(f"there is no scenario '{name}'; write one of: {known}")
        paths.append(path)
    return paths


if __name__ == "__main__":
    sys.exit("this is a part of run.py")
