"""What a run has shown, and the judges that hold it against an expectation. Judges start nothing and ask nobody: they read
the evidence and return figures, or raise Violated with the numbers that broke the expectation. So each can be shown a
planted violation (test_judges.py)."""

import bisect

import books
import stale
import traffic
from books import ATTRIBUTES  # noqa: F401 (for the judges in other files)
from traffic import LIFE_NUMBERS, START_MS

TAGS = tuple(traffic.PLAIN)
OUT_TAGS = tuple(traffic.OUT_PLAIN)


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
        self.left = None  # values that a gateway had not written when it ended by itself, as it said then
        self.hung = []    # moments since which it was paused


class Evidence:
    def __init__(self, publications=0, out_publications=0, quiet=True):
        self.publications, self.out_publications = publications, out_publications  # those that are busy
        self.quiet = quiet     # there are others besides them
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
        self.reached = None    # publication -> {number: moment at which the broker had it}; None: nobody looked
        self.witness_away = [] # (begin, end) of times at which that witness had no link
        self.sessions = []     # links of gateways to the broker, in its own words
        self.rightless = []    # (begin, end) of times in which gateways had no right at the broker, as it says
        self.handed = None     # when a publisher had handed over how much
        self.forgotten_writes = []  # Write that a store had confirmed and the one in its place does not know
        self.foreign = None    # number of the last record of the publisher that knows nothing of Kel
        self.dropped = None    # messages that the broker says it dropped, for whomever
        self.settled = False   # everything that takes part runs, and nothing is wrong with any link
        self.patience = 1.0

    def kinds(self):
        return traffic.kinds(self.publications) if self.quiet else ["busy"] * self.publications

    def out_kinds(self):
        return traffic.out_kinds(self.out_publications) if self.quiet else ["busy"] * self.out_publications

    def newest(self, publication):
        """The newest number that was handed over by who has the word: a second publisher of one name waits for the first."""
        first = self.lives.get("publisher", [])
        numbers = {life.number for life in first} if first and first[-1].died is None else None
        for life, count in reversed(self.published.get(publication, [])):
            if count and (numbers is None or life in numbers):
                return life * LIFE_NUMBERS + count
        return None

    def writes_since(self, at):
        """Writes that arrived at `at` or later."""
        return self.writes[bisect.bisect_left(self.writes, at, key=lambda write: write.at):]

    def messages_since(self, at):
        return self.messages[bisect.bisect_left(self.messages, at, key=lambda message: message.at):]

    def fed(self):
        """publication -> its elements, of those too that are not busy"""
        return {index: [f"L{index}.{tag}" for tag in traffic.fields(kind)] for index, kind in enumerate(self.kinds())}


def is_buffered(index):
    """Every other outgoing publication may be a buffered one."""
    return index % 2 == 1


def short(thing):
    text = str(thing)
    return text if len(text) <= 80 else f"{text[:60]}... ({len(text)} characters)"


def last_messages(evidence):
    """outgoing publication -> its newest record on the broker"""
    return {int(message.publication.split("/")[-1]): message for message in evidence.messages}


def some(items, most=4):
    items = [str(item) for item in items]
    return ", ".join(items[:most]) + (f" and {len(items) - most} more" if len(items) > most else "")


def numbers_of(write):
    """publication -> number, for every fed publication whose values this write has. A large write is logged without values;
    its number is that of its time."""
    found = {}
    for element, attributes in write.elements.items():
        if element[0] != "L" or "v" not in attributes:
            continue
        index, tag = element[1:].split(".", 1)
        if attributes["v"] is None:
            number = traffic.number_of_time(write.time_ms)
        elif tag in TAGS:
            number = int(attributes["v"])
        else:
            continue
        if number is not None:
            found[int(index)] = number
    return found


# ------------------------------------------------------------------------------------------------ judges

def flow_resumes(evidence, within):
    """Seconds from the last return until every publication has passed, both ways."""
    back = evidence.returns[-1]
    inward, outward = {}, {}
    for write in evidence.writes_since(back.at):
        for publication, number in numbers_of(write).items():
            if (publication < evidence.publications and publication not in inward and number > back.published.get(publication, 0)
                    and write.elements.get(f"L{publication}.n", {}).get("i") == "0"):
                inward[publication] = write.at
    for message in evidence.messages_since(back.at):
        index = int(message.publication.split("/")[-1])
        if (index < evidence.out_publications and index not in outward and message.quality == 1
                and message.fields.get("x", 0) > back.confirmed.get(index, 0)):
            outward[index] = message.at
    missing = [f"load/{i}" for i in range(evidence.publications) if i not in inward]
    missing += [f"out/{i}" for i in range(evidence.out_publications) if i not in outward]
    if not inward and not outward and not missing:
        raise Violated("there is no publication that could pass, so it was not looked at")
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
    if not wanted:
        raise Violated("no element is fed, so none was looked at")
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
    if not any(numbers_of(write) for write in evidence.writes):
        raise Violated("nothing was written, so no source time was looked at")
    for write in evidence.writes:
        for publication, number in numbers_of(write).items():
            if write.time_ms != START_MS + number:
                raise Violated(f"load/{publication} number {number} was written with the time {write.time_ms}, "
                               f"and had {START_MS + number}")
    for publication, elements in evidence.fed().items():
        for element in elements:
            state = evidence.elements.get(element, {})
            value = evidence.elements.get(f"L{publication}.n", {}).get("v")
            if state.get("v") and value and int(state.get("t", 0)) != START_MS + int(value):
                raise Violated(f"{element} has the source time {state.get('t')}, and its value, of number {value}, has "
                               f"{START_MS + int(value)}")
    return None


def elements_equal(evidence):
    wrong = []
    if not evidence.kinds():
        raise Violated("no element is fed, so none was looked at")
    for publication, kind in enumerate(evidence.kinds()):
        number = evidence.newest(publication)
        if number is None:
            wrong.append(f"nothing was ever published of load/{publication}")
            continue
        for tag, text in traffic.texts(kind, number).items():
            state = evidence.elements.get(f"L{publication}.{tag}", {})
            if state.get("v") != text or state.get("i") != "0":
                wrong.append(f"L{publication}.{tag} is {short(state.get('v'))} invalid {state.get('i', '1')}, published was "
                             f"{number}: {short(text)}")
    if wrong:
        raise Violated(f"{len(wrong)} elements are not what was published last: {some(wrong)}")
    return None


def publications_carry(evidence):
    wrong = []
    last = last_messages(evidence)
    if not evidence.out_kinds():
        raise Violated("the gateway has nothing to publish, so no publication was looked at")
    for index, kind in enumerate(evidence.out_kinds()):
        confirmed = evidence.confirmed.get(index)
        if confirmed is None:
            wrong.append(f"nothing was ever confirmed to the writer of O{index}")
            continue
        wanted = traffic.out_texts(kind, confirmed)
        other = [tag for tag, text in wanted.items() if evidence.elements.get(f"O{index}.{tag}", {}).get("v") != text]
        message = last.get(index)
        if other:
            state = evidence.elements.get(f"O{index}.{other[0]}", {}).get("v")
            wrong.append(f"O{index}.{other[0]} is {short(state)}, the store had confirmed {confirmed}")
        elif message is None:
            wrong.append(f"out/{index} was never published")
        elif message.quality != 1 or message.fields != traffic.out_values(kind, confirmed):
            wrong.append(f"out/{index} carries {short(message.fields)} with quality {message.quality}, the elements have "
                         f"{confirmed}")
    if wrong:
        raise Violated(f"{len(wrong)} publications do not carry what their elements have: {some(wrong)}")
    return None


def sequences_forward(evidence):
    if not evidence.writes and not evidence.messages:
        raise Violated("nothing was written or published, so no sequence was looked at")
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
    if not evidence.writes and not evidence.messages:
        raise Violated("nothing was written or published, so no record was looked at")
    complete = set()  # of one writer: publications that had all their fields once
    kinds = evidence.kinds()
    for write in evidence.writes:
        for publication, number in numbers_of(write).items():
            wanted = traffic.texts(kinds[publication], number)
            found = {tag: write.elements.get(f"L{publication}.{tag}", {}) for tag in wanted}
            if all("v" in attributes and attributes["v"] in (wanted[tag], None) for tag, attributes in found.items()):
                complete.add((write.writer, publication))
                continue
            # While a gateway that has just started makes its mappings, one by one, a record feeds those that there are.
            starting = (write.writer, publication) not in complete and all(
                attributes.get("v") in (wanted[tag], None) for tag, attributes in found.items())
            if not starting:
                wrong = {tag: attributes.get("v") for tag, attributes in found.items() if attributes.get("v") != wanted[tag]}
                raise Violated(f"load/{publication} number {number}: one write has {short(wrong)} (log entry {write.sequence})")
    for message in evidence.messages:
        # A buffered publication takes each element by itself, so a record of it may stand between two writes.
        if is_buffered(int(message.publication.split("/")[-1])):
            continue
        if message.quality == 1 and message.fields.get("x") != message.fields.get("y"):
            raise Violated(f"{message.publication}: one record has {short(message.fields)}, written together were equal numbers")
    return None


def dead_shown_as_good(evidence, allowance, buffered=0.1):
    """Every stretch in which something untrue was shown as good: texts, one a stretch."""
    return [*(stale.elements(evidence, allowance) or []), *(stale.publications(evidence, allowance, buffered) or [])]


def nothing_dead(evidence, allowance, buffered=0.1):
    if stale.elements(evidence, allowance) is None and stale.publications(evidence, allowance, buffered) is None:
        raise Violated("neither elements nor publications were looked at")
    found = dead_shown_as_good(evidence, allowance, buffered)
    if found:
        raise Violated(f"{len(found)} times shown as good though untrue: {some(found)}")
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
    if not any(ledger.get(kind) for kind in ("subscribe", "publish")) and not (ledger.get("store") or {}).get("managers"):
        raise Violated("the ledger has no row, so nothing was looked at")
    if not ledger.get("balanced"):
        raise Violated("the ledger does not balance: " + some(ledger.get("why") or ["it gives no reason"], 8))
    if ledger.get("moving"):
        raise Violated("the ledger is still moving though nothing is sent any more")
    return None


def account(evidence):
    """What became of every record; see books.py."""
    result = books.account(evidence)
    if result is None:
        raise Violated("nobody watched what was published, so nothing can be said of what is lost")
    return result


def lost_at_most(evidence, most):
    found = account(evidence)
    if found.lost > most:
        raise Violated(f"{found.lost} records are lost: {found}; {some(found.samples)}")
    if found.contradictions:
        raise Violated(f"the ledger and the witnesses disagree: {some(found.contradictions)}; {found}")
    return None


def coalesced_above(evidence, least):
    found = account(evidence)
    if found.coalesced <= least:
        raise Violated(f"{found.coalesced} records were superseded: {found}")
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
    count = len(evidence.out_kinds())
    if changes > most * count:
        raise Violated(f"{changes} changes of the publisher on {count} publications")
    if not owners:
        raise Violated("nothing was ever published")
    return None


def says(evidence, process, text, least, most):
    if process not in evidence.said:
        raise Violated(f"{process} does not run, so what it says was not looked at")
    lines = evidence.said[process]
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
    if not evidence.said.get(process):
        raise Violated(f"{process} has said nothing yet, so nobody can know what it does")
    busy = [line for line in evidence.said[process] if "mapping between" in line or "Created Publication group" in line]
    if busy:
        raise Violated(f"{process} does not wait, it says: {some(busy)}")
    return None
