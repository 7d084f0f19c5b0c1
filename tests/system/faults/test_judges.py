"""Every expectation can fail: evidence in which all is well, and for each judge a planted violation that it must see."""

import copy

import pytest

import evidence
from evidence import LIFE_NUMBERS, START_MS, Evidence, Life, Return, Violated
from recorders import Message, Write, attributes_of, log_entry
from witnesses import Handed, Session

BASE = LIFE_NUMBERS


def write_of(at, sequence, publication, number, invalid="0", time_ms=None, tags=evidence.TAGS):
    elements = {f"L{publication}.{tag}": {"i": invalid, "1": "1", "2": "1", "v": str(number)} for tag in tags}
    return Write(at, sequence, START_MS + number if time_ms is None else time_ms, "1.abc", elements)


def flag_of(at, sequence, publication, invalid, time_ms=0):
    return Write(at, sequence, time_ms, "1.abc", {f"L{publication}.{tag}": {"i": invalid} for tag in evidence.TAGS})


def message_of(at, publication, incarnation, sequence, number, quality=1):
    return Message(at, False, f"out/{publication}", incarnation, sequence, quality, {"x": number, "y": number}, 0)


def record_event(at, incarnation, sequence, quality=1, number=None, publication=0):
    return at, {"event": "record", "publication": f"out/{publication}", "publisher": "KelGateway/" + incarnation,
                "sequence": sequence, "quality": quality,
                "fields": {tag: {"type": "int", "value": BASE + sequence if number is None else number} for tag in "xy"}}


def watched(seen):
    """What the witnesses of the publisher's side have of these writes: each a blink before it was written."""
    seen.reached, seen.handed = {}, Handed()
    session = Session("KelGateway-aaa", 1.0)
    session.topics = {publication: 1.0 for publication in range(seen.publications)}
    seen.sessions = [session]
    counts = {}
    for write in sorted(seen.writes, key=lambda write: write.at):
        for publication, number in evidence.numbers_of(write).items():
            seen.reached.setdefault(publication, {}).setdefault(number, write.at - 0.005)
            life, count = divmod(number, LIFE_NUMBERS)
            mine = counts.setdefault(life, [0] * seen.publications)
            mine[publication] = max(mine[publication], count)
            seen.handed.note(write.at - 0.01, life, tuple(mine))
    seen.settled = True


@pytest.fixture
def good():
    """Two publications each way; the publisher was killed at 10 and its successor came at 12."""
    seen = Evidence(2, 2, quiet=False)
    for number in (1, 2, 3):
        for publication in (0, 1):
            seen.writes.append(write_of(8.0 + number / 10, len(seen.writes) + 1, publication, BASE + number))
    for publication in (0, 1):
        seen.writes.append(flag_of(10.1, len(seen.writes) + 1, publication, "1", 1_000_000))
    for publication in (0, 1):
        seen.writes.append(flag_of(12.19, len(seen.writes) + 1, publication, "0", 1_000_000))
        seen.writes.append(write_of(12.2, len(seen.writes) + 1, publication, 2 * BASE + 1))
    for publication in (0, 1):
        seen.messages.append(message_of(9.0, publication, "aaa", 1, BASE + 1))
        seen.messages.append(message_of(12.5, publication, "aaa", 2, BASE + 2))
        seen.confirmed[publication] = BASE + 2
        seen.published[publication] = [(1, 3), (2, 1)]
        for tag in evidence.TAGS:
            seen.elements[f"L{publication}.{tag}"] = {"v": str(2 * BASE + 1), "i": "0", "t": str(START_MS + 2 * BASE + 1)}
        for tag in evidence.OUT_TAGS:
            seen.elements[f"O{publication}.{tag}"] = {"v": str(BASE + 2), "i": "0"}
    seen.messages.sort(key=lambda message: message.at)
    seen.lives = {"publisher": [Life(1, 1.0, 10.0), Life(2, 12.0)], "gateway": [Life(1, 1.0)], "store": [Life(1, 0.5)]}
    seen.losses = [(10.0, 1_000_000, "the end of publisher")]
    seen.returns = [Return(12.0, "the start of publisher", {0: BASE + 3, 1: BASE + 3}, {0: BASE + 1, 1: BASE + 1})]
    seen.events = [(8.9, {"event": "connected", "publication": "out/0"}), record_event(9.0, "aaa", 1),
                   record_event(12.5, "aaa", 2)]
    seen.memory = {"gateway": 10 * 1048576}
    seen.said = {"gateway": ["all is well", "waiting"]}
    seen.running = {"gateway": True}
    seen.presences = ["kel/test/publisher/KelGateway/aaa"]
    seen.ledger = {"balanced": True, "moving": False, "why": [], "store": {"coalesced": 0, "gone": []},
                   "subscribe": [{"publication": "load/0", "gaps": 0, "missing": 0, "superseded": 0, "discarded": 0}]}
    seen.now = 13.0
    watched(seen)
    return seen


JUDGES = {
    "resumes": lambda seen: evidence.flow_resumes(seen, 5),
    "invalid": lambda seen: evidence.elements_invalid(seen, 1),
    "source times": evidence.source_times_kept,
    "equal": evidence.elements_equal,
    "carry": evidence.publications_carry,
    "forward": evidence.sequences_forward,
    "whole": evidence.records_whole,
    "dead": lambda seen: evidence.nothing_dead(seen, 2),
    "presence": lambda seen: evidence.no_presence(seen, "load"),
    "ledger": evidence.ledger_balances,
    "lost": lambda seen: evidence.lost_at_most(seen, 0),
    "memory": lambda seen: evidence.memory_below(seen, "gateway", 64),
    "owner": lambda seen: evidence.owner_changes(seen, 0),
    "says once": lambda seen: evidence.says(seen, "gateway", "waiting", 1, 1),
    "never says": lambda seen: evidence.says(seen, "gateway", "ERROR", 0, 0),
    "running": lambda seen: evidence.is_running(seen, "gateway"),
    "idle": lambda seen: evidence.is_idle(seen, "gateway"),
}


@pytest.mark.parametrize("name", list(JUDGES))
def test_good_evidence_holds(good, name):
    JUDGES[name](good)


def test_the_time_of_a_recovery_is_that_of_the_last_publication(good):
    assert evidence.flow_resumes(good, 5) == pytest.approx(0.5)
    assert evidence.elements_invalid(good, 1) == pytest.approx(0.1)


def drop_new_writes(seen):
    seen.writes = [write for write in seen.writes if write.at < 12]


def only_old_numbers_after_the_return(seen):
    drop_new_writes(seen)
    seen.writes += [write_of(12.2, 20 + publication, publication, BASE + 3) for publication in (0, 1)]


def new_but_still_invalid(seen):
    for write in seen.writes:
        if write.at == 12.2:
            for attributes in write.elements.values():
                attributes["i"] = "1"


def late_by_six_seconds(seen):
    for message in seen.messages:
        message.at += 6 if message.at > 12 else 0


def nothing_new_on_the_broker(seen):
    seen.messages = [message for message in seen.messages if message.at < 12]


def retained_of_old_on_the_broker(seen):
    for message in seen.messages:
        if message.at > 12:
            message.fields = {"x": BASE + 1, "y": BASE + 1}


def bad_on_the_broker(seen):
    seen.messages[-1].quality = 0


def one_never_marked(seen):
    for write in seen.writes:
        if 10 < write.at < 12:
            write.elements.pop("L1.b", None)


def marked_late(seen):
    for write in seen.writes:
        if 10 < write.at < 11:
            write.at = 11.5


def marked_with_a_strange_time(seen):
    for write in seen.writes:
        if 10 < write.at < 11:
            write.time_ms -= 60_000


def value_with_another_time(seen):
    seen.writes[2].time_ms += 1


def element_with_another_time(seen):
    seen.elements["L1.a"]["t"] = "1"


def element_behind(seen):
    seen.elements["L1.a"]["v"] = str(BASE + 3)


def element_invalid(seen):
    seen.elements["L0.n"]["i"] = "1"


def element_missing(seen):
    del seen.elements["L0.n"]


def publication_behind(seen):
    seen.messages[-1].fields = {"x": BASE + 1, "y": BASE + 1}


def publication_missing(seen):
    seen.messages = [message for message in seen.messages if message.publication != "out/1"]


def store_behind_its_word(seen):
    for tag in evidence.OUT_TAGS:
        seen.elements[f"O0.{tag}"]["v"] = str(BASE + 1)


def lower_number_after_a_higher(seen):
    seen.writes.insert(6, write_of(8.35, 99, 0, BASE + 2))


def dead_life_after_the_new_one(seen):
    seen.writes.append(write_of(12.3, 99, 0, BASE + 4))


def new_record_out_of_order_on_the_broker(seen):
    seen.messages.append(message_of(12.6, 0, "aaa", 4, BASE + 4))
    seen.messages.append(message_of(12.7, 0, "aaa", 3, BASE + 3))


def other_record_under_a_known_number(seen):
    seen.messages.append(message_of(12.6, 0, "aaa", 1, BASE + 2))


def lower_sequence_delivered(seen):
    seen.events.append(record_event(12.6, "aaa", 1))


def torn_write(seen):
    seen.writes[-1].elements["L1.b"]["v"] = str(BASE + 3)


def half_a_write(seen):
    del seen.writes[-1].elements["L1.b"]


def torn_record(seen):
    seen.messages[0].fields["y"] += 1


def never_marked_invalid(seen):
    seen.writes = [write for write in seen.writes if not 10 < write.at < 12.2]
    for write in seen.writes:
        write.at += 2 if write.at > 12 else 0


def cleared_long_before_the_new_record(seen):
    seen.lives["publisher"][1].born = 14
    for write in seen.writes:
        if write.at == 12.2:
            write.at = 14.0


def left_good_for_ever(seen):
    seen.writes = [write for write in seen.writes if write.at < 10]
    seen.now = 20.0


def record_of_a_dead_gateway(seen):
    seen.lives["gateway"] = [Life(1, 1.0, 10.0), Life(2, 12.0)]
    seen.messages[-1].incarnation = seen.messages[-2].incarnation = "bbb"


def still_connected_to_a_dead_gateway(seen):
    seen.lives["gateway"] = [Life(1, 1.0, 10.0)]
    seen.sessions[0].closed = 10.0
    seen.events = seen.events[:2]
    seen.now = 20.0


def disconnected_late(seen):
    seen.lives["gateway"] = [Life(1, 1.0, 9.5)]
    seen.sessions[0].closed = 9.5
    seen.events = [*seen.events[:2], (12.0, {"event": "disconnected", "publication": "out/0"})]


def record_lost(seen):
    seen.published[0] = [(1, 3), (2, 2)]


def two_owners(seen):
    seen.messages[-1].incarnation = "bbb"


PLANTED = [
    ("resumes", drop_new_writes), ("resumes", only_old_numbers_after_the_return), ("resumes", new_but_still_invalid),
    ("resumes", late_by_six_seconds), ("resumes", nothing_new_on_the_broker), ("resumes", retained_of_old_on_the_broker),
    ("resumes", bad_on_the_broker),
    ("invalid", one_never_marked), ("invalid", marked_late), ("invalid", marked_with_a_strange_time),
    ("source times", value_with_another_time), ("source times", element_with_another_time),
    ("equal", element_behind), ("equal", element_invalid), ("equal", element_missing),
    ("carry", publication_behind), ("carry", publication_missing), ("carry", store_behind_its_word), ("carry", bad_on_the_broker),
    ("forward", lower_number_after_a_higher), ("forward", dead_life_after_the_new_one),
    ("forward", new_record_out_of_order_on_the_broker),
    ("forward", other_record_under_a_known_number), ("forward", lower_sequence_delivered),
    ("whole", torn_write), ("whole", half_a_write), ("whole", torn_record),
    ("dead", never_marked_invalid), ("dead", cleared_long_before_the_new_record), ("dead", left_good_for_ever),
    ("dead", record_of_a_dead_gateway), ("dead", still_connected_to_a_dead_gateway), ("dead", disconnected_late),
    ("presence", lambda seen: seen.presences.append("kel/test/publisher/load/0a1b")),
    ("presence", lambda seen: setattr(seen, "presences", None)),
    ("ledger", lambda seen: seen.ledger.update(balanced=False, why=["load/0: 3 missing"])),
    ("ledger", lambda seen: seen.ledger.update(moving=True)), ("ledger", lambda seen: setattr(seen, "ledger", None)),
    ("lost", record_lost),
    ("memory", lambda seen: seen.memory.update(gateway=65 * 1048576)), ("memory", lambda seen: seen.memory.clear()),
    ("owner", two_owners), ("owner", lambda seen: seen.messages.clear()),
    ("says once", lambda seen: seen.said["gateway"].append("waiting")), ("says once", lambda seen: seen.said.clear()),
    ("never says", lambda seen: seen.said["gateway"].append("ERROR: x")),
    ("running", lambda seen: seen.running.update(gateway=False)),
    ("idle", lambda seen: seen.said["gateway"].append("Created client mapping between DPE a and publication b")),
    ("idle", lambda seen: seen.running.clear()),
]


@pytest.mark.parametrize("name, plant", PLANTED, ids=[f"{name}-{getattr(plant, '__name__', 'x')}" for name, plant in PLANTED])
def test_a_planted_violation_is_seen(good, name, plant):
    bad = copy.deepcopy(good)
    plant(bad)
    with pytest.raises(Violated) as caught:
        JUDGES[name](bad)
    assert len(str(caught.value)) > 20, "with figures"


@pytest.mark.parametrize("name", list(JUDGES))
def test_a_judge_that_looked_at_nothing_says_so(name):
    blank = Evidence()
    blank.losses, blank.returns = [(10.0, 1_000_000, "the end of nobody")], [Return(12.0, "nothing", {}, {})]
    blank.now = 13.0
    with pytest.raises(Violated) as caught:
        JUDGES[name](blank)
    assert len(str(caught.value)) > 20


def test_every_judge_has_a_planted_violation():
    assert {name for name, _ in PLANTED} == set(JUDGES)


def test_a_record_may_come_again_on_the_broker(good):
    good.messages.append(message_of(12.6, 0, "aaa", 1, BASE + 1))
    good.messages.append(message_of(12.7, 0, "aaa", 2, BASE + 2))
    evidence.sequences_forward(good)


def test_a_flag_cleared_right_before_its_record_is_not_stale(good):
    assert evidence.dead_shown_as_good(good, 2) == []


def test_nobody_can_mark_anything_while_the_gateway_is_away(good):
    good.lives["gateway"] = [Life(1, 1.0, 10.0), Life(2, 15.0)]
    good.messages = []
    good.writes = [write for write in good.writes if write.at < 10] + [flag_of(16.0, 30 + p, p, "1") for p in (0, 1)]
    good.now = 20.0
    assert evidence.stale.elements(good, 2) == []
    for write in good.writes:
        write.at += 2 if write.at > 10 else 0
    assert len(evidence.stale.elements(good, 2)) == 6


def test_log_entries_are_read_as_the_store_writes_them():
    assert attributes_of(b"i01121v71.5 v") == {"i": "0", "1": "1", "2": "1", "v": "71.5 v"}
    entry = log_entry(1.0, b"17-0", [b"s", b"5 1.abc", b"A.x", b"i1", b"A.y", b"v3"])
    assert (entry.sequence, entry.time_ms, entry.writer) == (17, 5, "1.abc")
    assert entry.elements == {"A.x": {"i": "1"}, "A.y": {"v": "3"}}
    assert log_entry(1.0, b"18-0", [b"c", b"5 me", b"A.x", b"int"]) is None
    big = log_entry(1.0, b"19-0", [b"S", b"5 1.abc", b"names", b"vi A.x\ni A.y"])
    assert set(big.elements) == {"A.x", "A.y"}


def test_a_gateway_that_makes_its_mappings_may_write_part_of_a_record(good):
    del good.writes[0].elements["L0.b"]
    assert evidence.records_whole(good) is None
    good.writes[0].elements["L0.a"]["v"] = str(BASE + 9)
    with pytest.raises(evidence.Violated):
        evidence.records_whole(good)
