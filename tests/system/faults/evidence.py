"""What a run has shown, and the judges that hold it against an expectation. Judges start nothing and ask nobody: they read
the evidence and return figures, or raise Violated with the numbers that broke the expectation. So each can be shown a
planted violation (test_judges.py)."""

import bisect

LIFE_NUMBERS = 100_000_000
START_MS = 1_700_000_000_000
TAGS = ("n", "a", "b")
OUT_TAGS = ("x", "y")
ATTRIBUTES = 4  # of an element in one write: value, two user bits, invalid flag
# `connected` clears the flags of a publication by a write of its own, right before the record that it announces. Shown as
# good for longer than this, an old value is stale.
BLINK_SECONDS = 0.5


class Violated(Exception):
    """An expectation does not hold; the text has the figures."""


class Return:
    """Something came back: from here on what was new at that moment has to pass again."""

    def __init__(self, at, what, published, confirmed):
        self.at, self.what = at, what
        self.published = published  # publication -> number of its newest record
        self.confirmed = confirmed  # outgoing publication -> newest number in the store


class Life:
    """One run of a process, from its start to its end (None: it lives)."""

    def __init__(self, number, born, died=None, published=None):
        self.number, self.born, self.died = number, born, died
        self.published = published or {}  # publication -> number of its newest record when this run ended


class Evidence:
    def __init__(self, publications=0, out_publications=0):
        self.publications, self.out_publications = publications, out_publications
        self.writes = []       # Write, in the log's order
        self.messages = []     # Message of outgoing publications, in order
        self.events = []       # (at, event) of a subscriber of the Kel library
        self.elements = {}     # element -> {"v", "i", "t", "ti"} as texts, now
        self.published = {}    # publication -> [(life, count)], oldest first
        self.confirmed = {}    # outgoing publication -> newest number that the store has confirmed
        self.lives = {}        # process -> [Life]
        self.losses = []       # (at, wall clock in ms, what)
        self.returns = []      # Return
        self.memory = {}       # process -> bytes
        self.said = {}         # process -> lines since its last start
        self.running = {}      # process -> bool
        self.presences = None  # topics of the signs of life that the broker keeps
        self.ledger = None     # as kelgw gives it

    def newest(self, publication):
        lives = self.published.get(publication, [])
        for life, count in reversed(lives):
            if count:
                return life * LIFE_NUMBERS + count
        return None

    def writes_since(self, at):
        """Writes that arrived at `at` or later."""
        return self.writes[bisect.bisect_left(self.writes, at, key=lambda write: write.at):]

    def messages_since(self, at):
        return self.messages[bisect.bisect_left(self.messages, at, key=lambda message: message.at):]

    def fed(self):
        """publication -> its elements"""
        return {index: [f"L{index}.{tag}" for tag in TAGS] for index in range(self.publications)}


def is_buffered(index):
    """Every other outgoing publication may be a buffered one."""
    return index % 2 == 1


def some(items, most=4):
    items = [str(item) for item in items]
    return ", ".join(items[:most]) + (f" and {len(items) - most} more" if len(items) > most else "")


def number_of(write, publication):
    """The number that a write gives to a publication's elements, or None."""
    for tag in TAGS:
        value = write.elements.get(f"L{publication}.{tag}", {}).get("v")
        if value is not None:
            return int(value)
    return None


def numbers_of(write):
    """publication -> number, for every fed publication whose values this write has."""
    found = {}
    for element, attributes in write.elements.items():
        if element[0] == "L" and "v" in attributes:
            found[int(element[1:element.index(".")])] = int(attributes["v"])
    return found


# ------------------------------------------------------------------------------------------------ judges

def flow_resumes(evidence, within):
    """Seconds from the last return until every publication has passed, both ways."""
    back = evidence.returns[-1]
    inward, outward = {}, {}
    for write in evidence.writes_since(back.at):
        for publication, number in numbers_of(write).items():
            if (publication not in inward and number > back.published.get(publication, 0)
                    and write.elements[f"L{publication}.n"].get("i") == "0"):
                inward[publication] = write.at
    for message in evidence.messages_since(back.at):
        index = int(message.publication.split("/")[-1])
        if (index not in outward and message.quality == 1
                and message.fields.get("x", 0) > back.confirmed.get(index, 0)):
            outward[index] = message.at
    missing = [f"load/{i}" for i in range(evidence.publications) if i not in inward]
    missing += [f"out/{i}" for i in range(evidence.out_publications) if i not in outward]
    if missing:
        raise Violated(f"nothing new has passed since {back.what} on {len(missing)} publications: {some(missing)}")
    took = max([*inward.values(), *outward.values()], default=back.at) - back.at
    if took > within:
        late = [f"load/{i} {at - back.at:.2f} s" for i, at in inward.items() if at - back.at > within]
        late += [f"out/{i} {at - back.at:.2f} s" for i, at in outward.items() if at - back.at > within]
        raise Violated(f"flow took {took:.2f} s to resume after {back.what}: {some(late)}")
    return took


def elements_invalid(evidence, within):
    """Seconds from the last loss until every fed element was marked invalid, at the time of the loss."""
    at, wall, what = evidence.losses[-1]
    marked = {}
    for write in evidence.writes_since(at):
        for element, attributes in write.elements.items():
            if element[0] == "L" and attributes.get("i") == "1" and "v" not in attributes and element not in marked:
                marked[element] = write
    wanted = [element for elements in evidence.fed().values() for element in elements]
    missing = [element for element in wanted if element not in marked]
    if missing:
        raise Violated(f"{len(missing)} of {len(wanted)} elements are not marked invalid since {what}: {some(missing)}")
    took = max(marked[element].at for element in wanted) - at
    if took > within:
        raise Violated(f"the last element was marked invalid {took:.2f} s after {what}")
    for element in wanted:
        moved = marked[element].time_ms - wall
        if not -1000 <= moved <= within * 1000 + 1000:
            raise Violated(f"{element} was marked invalid with a time {moved} ms after {what}, which is not that of the loss")
    return took


def source_times_kept(evidence):
    for write in evidence.writes:
        for publication, number in numbers_of(write).items():
            if write.time_ms != START_MS + number:
                raise Violated(f"load/{publication} number {number} was written with the time {write.time_ms}, "
                               f"and had {START_MS + number}")
    for elements in evidence.fed().values():
        for element in elements:
            state = evidence.elements.get(element, {})
            if state.get("v") and int(state.get("t", 0)) != START_MS + int(state["v"]):
                raise Violated(f"{element} = {state['v']} has the source time {state.get('t')}, and its value has "
                               f"{START_MS + int(state['v'])}")
    return None


def elements_equal(evidence):
    wrong = []
    for publication, elements in evidence.fed().items():
        number = evidence.newest(publication)
        for element in elements:
            state = evidence.elements.get(element, {})
            if state.get("v") != str(number) or state.get("i") != "0":
                wrong.append(f"{element} is {state.get('v')} invalid {state.get('i', '1')}, published was {number}")
    if wrong:
        raise Violated(f"{len(wrong)} elements are not what was published last: {some(wrong)}")
    return None


def publications_carry(evidence):
    last = {}
    for message in evidence.messages:
        last[int(message.publication.split("/")[-1])] = message
    wrong = []
    for index in range(evidence.out_publications):
        values = [evidence.elements.get(f"O{index}.{tag}", {}).get("v") for tag in OUT_TAGS]
        confirmed = str(evidence.confirmed.get(index))
        message = last.get(index)
        if values != [confirmed] * len(OUT_TAGS):
            wrong.append(f"O{index} is {values}, the store had confirmed {confirmed}")
        elif message is None:
            wrong.append(f"out/{index} was never published")
        elif message.quality != 1 or [str(message.fields.get(tag)) for tag in OUT_TAGS] != values:
            wrong.append(f"out/{index} carries {message.fields} with quality {message.quality}, the elements have {values}")
    if wrong:
        raise Violated(f"{len(wrong)} publications do not carry what their elements have: {some(wrong)}")
    return None


def sequences_forward(evidence):
    highest = {}  # publication -> number; lives are in its high digits, so a dead life's record is lower too
    for write in evidence.writes:
        for publication, number in numbers_of(write).items():
            before = highest.get(publication, 0)
            if number < before:
                raise Violated(f"load/{publication}: number {number} was written after {before} (log entry {write.sequence})")
            highest[publication] = number
    _records_forward(evidence)
    _deliveries_forward(evidence)


def _records_forward(evidence):
    """On the broker a record may come again, for delivery is at least once; a new one comes in order."""
    sent = {}
    for message in evidence.messages:
        # What the broker kept is news to a witness that has just come back, and may be of a moment ago.
        if message.sequence is None or message.retained:
            continue
        seen = sent.setdefault((message.publication, message.incarnation), {})
        if message.sequence in seen:
            if seen[message.sequence] != (message.fields, message.quality):
                raise Violated(f"{message.publication}: record {message.sequence} came again as {message.fields}, "
                               f"and was {seen[message.sequence][0]}")
        elif seen and message.sequence < max(seen):
            raise Violated(f"{message.publication}: record {message.sequence} came after {max(seen)} of one incarnation")
        seen[message.sequence] = (message.fields, message.quality)


def _deliveries_forward(evidence):
    """What an application gets from the Kel library."""
    delivered = {}
    for _, event in evidence.events:
        if event["event"] != "record" or not event.get("sequence"):
            continue
        key = (event["publication"], event.get("publisher"))
        if event["sequence"] < delivered.get(key, 0):
            raise Violated(f"{key[0]}: record {event['sequence']} was delivered after {delivered[key]} of one incarnation")
        delivered[key] = event["sequence"]


def records_whole(evidence):
    complete = set()  # of one writer: publications that had all their fields once
    for write in evidence.writes:
        for publication, number in numbers_of(write).items():
            values = {tag: write.elements.get(f"L{publication}.{tag}", {}).get("v") for tag in TAGS}
            if set(values.values()) == {str(number)}:
                complete.add((write.writer, publication))
                continue
            # While a gateway that has just started makes its mappings, one by one, a record feeds those that there are.
            starting = (write.writer, publication) not in complete and set(values.values()) == {str(number), None}
            if not starting:
                raise Violated(f"load/{publication}: one write has {values} (log entry {write.sequence})")
    for message in evidence.messages:
        # A buffered publication takes each element by itself, so a record of it may stand between two writes.
        if is_buffered(int(message.publication.split("/")[-1])):
            continue
        if message.quality == 1 and message.fields.get("x") != message.fields.get("y"):
            raise Violated(f"{message.publication}: one record has {message.fields}, written together were equal numbers")
    return None


def _deadline(evidence, died, allowance):
    """Until when a death may go unnoticed: nobody can mark anything while the gateway or the store is away."""
    deadline = died + allowance
    away = []
    for who in ("gateway", "store"):
        lives = evidence.lives.get(who, [])
        if who == "gateway":
            lives = [*lives, *evidence.lives.get("gateway2", [])]
        away += [(before.died, after.born) for before, after in zip(lives, lives[1:]) if before.died is not None]
    for gone, back in sorted(away):
        if gone <= deadline and back > died:
            deadline = max(deadline, back + allowance)
    return deadline


def dead_shown_as_good(evidence, allowance):
    """Every stretch in which something of a dead incarnation was shown as good: texts, one a stretch."""
    found = []
    for life in evidence.lives.get("publisher", []):
        if life.died is not None:
            found += _stale_elements(evidence, life, _deadline(evidence, life.died, allowance))
    for name in ("gateway", "gateway2"):
        for life in evidence.lives.get(name, []):
            if life.died is not None:
                found += _stale_records(evidence, life.born, life.died, life.died + allowance)
    return found


def _stale_elements(evidence, life, deadline):
    """Elements that hold a value of that life and are not invalid after the deadline."""
    found = []
    state, since = {}, {}
    end = evidence.writes[-1].at if evidence.writes else deadline

    def over(element, until):
        begin = max(since.pop(element), deadline)
        if until - begin > BLINK_SECONDS:
            found.append(f"{element} showed {state[element]['v']} of a publisher killed at {life.died:.2f} as good "
                         f"from {begin:.2f} to {until:.2f}")

    for write in evidence.writes:
        for element, attributes in write.elements.items():
            if element[0] != "L":
                continue
            now = state.setdefault(element, {"v": "0", "i": "1"})
            now_before = dict(now)
            now.update({key: attributes[key] for key in ("v", "i") if key in attributes})
            stale = int(now["v"]) // LIFE_NUMBERS == life.number and now["i"] == "0"
            if element in since and not stale:
                state[element] = now_before
                over(element, write.at)
                state[element] = now
            elif stale and element not in since:
                since[element] = write.at
    for element in list(since):
        over(element, max(end, evidence.now if hasattr(evidence, "now") else end))
    return found


def _stale_records(evidence, born, died, deadline):
    """Publications that a subscriber was told are connected, after the deadline, with a record of the dead gateway."""
    dead = {message.incarnation for message in evidence.messages if message.incarnation and born <= message.at <= died}
    last, connected, found = {}, {}, []
    for at, event in evidence.events:
        name = event["publication"]
        if event["event"] == "record":
            incarnation = (event.get("publisher") or "/").split("/")[-1]
            if at > deadline and incarnation in dead and event.get("quality") == 1:
                found.append(f"{name}: record {event.get('sequence')} of a gateway killed at {died:.2f} was delivered "
                             f"at {at:.2f}")
            last[name] = incarnation
        elif event["event"] in ("connected", "disconnected"):
            if connected.get(name) and last.get(name) in dead and at > deadline and event["event"] == "disconnected":
                found.append(f"{name}: still connected to a gateway killed at {died:.2f} until {at:.2f}")
            connected[name] = event["event"] == "connected"
    # What is still shown as connected with a dead one's record now.
    for name, yes in connected.items():
        if yes and last.get(name) in dead and getattr(evidence, "now", deadline) > deadline + BLINK_SECONDS:
            found.append(f"{name}: still connected to a gateway killed at {died:.2f}")
    return found


def nothing_dead(evidence, allowance):
    found = dead_shown_as_good(evidence, allowance)
    if found:
        raise Violated(f"{len(found)} times shown as good though dead: {some(found)}")
    return None


def no_presence(evidence, name):
    """`name` is that of a publisher."""
    if evidence.presences is None:
        raise Violated("the broker was not asked what it keeps")
    found = [topic for topic in evidence.presences if f"/publisher/{name}/" in topic]
    if found:
        raise Violated(f"the broker keeps {len(found)} signs of life of {name}: {some(found)}")
    return None


def ledger_balances(evidence):
    ledger = evidence.ledger
    if ledger is None:
        raise Violated("kelgw was not asked for the ledger")
    if not ledger.get("balanced"):
        raise Violated("the ledger does not balance: " + some(ledger.get("why") or ["it gives no reason"], 8))
    if ledger.get("moving"):
        raise Violated("the ledger is still moving though nothing is sent any more")
    return None


class Account:
    """What became of the records that were published. Counted by witnesses: published, written, again (written once more, as
    after a link was lost: not part of the sum), in_flight (published until
    a process was killed, and never written), away (published while there was no gateway, or none that had subscribed yet).
    Counted by the product: gaps (never reached the gateway, or waited there when its link was lost) and coalesced
    (superseded by newer ones), forgotten (confirmed by a store that died, unknown to the one in its place, and not the
    newest of their elements, which are written again)."""

    def __init__(self, published, written, again, in_flight, away, gaps, coalesced, forgotten=0):
        self.published, self.written, self.again, self.in_flight, self.away = published, written, again, in_flight, away
        self.gaps, self.coalesced, self.forgotten = gaps, coalesced, forgotten

    @property
    def lost(self):
        """Not written and not accounted for by anything."""
        return max(0, self.published - self.written - self.in_flight - self.away - self.gaps - self.coalesced -
                   self.forgotten)

    def __str__(self):
        return (f"{self.published} published, {self.written} written, {self.in_flight} in flight at a kill, "
                f"{self.away} published while no gateway ran, {self.gaps} gaps, {self.coalesced} coalesced, "
                f"{self.forgotten} forgotten by a store that died")


def account(evidence):
    written = {}  # publication -> its numbers
    published = in_flight = away = again = 0
    for write in evidence.writes:
        for publication, number in numbers_of(write).items():
            mine = written.setdefault(publication, set())
            again += number in mine
            mine.add(number)
    for publication, lives in evidence.published.items():
        mine = written.get(publication, set())
        ends = _gateway_ends(evidence, publication, mine)
        for life, count in lives:
            published += count
            numbers = range(life * LIFE_NUMBERS + 1, life * LIFE_NUMBERS + count + 1)
            missing = [number for number in numbers if number not in mine]
            died = [other for other in evidence.lives.get("publisher", []) if other.number == life and other.died is not None]
            last = max((number for number in mine if number in numbers), default=0)
            for number in missing:
                if any(begin < number < first and number > newest for begin, newest, first in ends):
                    away += 1
                elif any(begin < number <= newest for begin, newest, _ in ends) or (died and number > last):
                    in_flight += 1
    ledger = evidence.ledger or {}
    rows = [row for row in ledger.get("subscribe") or [] if (row.get("publication") or "load/").startswith("load/")]

    def total(*names):
        return sum(row.get(name) or 0 for row in rows for name in names)

    if not any(life.died for name in ("gateway", "gateway2") for life in evidence.lives.get(name, [])):
        away += total("before")  # what the publisher sent before the gateway had subscribed
    backlog = round(((ledger.get("store") or {}).get("coalesced") or 0) / (ATTRIBUTES * len(TAGS)))
    store = ledger.get("store") or {}
    forgotten = round(((store.get("lost") or 0) - (store.get("restored") or 0)) / (ATTRIBUTES * len(TAGS)))
    return Account(published, sum(map(len, written.values())), again, in_flight, away, total("gaps", "discarded"),
                   total("superseded") + backlog, forgotten)


def _gateway_ends(evidence, publication, written):
    """For each gateway that ended: (the number at which it began to write, the newest published at its end, the first number
    that its successor wrote)."""
    ends, begin = [], 0
    lives = [life for name in ("gateway", "gateway2") for life in evidence.lives.get(name, []) if life.died is not None]
    for life in sorted(lives, key=lambda life: life.died):
        newest = life.published.get(publication, 0)
        first = min((number for number in written if number > newest), default=float("inf"))
        ends.append((begin, newest, first))
        begin = first
    return ends


def lost_at_most(evidence, most):
    books = account(evidence)
    if books.lost > most:
        raise Violated(f"{books.lost} records are lost: {books}")
    return None


def coalesced_above(evidence, least):
    books = account(evidence)
    if books.coalesced <= least:
        raise Violated(f"{books.coalesced} records are counted as coalesced: {books}")
    return None


def memory_below(evidence, process, megabytes):
    high = evidence.memory.get(process)
    if not high:
        raise Violated(f"the memory of {process} was never seen")
    if high > megabytes * 1024 * 1024:
        raise Violated(f"{process} had up to {high / 1048576:.1f} MB resident")
    return None


def owner_changes(evidence, most):
    owners, changes = {}, 0
    for message in evidence.messages:
        if not message.incarnation:
            continue
        before = owners.get(message.publication)
        if before and before != message.incarnation:
            changes += 1
        owners[message.publication] = message.incarnation
    worst = changes / max(1, evidence.out_publications)
    if worst > most:
        raise Violated(f"{changes} changes of the publisher on {evidence.out_publications} publications")
    if not owners:
        raise Violated("nothing was ever published")
    return None


def says(evidence, process, text, least, most):
    lines = evidence.said.get(process, [])
    found = [line for line in lines if text in line]
    if len(found) < least:
        raise Violated(f'{process} has said "{text}" {len(found)} times; its last lines: {some(lines[-4:])}')
    if most is not None and len(found) > most:
        raise Violated(f'{process} has said "{text}" {len(found)} times: {some(found)}')
    return None


def is_running(evidence, process):
    if not evidence.running.get(process):
        raise Violated(f"{process} has ended; its last lines: {some(evidence.said.get(process, [])[-4:])}")
    return None


def is_idle(evidence, process):
    is_running(evidence, process)
    busy = [line for line in evidence.said.get(process, []) if "mapping between" in line or "Created Publication group" in line]
    if busy:
        raise Violated(f"{process} does not wait, it says: {some(busy)}")
    return None
