"""What became of every record that was published. Each is in exactly one column, by what witnesses saw: the publisher's own
account, a subscriber of ours on the broker, the broker's log of who was subscribed, the store's log. What the gateway says of
itself accounts for nothing; it is held against what was seen, and a difference in either direction is told."""

import bisect
import math

import foreign
import traffic

FUZZ = 0.25    # seconds by which two witnesses may differ about one moment
WAITED = 0.2   # a record that passed a queue in less was not replaced in it
STALL = 1.0    # seconds of silence after which a gateway may have to find a publisher alive anew
LINGER = 1.0   # seconds that a record may be under way when nothing is wrong
HEAD = 5.0     # seconds until a publisher is known to be alive; until then the newest record of each publication is held
QUEUE = 20_000  # records that a queue of the Kel library holds, on either side
ATTRIBUTES = 4  # of an element in one write: value, two user bits, invalid flag

# What a record can end as, in the order of the table.
WRITTEN, COALESCED, GAPS, IN_FLIGHT, AWAY, FORGOTTEN, LOST = ENDS = (
    "written", "coalesced", "gaps", "in flight", "away", "forgotten", "lost")


class Account:
    """How many records ended how; `again` were written once more and are not part of the sum. `lost` are those of which no
    witness can say why they are missing, `contradictions` what the gateway's ledger and the witnesses disagree about."""

    def __init__(self):
        self.published = self.again = 0
        self.ends = dict.fromkeys(ENDS, 0)
        self.samples = []         # of what is lost
        self.contradictions = []
        self.looked = True

    written = property(lambda self: self.ends[WRITTEN])
    coalesced = property(lambda self: self.ends[COALESCED])
    gaps = property(lambda self: self.ends[GAPS])
    in_flight = property(lambda self: self.ends[IN_FLIGHT])
    away = property(lambda self: self.ends[AWAY])
    forgotten = property(lambda self: self.ends[FORGOTTEN])
    lost = property(lambda self: self.ends[LOST])
    never_written = property(lambda self: self.published - self.written)

    def end(self, kind, why=""):
        self.ends[kind] += 1
        if kind == LOST and len(self.samples) < 20:
            self.samples.append(why)

    def __str__(self):
        return f"{self.published} published, " + ", ".join(f"{count} {kind}" for kind, count in self.ends.items())


class Publication:
    """What is known of one publication."""

    def __init__(self, index, kind):
        self.index, self.attributes = index, ATTRIBUTES * len(traffic.fields(kind))
        self.written = {}  # number -> moment of its first write
        self.again = 0
        self.reached = {}  # number -> moment at which the broker had it
        self.seen = []     # numbers that reached the broker by any witness, sorted
        self.numbers = []  # written numbers, sorted


def numbers_in(write, indices):
    """publication -> number, of every one whose values this write has; large writes are known by their time."""
    found = {}
    for element, attributes in write.elements.items():
        if element[0] != "L" or "v" not in attributes:
            continue
        index, tag = element[1:].split(".", 1)
        if int(index) in found or not (tag == "n" or attributes["v"] is None) or int(index) not in indices:
            continue
        number = int(attributes["v"]) if attributes["v"] is not None else traffic.number_of_time(write.time_ms)
        if number is not None:
            found[int(index)] = number
    return found


class Books:
    def __init__(self, evidence):
        self.evidence = evidence
        self.fuzz = FUZZ * evidence.patience
        self.linger = LINGER * evidence.patience
        self.head = HEAD * evidence.patience
        self.result = Account()
        kinds = evidence.kinds()
        self.publications = {index: Publication(index, kinds[index]) for index in evidence.published}
        self.forgotten = set()  # (publication, number)
        self.writes_at = []     # moments of all writes of values
        self.written_by = {}    # writer -> moments of its writes of values
        self.taken_along = {}   # life of a gateway that ended by itself -> [(moment at the broker, attributes)]
        self.heard = {}         # life -> moments at which anything of that publisher reached the broker
        self.ambiguous = 0      # attributes of records that may be in two columns, as far as the ledger is concerned
        self.dropped = 0        # records that the broker is said to have dropped
        self.boundary = 0       # records that may be on either side of a subscription
        self.attributes = 0     # of what is coalesced or forgotten
        self.either = 0         # dropped by the broker, or superseded
        self._read()

    def _read(self):
        seen = self.evidence
        for write in seen.writes:
            for index, number in numbers_in(write, self.publications).items():
                publication = self.publications[index]
                publication.again += number in publication.written
                publication.written.setdefault(number, write.at)
                self.writes_at.append(write.at)
                self.written_by.setdefault(write.writer, []).append(write.at)
        for write in seen.forgotten_writes:
            for pair in numbers_in(write, self.publications).items():
                self.forgotten.add(pair)
        for index, publication in self.publications.items():
            publication.reached = seen.reached.get(index, {})
            publication.numbers = sorted(publication.written)
            publication.seen = sorted({*publication.reached, *publication.written})
            for number in publication.seen:
                self.heard.setdefault(number // traffic.LIFE_NUMBERS, []).append(
                    publication.reached.get(number, publication.written.get(number)))
        self.writes_at.sort()
        self.stalls = [(begin, end) for begin, end in zip(self.writes_at, self.writes_at[1:]) if end - begin > STALL]
        self.returns = {}  # life -> moments at which a publisher was heard again after a silence
        for life, moments in self.heard.items():
            moments.sort()
            self.returns[life] = [after for before, after in zip(moments, moments[1:]) if after - before > STALL]

    # ---------------------------------------------------------------------------------- one record

    def _silent(self, moments, begin, end):
        """Nothing of `moments` lies between, for at least a second's part of it."""
        index = bisect.bisect_right(moments, begin)
        return index == len(moments) or moments[index] >= end

    def _life(self, number):
        for name in ("publisher", "publisher2"):
            for life in self.evidence.lives.get(name, []):
                if life.number == number:
                    return life
        return None

    def _end(self):
        return getattr(self.evidence, "now", float("inf"))

    def unreached(self, publication, number):
        """How a record ended that never reached the broker."""
        life = number // traffic.LIFE_NUMBERS
        handed = self.evidence.handed.by(life, publication.index, number % traffic.LIFE_NUMBERS)
        position = bisect.bisect_right(publication.seen, number)
        later = publication.seen[position] if position < len(publication.seen) else None
        if later is not None and later // traffic.LIFE_NUMBERS == life:
            if position == 0 or publication.seen[position - 1] // traffic.LIFE_NUMBERS != life:
                return GAPS, ""  # until it has the name, a publisher keeps the newest record only
            there = publication.reached.get(later, publication.written.get(later))
            blind = handed is None or any(begin - self.fuzz <= there and handed <= end + self.fuzz
                                          for begin, end in self.evidence.witness_away)
            if blind or there - handed > WAITED:
                return GAPS, ""
            session = self._session(publication, there)
            if session is not None and session.dropped:
                self.dropped += 2  # the witness has a queue as short as the gateway's
                return GAPS, ""
            return LOST, f"it was handed over by {handed:.2f}, and the one behind it was at the broker at {there:.2f}"
        run = self._life(life)
        end = run.died if run is not None and run.died is not None else None
        limit = end if end is not None else self._end()
        waited = handed is not None and limit - handed > self.linger
        if waited and not self._silent(self.heard.get(life, []), handed + self.fuzz, limit):
            return LOST, f"it was handed over by {handed:.2f}, others reached the broker after it, and it never did"
        if end is None and self.evidence.settled:
            return LOST, "its publisher lives, everything runs, and it never reached the broker"
        return IN_FLIGHT, ""

    def _session(self, publication, at):
        found = None
        for session in self.evidence.sessions:
            if session.had(publication.index, at):
                found = session
        return found

    def _at_the_edge(self, publication, at):
        return any(abs(moment - at) <= self.fuzz for session in self.evidence.sessions
                   for moment in (session.topics.get(publication.index), session.closed) if moment is not None)

    def _rightless(self, publication, number, at):
        """The gateway had no right to read it, or two witnesses of the moment at which it lost or got the right differ about
        this one: then nothing of its publication was written between the two."""
        position = bisect.bisect_left(publication.numbers, number)
        for begin, end in self.evidence.rightless:
            if begin <= at <= end:
                return True
            if not begin - self.fuzz <= at <= end + self.fuzz:
                continue
            near = publication.numbers[position:position + 1] if at < begin else publication.numbers[:position][-1:]
            there = publication.reached.get(near[0]) if near else None
            if there is None or not min(at, end) < there < max(at, begin):
                self.boundary += 1
                self.ambiguous += publication.attributes
                return True
        return False

    def _is_head(self, publication, number, at, session):
        """Nothing was written between the last moment at which the publisher had to be found alive anew and this record."""
        life = number // traffic.LIFE_NUMBERS
        run = self._life(life)
        begin = max(session.topics.get(publication.index), run.born if run else 0.0)
        returns = self.returns.get(life, [])
        index = bisect.bisect_right(returns, at)
        if index and returns[index - 1] > begin:
            begin = returns[index - 1]
        before = bisect.bisect_left(publication.numbers, number)
        if before and publication.reached.get(publication.numbers[before - 1], 0) >= begin:
            return False, begin
        return True, begin

    def reached(self, publication, number, at):
        """How a record ended that was at the broker at `at` and was never written."""
        if (publication.index, number) in self.forgotten:
            self.attributes += publication.attributes
            return FORGOTTEN, ""
        session = self._session(publication, at)
        if self._at_the_edge(publication, at):
            self.boundary += 1
            self.ambiguous += publication.attributes if session is None else 0  # the gateway may have had it, and held it
        if session is None or self._rightless(publication, number, at):
            return AWAY, ""
        life = number // traffic.LIFE_NUMBERS
        newer = publication.seen and publication.seen[-1] > number
        is_head, begin = self._is_head(publication, number, at, session)
        following = self._following(publication, number, session)
        if is_head and newer and at <= session.topics[publication.index] + self.fuzz:
            self.ambiguous += publication.attributes  # two witnesses of one moment: it may have come just before
            return AWAY, ""
        if is_head and newer and at - begin <= self.head and (following is not None or session.closed is not None):
            if session.dropped:
                self.dropped += 1  # or superseded, as below: the gateway's ledger has the word
                self.either += 1
                self.ambiguous += publication.attributes
                return GAPS, ""
            self.attributes += publication.attributes
            self.ambiguous += publication.attributes
            return COALESCED, ""
        if following is not None:
            written = publication.written[following]
            if session.dropped:
                self.dropped += 1
                return GAPS, ""
            if written - at > WAITED or self._after_a_stall(session.topics[publication.index], at):
                self.attributes += publication.attributes
                return COALESCED, ""
            return LOST, (f"it was at the broker at {at:.2f}, the gateway was subscribed, and number {following} was written "
                          f"at {written:.2f}")
        return self._tail(publication, life, session, at)

    def _after_a_stall(self, since, at):
        """The gateway had hung, with its link: what it had heard of its publishers was old when it went on."""
        return any(since <= begin <= at <= end + self.head for begin, end in self.stalls)

    def _came_by(self, publication, number):
        """The session by which a written record came. One that the broker kept comes first thing with a new subscription."""
        there, written = publication.reached.get(number), publication.written[number]
        found = self._session(publication, there) if there is not None else None
        for session in self.evidence.sessions:
            since = session.topics.get(publication.index)
            if since is None or since > written + self.fuzz or (there is not None and there > since + self.fuzz):
                continue
            position = bisect.bisect_right(publication.seen, number)
            later = publication.seen[position] if position < len(publication.seen) else None
            newest = later is None or publication.reached.get(later, publication.written.get(later)) >= since - self.fuzz
            if newest and session is not found:
                found = session
        return found

    def _following(self, publication, number, session):
        """The next number of the publication that was written, when it came by the same session."""
        position = bisect.bisect_right(publication.numbers, number)
        if position == len(publication.numbers):
            return None
        later = publication.numbers[position]
        return later if self._came_by(publication, later) is session else None

    def _ended(self, session):
        """The run of the gateway that had this session and ended by itself with it, saying what it had not written."""
        for name in ("gateway", "gateway2"):
            for life in self.evidence.lives.get(name, []):
                if life.left is not None and session.closed is not None and life.born <= session.opened <= life.died and (
                        -self.fuzz <= session.closed - life.died <= self.linger):
                    return life
        return None

    def _writes_of(self, session):
        """Moments of the writes of the gateway that had this session: only who has the number subscribes, and only who has it
        writes, so the first one to write after the subscription. That is soon after it, so what a slow machine is allowed to
        take longer must not reach beyond."""
        since = session.since() + FUZZ
        first = [(moments[index], moments) for moments in self.written_by.values()
                 for index in [bisect.bisect_left(moments, since)] if index < len(moments)]
        return min(first)[1] if first else []

    def _tail(self, publication, life, session, at):
        """Nothing behind it came by this session."""
        end = session.closed
        run = self._life(life)
        if end is None and self.evidence.settled and run is not None and run.died is None:
            return LOST, f"it was at the broker at {at:.2f}, it is the newest, everything runs, and it is not written"
        limit = end if end is not None else self._end()
        gateway = self._ended(session)
        writes = self.writes_at if gateway is None else self._writes_of(session)  # another one may have written meanwhile
        if limit - at > self.linger and not self._silent(writes, at + self.linger, limit):
            return LOST, (f"it was at the broker at {at:.2f}, the gateway was subscribed until "
                          f"{'now' if end is None else f'{end:.2f}'} and wrote others after it")
        if gateway is not None:
            self.taken_along.setdefault(gateway, []).append((at, publication.attributes))
            return IN_FLIGHT, ""
        died = any(other.died is not None and at <= other.died + self.fuzz and (end is None or other.died <= end + self.fuzz)
                   for name in ("gateway", "gateway2") for other in self.evidence.lives.get(name, []))
        return (IN_FLIGHT if died or end is None else GAPS), ""

    # ---------------------------------------------------------------------------------- all of them

    def close(self):
        result = self.result
        for index, publication in self.publications.items():
            result.again += publication.again
            handed = set()
            for life, count in self.evidence.published[index]:
                first = life * traffic.LIFE_NUMBERS + 1
                handed.update(range(first, first + count))
            result.published += len(handed)
            strange = [number for number in publication.written if number not in handed]
            if strange:
                result.contradictions.append(f"load/{index}: {len(strange)} numbers were written that nobody has published, "
                                             f"{strange[0]} for one")
            for number in handed:
                if number in publication.written:
                    result.end(WRITTEN)
                    continue
                at = publication.reached.get(number)
                kind, why = self.unreached(publication, number) if at is None else self.reached(publication, number, at)
                result.end(kind, f"load/{index} number {number}: {why}")
        if self.evidence.dropped is not None and self.dropped - self.either > self.evidence.dropped:
            excess = self.dropped - self.either - self.evidence.dropped
            result.ends[GAPS] -= excess
            result.ends[LOST] += excess
            result.samples.append(f"{self.dropped} records are missing that the broker may have dropped, and it says that it "
                                  f"dropped {self.evidence.dropped}")
        self._hold_the_queues_against_it()
        self._hold_the_ledger_against_it()
        return result

    def _hold_the_queues_against_it(self):
        """Nobody who dies takes along more than its queue holds; nor is more under way when a run just ends."""
        deaths = sum(life.died is not None for name in ("publisher", "publisher2", "gateway", "gateway2")
                     for life in self.evidence.lives.get(name, []))
        most = QUEUE * (deaths + (not self.evidence.settled))
        if self.result.in_flight > most:
            self.result.contradictions.append(f"{self.result.in_flight} records were under way when {deaths} processes ended, "
                                              f"and their queues hold {most}")

        for life, taken in self.taken_along.items():
            if len(taken) - QUEUE > life.left // ATTRIBUTES:
                self.result.contradictions.append(f"a gateway ended by itself with {life.left} values, and {len(taken)} records "
                                                  f"would have gone with it, {QUEUE} of them in its queue")
            # Whoever runs has handed over to the backlog what came a second ago; who hangs has not read its link.
            due = sum(attributes for at, attributes in taken
                      if at < life.died - self.linger and not any(since <= at + self.linger for since in life.hung))
            if due > life.left:
                self.result.contradictions.append(f"a gateway ended by itself and said that {life.left} values were not written; "
                                                  f"by what was seen it had {due}")

    def _rows(self):
        """(publication or None, row) of the ledger for what was subscribed."""
        for row in (self.evidence.ledger or {}).get("subscribe") or []:
            name = row.get("publication") or ""
            if name == "" or name.startswith("load/"):
                index = name.rpartition("/")[2]
                yield (self.publications.get(int(index)) if index.isdigit() else None), row

    def _hold_the_ledger_against_it(self):
        """Only of a gateway that has lived through it all: what another had counted went with it."""
        lives = [life for name in ("gateway", "gateway2") for life in self.evidence.lives.get(name, [])]
        ledger = self.evidence.ledger
        if ledger is None or not ledger.get("subscribe") or ledger.get("moving") or len(lives) != 1 or lives[0].died:
            return
        result, store = self.result, ledger.get("store") or {}
        claimed = (store.get("coalesced") or 0) + (store.get("lost") or 0) - (store.get("restored") or 0)
        slack = self.ambiguous + self._flags()
        claimed -= self._given_up_of_the_foreign_one()
        for publication, row in self._rows():
            size = publication.attributes if publication else ATTRIBUTES * len(traffic.PLAIN)
            claimed += size * sum(row.get(name) or 0 for name in ("superseded", "discarded"))
            slack += size * sum(row.get(name) or 0 for name in ("again", "resends"))
        missing = self.attributes - claimed
        if missing > 0:
            count = math.ceil(missing / (ATTRIBUTES * len(traffic.PLAIN)))
            moved = min(count, result.ends[COALESCED] + result.ends[FORGOTTEN])
            from_coalesced = min(moved, result.ends[COALESCED])
            result.ends[COALESCED] -= from_coalesced
            result.ends[FORGOTTEN] -= moved - from_coalesced
            result.ends[LOST] += moved
            result.samples.append(f"{moved} records were at the broker and are not written, and the ledger says of them neither "
                                  "that they were superseded nor that a store forgot them")
        tails = (result.ends[GAPS] + result.ends[IN_FLIGHT]) * ATTRIBUTES * len(traffic.PLAIN)
        if -missing > slack + tails:
            result.contradictions.append(f"the ledger says of {claimed} attributes that they were superseded or forgotten, and "
                                         f"{self.attributes} are missing by what was seen (up to {slack + tails} may be "
                                         "counted twice)")
        never_came = sum((row.get("gaps") or 0) + (row.get("before") or 0) for _, row in self._rows())
        seen = result.ends[GAPS] + result.ends[AWAY]
        least = seen - self.boundary - len(self.publications) * max(1, len(self.evidence.sessions)) - self._gone_with_links()
        least -= self.either
        most = seen + self.boundary + self.ambiguous // (ATTRIBUTES * len(traffic.PLAIN))
        if not least <= never_came <= most:
            result.contradictions.append(f"the ledger says that {never_came} records never came to the gateway, and by what was "
                                         f"seen it is {seen} (between {least} and {most})")

    def _given_up_of_the_foreign_one(self):
        """Attributes of the publisher that is not in the table: delivered by the Kel library, and never written."""
        delivered = sum(row.get("delivered") or 0 for row in self.evidence.ledger["subscribe"]
                        if row.get("publication") == foreign.PUBLICATION)
        written = sum("F.n" in write.elements for write in self.evidence.writes)
        return (delivered - written) * ATTRIBUTES * len(foreign.FIELDS)

    def _flags(self):
        """Attributes that are written besides records: flags, once or twice for each change."""
        changes = len(self.evidence.losses) + len(self.evidence.returns) + len(self.evidence.sessions) + 2
        return 2 * changes * sum(publication.attributes // ATTRIBUTES for publication in self.publications.values())

    def _gone_with_links(self):
        """Records that a link took along, which the gateway may have had already."""
        return sum(1 for publication in self.publications.values() for number, at in publication.reached.items()
                   if number not in publication.written and self._session(publication, at) is not None
                   and not any(begin <= at <= end for begin, end in self.evidence.rightless))


def account(evidence):
    """The Account of all records; None when a witness that it needs was not there."""
    if not evidence.publications or evidence.reached is None or evidence.handed is None:
        return None
    return Books(evidence).close()
