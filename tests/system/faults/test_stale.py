"""Everything that is shown is looked at: quiet publications and old values too, all the time and at the end; and what nobody
looked at is not called good."""

import pytest

import evidence
import foreign
import stale
import standing
import traffic
from evidence import LIFE_NUMBERS, START_MS, Evidence, Life, Violated
from recorders import Message, Write
from witnesses import Handed

BASE = LIFE_NUMBERS
ALLOWED = 2.0


def write_of(at, seen, publication, number, invalid="0"):
    kind = seen.kinds()[publication]
    texts = traffic.texts(kind, number)
    if kind == "large":
        texts = dict.fromkeys(texts)
    return Write(at, 0, START_MS + number, "1.abc", {f"L{publication}.{tag}": {"i": invalid, "1": "1", "2": "1", "v": text}
                                                     for tag, text in texts.items()})


def flag_of(at, seen, publication, invalid):
    return Write(at, 0, 5, "1.abc", {f"L{publication}.{tag}": {"i": invalid}
                                     for tag in traffic.fields(seen.kinds()[publication])})


def out_write(at, seen, publication, number):
    kind = seen.out_kinds()[publication]
    large = kind == "large"
    return Write(at, 0, START_MS + number, "harness.1", {
        f"O{publication}.{tag}": {"i": None if large else "0", "v": None if large else text}
        for tag, text in traffic.out_texts(kind, number).items()})


def record(at, publication, number, quality=1, incarnation="aaa"):
    return at, {"event": "record", "publication": f"out/{publication}", "publisher": f"KelGateway/{incarnation}",
                "sequence": number - BASE, "quality": quality, "fields": {"x": {"type": "int", "value": number}}}


def told(at, publication, what):
    return at, {"event": what, "publication": f"out/{publication}", "text": ""}


@pytest.fixture
def seen():
    """One busy publication each way and all the quiet ones; each has sent one record at 1 and is silent; all is well."""
    found = Evidence(1, 1)
    found.handed = Handed()
    found.lives = {"publisher": [Life(1, 0.5)], "gateway": [Life(1, 0.2)], "store": [Life(1, 0.1)]}
    for index, kind in enumerate(found.kinds()):
        found.published[index] = [(1, 1)]
        found.writes.append(write_of(1.01, found, index, BASE + 1))
        for tag, text in traffic.texts(kind, BASE + 1).items():
            found.elements[f"L{index}.{tag}"] = {"v": text, "i": "0", "t": str(START_MS + BASE + 1)}
    found.handed.note(1.0, 1, (1,) * len(found.kinds()))
    for index, kind in enumerate(found.out_kinds()):
        found.confirmed[index] = BASE + 1
        found.writes.append(out_write(1.02, found, index, BASE + 1))
        for tag, text in traffic.out_texts(kind, BASE + 1).items():
            found.elements[f"O{index}.{tag}"] = {"v": text, "i": "0"}
        found.messages.append(Message(1.03, False, f"out/{index}", "aaa", 1, 1, traffic.out_values(kind, BASE + 1), 0))
        found.events += [told(1.03, index, "connected"), record(1.03, index, BASE + 1)]
    found.now = 10.0
    return found


def index_of(seen, kind):
    return seen.kinds().index(kind)


def out_index_of(seen, kind):
    return seen.out_kinds().index(kind)


def both(seen):
    return stale.elements(seen, ALLOWED) + stale.publications(seen, ALLOWED, 0.1)


def test_what_is_silent_and_true_is_good(seen):
    assert both(seen) == []
    standing.true_at_the_end(seen)


def test_a_busy_publication_shows_each_number_for_a_moment(seen):
    for count in range(2, 300):
        seen.handed.note(1.0 + count / 50, 1, (count, *[1] * len(traffic.QUIET)))
        seen.writes.append(write_of(1.01 + count / 50, seen, 0, BASE + count))
    assert both(seen) == []


def test_values_that_are_always_late_are_stale_though_each_is_shown_for_a_moment_only(seen):
    for count in range(2, 200):
        seen.handed.note(1.0 + count / 50, 1, (count, *[1] * len(traffic.QUIET)))
        seen.writes.append(write_of(4.01 + count / 50, seen, 0, BASE + count))
    found = stale.elements(seen, ALLOWED)
    assert len(found) == 3 and "L0.n showed" in found[0] and "a newer one was handed over by" in found[0]
    assert found[0].endswith("from 3.04 to 7.99"), "one stretch of them all"


@pytest.mark.parametrize("kind", ["once", "early", "hushed", "typed", "large"])
def test_a_quiet_publications_dead_value_is_seen(seen, kind):
    index = index_of(seen, kind)
    seen.lives["publisher"][0].died = 3.0
    seen.writes += [flag_of(3.1, seen, other, "1") for other in range(len(seen.kinds())) if other != index]
    found = stale.elements(seen, ALLOWED)
    assert {text.split(".")[0] for text in found} == {f"L{index}"} and "of a publisher killed at 3.00" in found[0]
    with pytest.raises(Violated, match="times shown as good though untrue"):
        evidence.nothing_dead(seen, ALLOWED)


@pytest.mark.parametrize("kind", ["busy", "hushed", "typed", "large"])
def test_an_old_value_of_a_publication_that_fell_silent_is_seen(seen, kind):
    index = index_of(seen, kind)
    counts = [1] * len(seen.kinds())
    counts[index] = 2
    seen.handed.note(3.0, 1, tuple(counts))
    found = stale.elements(seen, ALLOWED)
    assert len(found) == len(traffic.fields(kind)) and "a newer one was handed over by 3.00" in found[0]
    seen.writes.append(write_of(4.9, seen, index, BASE + 2))
    assert stale.elements(seen, ALLOWED) == []


def test_while_the_store_is_dead_nobody_is_shown_anything(seen):
    seen.lives["store"] = [Life(1, 0.1, 2.0), Life(2, 8.0)]
    seen.handed.note(3.0, 1, (2,) * len(seen.kinds()))
    seen.writes += [write_of(9.0, seen, index, BASE + 2) for index in range(len(seen.kinds()))]
    assert stale.elements(seen, ALLOWED) == []
    for write in seen.writes:
        write.at += 2 if write.at == 9.0 else 0
    assert stale.elements(seen, ALLOWED)


@pytest.mark.parametrize("kind", ["busy", "once", "hushed", "typed", "large"])
def test_a_publication_that_has_not_what_its_elements_have_is_seen(seen, kind):
    index = out_index_of(seen, kind)
    seen.writes.append(out_write(3.0, seen, index, BASE + 2))
    found = stale.publications(seen, ALLOWED, 0.1)
    assert len(found) == 1 and f"out/{index} showed {BASE + 1} as good, though the element had a newer one at 3.00" in found[0]
    seen.events.append(told(4.0, index, "disconnected"))
    assert stale.publications(seen, ALLOWED, 0.1) == []


def test_a_bad_record_shows_nothing_as_good(seen):
    seen.writes.append(out_write(3.0, seen, 0, BASE + 2))
    seen.events.append(record(4.0, 0, BASE + 1, quality=0))
    assert stale.publications(seen, ALLOWED, 0.1) == []


def test_a_dead_gateways_publication_is_seen(seen):
    seen.lives["gateway"][0].died = 3.0
    found = stale.publications(seen, ALLOWED, 0.1)
    assert len(found) == len(seen.out_kinds()) and "of a gateway killed at 3.00" in found[0]


def test_of_two_gateways_at_once_the_one_that_ended_is_told_from_the_other(seen):
    seen.lives["gateway2"] = [Life(1, 0.4)]
    for index, kind in enumerate(seen.out_kinds()):
        seen.messages.append(Message(2.0, False, f"out/{index}", "bbb", 1, 1, traffic.out_values(kind, BASE + 1), 0))
    seen.lives["gateway"][0].died = 3.0
    found = stale.publications(seen, ALLOWED, 0.1)
    assert len(found) == len(seen.out_kinds()) and "of a gateway killed at 3.00" in found[0]
    seen.events += [record(2.0, index, BASE + 1, incarnation="bbb") for index in range(len(seen.out_kinds()))]
    assert stale.publications(seen, ALLOWED, 0.1) == []
    seen.lives["gateway2"][0].died = 3.5
    found = stale.publications(seen, ALLOWED, 0.1)
    assert len(found) == len(seen.out_kinds()) and "of a gateway killed at 3.50" in found[0]


def test_where_nobody_looked_nothing_is_called_good(seen):
    seen.events = []
    assert stale.publications(seen, ALLOWED, 0.1) is None
    seen.writes = []
    assert stale.elements(seen, ALLOWED) is None
    with pytest.raises(Violated, match="looked at"):
        evidence.nothing_dead(seen, ALLOWED)


# ---------------------------------------------------------------------------------------- at the end

def value_of_before(seen, index, tag):
    seen.elements[f"L{index}.{tag}"]["v"] = traffic.texts(seen.kinds()[index], BASE + 7)[tag]


@pytest.mark.parametrize("index, tag", [(index, tag) for index, kind in enumerate(traffic.kinds(1)) for tag in traffic.fields(kind)])
def test_every_element_is_looked_at_in_the_end(seen, index, tag):
    if tag in ("bit", "bits"):
        seen.elements[f"L{index}.{tag}"]["v"] = "0" if tag == "bit" else "1,1,1"
    else:
        value_of_before(seen, index, tag)
    with pytest.raises(Violated, match=f"1 elements are not what was published last: L{index}.{tag}"):
        standing.true_at_the_end(seen)


@pytest.mark.parametrize("number", [BASE + 3, BASE + 4, BASE + 5], ids=["quality 2", "quality 0", "quality 1"])
@pytest.mark.parametrize("key", ["v", "i", "1", "2", "t"])
@pytest.mark.parametrize("element", ["F.n", "F.text"])
def test_a_foreign_record_of_any_quality_is_looked_at_in_the_end(seen, number, key, element):
    seen.foreign = number
    seen.elements.update(foreign.state_of(number))
    standing.true_at_the_end(seen)
    state = seen.elements[element]
    state[key] = {"0": "1", "1": "0"}.get(state[key], "7")
    with pytest.raises(Violated, match=f"{element} is .*, the record of quality {foreign.quality_of(number)} says"):
        standing.true_at_the_end(seen)


@pytest.mark.parametrize("index", range(len(traffic.kinds(1))))
def test_every_element_of_a_dead_publisher_is_invalid_in_the_end(seen, index):
    seen.lives["publisher"][0].died = 3.0
    for state in seen.elements.values():
        state["i"] = "1"
    standing.elements_true(seen)
    seen.elements[f"L{index}.n"]["i"] = "0"
    with pytest.raises(Violated, match=rf"1 elements are good, and their publisher is dead: L{index}\.n"):
        standing.elements_true(seen)


@pytest.mark.parametrize("index, tag", [(index, tag) for index, kind in enumerate(traffic.out_kinds(1))
                                        for tag in traffic.out_fields(kind)])
def test_every_field_of_a_publication_is_looked_at_in_the_end(seen, index, tag):
    message = next(message for message in seen.messages if message.publication == f"out/{index}")
    message.fields = {**message.fields, tag: None}
    with pytest.raises(Violated, match=f"out/{index} carries"):
        standing.true_at_the_end(seen)


@pytest.mark.parametrize("event", [record(9.0, 0, BASE + 2), record(9.0, 0, BASE + 1, 0), told(9.0, 0, "disconnected")])
def test_a_subscriber_who_is_shown_something_else_is_looked_at_in_the_end(seen, event):
    seen.events.append(event)
    with pytest.raises(Violated, match="out/0 is .* at a subscriber"):
        standing.true_at_the_end(seen)


def test_what_is_still_wrong_in_the_end_is_known():
    wrong = set()
    for form, values, left in [("pause <process>", ["store"], {("pause", "store")}), ("continue <process>", ["store"], set()),
                               ("cut <link>", ["gateway-store"], {("link", "gateway-store")}), ("heal <link>", ["gateway-store"], set()),
                               ("fill disk", [], {("disk",)}), ("free disk", [], set()), ("kill -9 <process>", ["store"], set()),
                               ("take rights at <server>", ["store"], {("rights", "store")}),
                               ("give rights at <server>", ["store"], set())]:
        standing.note(wrong, form, values)
        assert wrong == left, form
