"""Whether anything was shown as good that was not true any more: every element that is fed and every publication, all the
time, and once more at the end. A value is true until its publisher has handed over a newer one or has ended."""

import bisect

import traffic

# `connected` clears the flags of a publication by a write of its own, right before the record that it announces. Shown as
# good for longer than this, an old value is stale.
BLINK_SECONDS = 0.5
# Who comes to a broker is given what it has kept, and the newest a moment later.
KEPT_SECONDS = 0.25


def deadline(evidence, since, allowance):
    """Until when something may go on being shown that is untrue since then: nobody can mark or write anything while the
    gateway or the store is away."""
    end = since + allowance
    away = []
    for who in ("gateway", "store"):
        lives = evidence.lives.get(who, [])
        if who == "gateway":
            lives = [*lives, *evidence.lives.get("gateway2", [])]
        away += [(before.died, after.born) for before, after in zip(lives, lives[1:]) if before.died is not None]
    for gone, back in sorted(away):
        if gone <= end and back > since:
            end = max(end, back + allowance)
    return end


class _Shown:
    """What one element or publication has shown so far; collects the stretches in which it was not true."""

    def __init__(self, name, blink):
        self.name, self.blink = name, blink
        self.number, self.good, self.since = None, False, None
        self.begin = self.until = self.what = None  # of the stretch that is open
        self.found = []

    def change(self, at, number, good, limit_of):
        """Until now it showed what it did; from now on it shows this."""
        if self.good and self.number is not None:
            limit, why = limit_of(self.number)
            begin = max(self.since, limit)
            if begin < at:
                if self.until is not None and begin - self.until < 1e-6:
                    self.until = at
                else:
                    self.close()
                    self.begin, self.until = begin, at
                    self.what = f"{self.name} showed {self.number} as good, {why},"
        if number is not None:
            self.number = number
        self.good, self.since = good, at

    def close(self):
        if self.until is not None and self.until - self.begin > self.blink:
            self.found.append(f"{self.what} from {self.begin:.2f} to {self.until:.2f}")
        self.begin = self.until = None


class _Limits:
    """Until when a number of a publication may be shown."""

    def __init__(self, evidence, allowance):
        self.evidence, self.allowance = evidence, allowance
        self.known = {}
        self.lives = {life.number: life for name in ("publisher", "publisher2") for life in evidence.lives.get(name, [])}

    def of(self, publication, number):
        key = publication, number
        if key not in self.known:
            self.known[key] = self._find(publication, number)
        return self.known[key]

    def _find(self, publication, number):
        run, count = divmod(number, traffic.LIFE_NUMBERS)
        life = self.lives.get(run)
        ends = []
        newer = self.evidence.handed.by(run, publication, count + 1) if self.evidence.handed else None
        if newer is not None:
            ends.append((newer, f"though a newer one was handed over by {newer:.2f}"))
        if life is not None and life.died is not None:
            ends.append((life.died, f"of a publisher killed at {life.died:.2f}"))
        if not ends:
            return float("inf"), ""
        since, why = min(ends)
        return deadline(self.evidence, since, self.allowance), why


def elements(evidence, allowance):
    """Stretches in which elements showed something untrue as good; None when nobody looked."""
    if not evidence.publications or not evidence.writes:
        return None
    limits = _Limits(evidence, allowance)
    shown = {}
    for write in evidence.writes:
        for element, attributes in write.elements.items():
            if element[0] != "L" or not element[1:element.find(".")].isdigit():
                continue
            publication = int(element[1:element.index(".")])
            state = shown.setdefault(element, _Shown(element, BLINK_SECONDS * evidence.patience))
            number = traffic.number_of_time(write.time_ms) if "v" in attributes else None
            if "v" in attributes and attributes["v"] is not None and element.endswith(".n"):
                number = int(attributes["v"])
            good = attributes.get("i", "0" if state.good else "1")
            state.change(write.at, number, good != "1", lambda shown, index=publication: limits.of(index, shown))
    end = max(getattr(evidence, "now", 0), evidence.writes[-1].at)
    for element, state in shown.items():
        publication = int(element[1:element.index(".")])
        state.change(end, None, False, lambda shown, index=publication: limits.of(index, shown))
        state.close()
    return [stretch for state in shown.values() for stretch in state.found]


def _newer_in_the_store(evidence):
    """publication -> sorted [(number, moment at which the log had it)]"""
    found = {}
    for write in evidence.writes:
        for element, attributes in write.elements.items():
            if element[0] == "O" and element.endswith(".x") and "v" in attributes:
                number = traffic.number_of_time(write.time_ms) if attributes["v"] is None else int(attributes["v"])
                found.setdefault(f"out/{element[1:-2]}", []).append((number, write.at))
    for numbers in found.values():
        numbers.sort()  # a store in another's place may have them again
    return found


def publications(evidence, allowance, buffered):
    """Stretches in which a subscriber was shown something untrue of the gateway's publications; None when nobody looked.
    `buffered` is the seconds that a buffered publication may wait."""
    if not evidence.out_publications or not evidence.events:
        return None
    writes = _newer_in_the_store(evidence)
    dead = _dead_incarnations(evidence)
    state, connected, incarnations = {}, {}, {}

    def limit_of(name):
        def limit(number):
            since = [(died, f"of a gateway killed at {died:.2f}") for died in [dead.get(incarnations.get(name))] if died]
            newer = writes.get(name, [])
            index = bisect.bisect_right(newer, number, key=lambda write: write[0])
            if index < len(newer):
                since.append((newer[index][1] + buffered, f"though the element had a newer one at {newer[index][1]:.2f}"))
            if not since:
                return float("inf"), ""
            at, why = min(since)
            return at + allowance, why
        return limit

    for at, event in evidence.events:
        name = event["publication"]
        if not name.startswith("out/"):
            continue
        shown = state.setdefault(name, _Shown(name, KEPT_SECONDS * evidence.patience))
        if event["event"] == "record":
            number = ((event.get("fields") or {}).get("x") or {}).get("value")
            shown.change(at, number if isinstance(number, int) else shown.number or 0,
                         connected.get(name, False) and event.get("quality") == 1, limit_of(name))
            incarnations[name] = (event.get("publisher") or "/").split("/")[-1]
        elif event["event"] in ("connected", "disconnected"):
            connected[name] = event["event"] == "connected"
            # What it had before is not shown again by being connected: a record follows.
            shown.change(at, None, False, limit_of(name))
    end = max(getattr(evidence, "now", 0), evidence.events[-1][0])
    for name, shown in state.items():
        shown.change(end, None, False, limit_of(name))
        shown.close()
    return [stretch for shown in state.values() for stretch in shown.found] + _records_of_the_dead(evidence, dead, allowance)


def shown_now(evidence):
    """publication -> number that a subscriber of the Kel library is shown as good"""
    connected, numbers = {}, {}
    for _, event in evidence.events:
        name = event["publication"]
        if event["event"] == "record":
            numbers[name] = ((event.get("fields") or {}).get("x") or {}).get("value") if event.get("quality") == 1 else None
        elif event["event"] in ("connected", "disconnected"):
            connected[name] = event["event"] == "connected"
    return {name: number for name, number in numbers.items() if connected.get(name)}


def _dead_incarnations(evidence):
    """incarnation of a gateway -> its end. Each run has one, and who is heard for the first time while two of them run is the
    one that had not been heard yet."""
    silent = sorted((life for name in ("gateway", "gateway2") for life in evidence.lives.get(name, [])), key=lambda life: life.born)
    first = {}
    for message in evidence.messages:
        if message.incarnation and not message.retained:
            first.setdefault(message.incarnation, message.at)
    found = {}
    for incarnation, at in first.items():
        life = next((life for life in silent if life.born <= at and (life.died is None or at <= life.died)), None)
        if life is not None:
            silent.remove(life)
            if life.died is not None:
                found[incarnation] = life.died
    for message in evidence.messages:
        # Whose link the broker still had, and who said something new by it, was another one, beside the one that ended.
        died = found.get(message.incarnation)
        if died is not None and not message.retained and message.at > died + 1 and any(
                f"-{message.incarnation}-" in session.client and (session.closed is None or session.closed > message.at)
                for session in evidence.sessions):
            found.pop(message.incarnation)
    return found


def _records_of_the_dead(evidence, dead, allowance):
    found = []
    for at, event in evidence.events:
        died = dead.get((event.get("publisher") or "/").split("/")[-1])
        if event["event"] == "record" and died is not None and at > died + allowance and event.get("quality") == 1:
            found.append(f"{event['publication']}: record {event.get('sequence')} of a gateway killed at {died:.2f} was delivered "
                         f"at {at:.2f}")
    return found
