"""What elements hold is published: read by mosquitto_sub and by a decoder that nobody here wrote."""

import signal
import struct
import time

import pytest

import harness
from witness import codec


def as_float32(value):
    return struct.unpack("<f", struct.pack("<f", value))[0]


# element type -> (kind of the field, [(as given to the tool, as it arrives)])
TYPES = {
    "bit": ("boolean", [("1", True), ("0", False)]),
    "char": ("string", [("65", "A"), ("0", ""), ("126", "~")]),
    "int": ("int", [("0", 0), ("-2147483648", -2147483648), ("2147483647", 2147483647)]),
    "bit32": ("int", [("5", 5), ("4294967295", -1), ("2147483648", -2147483648)]),
    "uint": ("long", [("0", 0), ("4294967295", 4294967295)]),
    "float": ("float", [("0.1", as_float32(0.1)), ("-273.15", as_float32(-273.15)), ("inf", float("inf"))]),
    "text": ("string", [("", ""), ("Größe \U0001F525", "Größe \U0001F525"), ("%s%n", "%s%n")]),
    "dyn_bit": ("boolean[]", [("[true,false,true]", [True, False, True]), ("[]", [])]),
    "dyn_char": ("string[]", [("[65,66]", ["A", "B"]), ("[]", [])]),
    "dyn_int": ("int[]", [("[-1,2147483647]", [-1, 2147483647]), ("[]", [])]),
    "dyn_bit32": ("int[]", [("[1,4294967295]", [1, -1])]),
    "dyn_uint": ("long[]", [("[0,4294967295]", [0, 4294967295])]),
    "dyn_float": ("float[]", [("[0.1,1e300]", [as_float32(0.1), float("inf")]), ("[]", [])]),
    "dyn_text": ("string[]", [('["a","","ß"]', ["a", "", "ß"]), ("[]", [])]),
}


class Reader:
    """The records of one publication as they come, retained first."""

    def __init__(self, site, publication):
        self.topic = site.broker.topic(publication)
        self.listener = site.broker.subscribe("kel/#")
        site.processes.append(self.listener.process)

    def records(self):
        return [codec.Record(payload) for _, _, _, payload in self.listener.of(self.topic) if payload]

    def arrivals(self):
        return [(arrival, codec.Record(payload)) for arrival, _, _, payload in self.listener.of(self.topic) if payload]

    def last(self):
        records = self.records()
        return records[-1] if records else None

    def wait(self, what, condition, limit=20):
        """Until the last record fulfils the condition; that record."""
        def met():
            record = self.last()
            return record if record is not None and condition(record) else None
        return harness.wait_until(
            lambda: f"{what}; last: {vars(self.last()) if self.last() else None}\n" + self.listener.process.said(), met, limit)


def set_value(site, element, value, *switches):
    site.done("dp", "set", element, *switches, "--", value)


@pytest.mark.parametrize("kind", list(TYPES))
def test_every_element_type_arrives_as_its_kel_type(site, kind):
    field_kind, cases = TYPES[kind]
    site.apply({"P.x": kind}, {}, {"out/x": {"bufferTime": 0, "fields": {"v": "P.x"}}})
    gateway = site.gateway()
    reader = Reader(site, "out/x")
    harness.wait_until(lambda: "the publication\n" + gateway.said(), lambda: "Created Publication group out/x" in gateway.out)
    for number, (given, expected) in enumerate(cases):
        when = 1_700_000_000_000 + number
        set_value(site, "P.x", given, "--time", str(when))
        record = reader.wait(f"{kind} {given}", lambda record: record.time_ns == when * 1_000_000)
        assert record.fields == {"v": (field_kind, expected)}
        assert record.quality == 1
    assert not [line for line in gateway.out if line.startswith("ERROR:")], gateway.said()


def test_a_gateway_that_starts_late_publishes_what_is_there(site):
    site.apply({"P.x": "int", "P.y": "text", "P.z": "float"}, {},
               {"now": {"bufferTime": 0, "fields": {"x": "P.x", "y": "P.y"}}, "later": {"bufferTime": 50, "fields": {"z": "P.z"}}})
    set_value(site, "P.x", "42")
    set_value(site, "P.y", "there")
    set_value(site, "P.z", "0.5")
    reader, later = Reader(site, "now"), Reader(site, "later")
    site.gateway()
    record = reader.wait("the current values", lambda record: record.quality == 1)
    assert record.fields == {"x": ("int", 42), "y": ("string", "there")}
    record = later.wait("the current value of the buffered group", lambda record: record.quality == 1)
    assert record.fields == {"z": ("float", 0.5)}


def test_the_reports_of_a_publication_are_exact_and_in_order(site):
    site.apply({"P.x": "int", "P.y": "text"}, {}, {"two": {"bufferTime": 0, "fields": {"x": "P.x", "y": "P.y"}}})
    gateway = site.gateway()
    harness.wait_until(lambda: "the group\n" + gateway.said(), lambda: "Created Publication group two" in gateway.out)
    assert gateway.out == ["Created DPEWrapper for DPE P.x", "Created publisher mapping between DPE P.x tag x",
                           "Created DPEWrapper for DPE P.y", "Created publisher mapping between DPE P.y tag y",
                           "Created Publication group two"]


def test_a_publication_without_tag_carries_the_unnamed_value(site):
    site.apply({"P.x": "int"}, {}, {"bare": {"bufferTime": 0, "fields": {"": "P.x"}}})
    set_value(site, "P.x", "7")
    reader = Reader(site, "bare")
    site.gateway()
    assert reader.wait("the value", lambda record: record.quality == 1).fields == {"": ("int", 7)}


def test_a_group_with_an_invalid_element_is_bad_and_recovers(site):
    site.apply({"P.x": "int", "P.y": "int"}, {}, {"pair": {"bufferTime": 0, "fields": {"x": "P.x", "y": "P.y"}}})
    reader = Reader(site, "pair")
    site.gateway()
    first = reader.wait("never sent, both invalid", lambda record: record.quality == -1)
    assert first.fields == {} and first.reason == "2 PVSS dpe's set to invalid"
    set_value(site, "P.x", "1")
    reader.wait("one still invalid", lambda record: record.reason == "1 PVSS dpe's set to invalid")
    set_value(site, "P.y", "2")
    good = reader.wait("good", lambda record: record.quality == 1)
    assert good.fields == {"x": ("int", 1), "y": ("int", 2)}
    set_value(site, "P.y", "3", "--invalid")
    bad = reader.wait("bad", lambda record: record.quality == 0)
    assert bad.fields == {"x": ("int", 1), "y": ("int", 2)}, "the last sent values are repeated"
    assert bad.reason == "1 PVSS dpe's set to invalid"
    assert abs(bad.time_ns / 1e9 - time.time()) < 60 * harness.PATIENCE, "the time of the declaration"
    set_value(site, "P.y", "4")
    assert reader.wait("good again", lambda record: record.quality == 1).fields == {"x": ("int", 1), "y": ("int", 4)}


def test_a_change_of_thousands_of_elements_and_a_list_is_taken_whole_and_as_it_was_then(site):
    count = 3001  # more than one entry of the log takes
    elements = {f"P.e{i}": "int" for i in range(count)}
    site.apply({**elements, "A.x": "int"}, {"p1": {"t": "A.x"}},
               {"wide": {"bufferTime": 0, "fields": {f"t{i}": f"P.e{i}" for i in range(count)}}})
    site.done("dp", "set", harness.LIST, "[]")
    reader = Reader(site, "wide")
    gateway = site.gateway()
    harness.wait_until(lambda: "the publication\n" + gateway.said(), lambda: "Created Publication group wide" in gateway.out)
    # Until then it has not read what the elements hold, and would begin with the last of it.
    reader.wait("what was never sent is bad", lambda record: record.quality == -1)
    gateway.send_signal(signal.SIGSTOP)  # so that all of it is there when the first is looked at
    for number in range(1, 4):
        pairs = [word for i in range(count) for word in (f"P.e{i}", f"i0v{number * count + i}")]
        names = [harness.LIST, "i0v3:A.x" if number == 1 else "i0v"]
        site.redis.command("FCALL", "dp_set", "0", "hand", "", str(number), str(number - 1), str(number), "", *pairs, *names)
    assert [fields[0] for _, fields in site.redis.command("XREVRANGE", "dp:log", "+", "-", "COUNT", "3")] == [b"S"] * 3
    gateway.send_signal(signal.SIGCONT)
    reader.wait("the last of them", lambda record: record.quality == 1 and record.time_ns == 3_000_000)
    seen = [record for record in reader.records() if record.quality == 1]
    assert [record.time_ns for record in seen] == [1_000_000, 2_000_000, 3_000_000]
    for number, record in enumerate(seen, 1):
        assert record.fields == {f"t{i}": ("int", number * count + i) for i in range(count)}, number
    mapped = [line for line in gateway.out if "client mapping" in line]
    assert mapped == ["Created client mapping between DPE A.x and publication p1\x1at",
                      "Destroyed client mapping between DPE A.x and publication p1\x1at"]


def test_large_changes_are_published_each_with_its_own_value_and_in_order(site):
    site.apply({"P.list": "dyn_text"}, {}, {"large": {"bufferTime": 0, "fields": {"v": "P.list"}}})
    reader = Reader(site, "large")
    gateway = site.gateway()
    harness.wait_until(lambda: "the publication\n" + gateway.said(), lambda: "Created Publication group large" in gateway.out)
    # Until then it has not read what the elements hold, and would begin with the last of it.
    reader.wait("what was never sent is bad", lambda record: record.quality == -1)
    gateway.send_signal(signal.SIGSTOP)  # so that all of it is there when the first is looked at
    for number in range(1, 6):
        items = 400 * f"200:{200 * str(number)}"
        site.redis.command("FCALL", "dp_set", "0", "test", "", str(number), str(number - 1), str(1_700_000_000_000 + number), "",
                           "P.list", "i0v" + items)
    gateway.send_signal(signal.SIGCONT)
    reader.wait("the last", lambda record: record.quality == 1 and record.fields["v"][1][0][0] == "5")
    good = [record.fields["v"][1] for record in reader.records() if record.quality == 1]
    assert [texts[0][0] for texts in good] == ["1", "2", "3", "4", "5"]
    assert all(texts == 400 * [200 * texts[0][0]] for texts in good)


@pytest.mark.parametrize("before,after", [("text", "int"), ("float", "int")])
def test_an_element_that_changes_its_type_makes_its_publication_bad_until_the_type_is_back(site, before, after):
    out = {"one": {"bufferTime": 0, "fields": {"v": "P.x"}}}
    site.apply({"P.x": before}, {}, out)
    reader = Reader(site, "one")
    gateway = site.gateway()
    set_value(site, "P.x", "7")
    good = reader.wait("the value", lambda record: record.quality == 1)
    site.apply({"P.x": after}, {}, out)
    reader.wait("bad", lambda record: record.quality == 0 and record.reason == "1 PVSS dpe's set to invalid")
    for value in ("100", "101"):
        set_value(site, "P.x", value)
    assert site.get("P.x")["elements"][0]["value"] == 101
    harness.wait_until(lambda: "three bad records\n" + gateway.said(), lambda: reader.last().sequence >= good.sequence + 3)
    assert all(record.quality == 0 for record in reader.records() if record.sequence > good.sequence) and gateway.running()
    line = f"P.x changed its type from {before} to {after}: whoever followed it before gets no value of it"
    assert any(line in said for said in gateway.err), gateway.said()
    site.apply({"P.x": before}, {}, out)
    set_value(site, "P.x", "8")
    reader.wait("good again", lambda record: record.quality == 1)


def test_an_element_that_is_deleted_makes_its_publication_bad(site):
    site.apply({"P.x": "int"}, {}, {"one": {"bufferTime": 0, "fields": {"v": "P.x"}}})
    reader = Reader(site, "one")
    gateway = site.gateway()
    set_value(site, "P.x", "7")
    reader.wait("the value", lambda record: record.quality == 1)
    site.redis.command("FCALL", "dp_del", "0", "test", "P.x")
    reader.wait("bad", lambda record: record.quality == 0 and record.reason == "1 PVSS dpe's set to invalid")
    assert any("P.x was deleted" in said for said in gateway.err), gateway.said()


def test_the_time_of_a_publication_is_its_newest_source_time_and_never_goes_back(site):
    site.apply({"P.x": "int", "P.y": "int"}, {}, {"time": {"bufferTime": 0, "fields": {"x": "P.x", "y": "P.y"}}})
    set_value(site, "P.x", "1", "--time", "1700000002000")
    set_value(site, "P.y", "1", "--time", "1700000001000")
    reader = Reader(site, "time")
    site.gateway()
    reader.wait("the newest time", lambda record: record.time_ns == 1_700_000_002_000_000_000)
    set_value(site, "P.y", "2", "--time", "1700000001500")
    reader.wait("the time stays", lambda record: record.fields["y"] == ("int", 2) and record.time_ns == 1_700_000_002_000_000_000)
    set_value(site, "P.y", "3", "--time", "1700000003000")
    reader.wait("the time advances", lambda record: record.time_ns == 1_700_000_003_000_000_000)


def test_buffered_groups_send_at_most_once_per_buffer_time_with_the_newest_values(site):
    buffer_ms = 400
    site.apply({"P.x": "int", "P.y": "int"}, {}, {"slow": {"bufferTime": buffer_ms, "fields": {"x": "P.x", "y": "P.y"}}})
    for element in ("P.x", "P.y"):
        set_value(site, element, "0")
    reader = Reader(site, "slow")
    site.gateway()
    reader.wait("the first record", lambda record: record.quality == 1)
    end, number = time.monotonic() + 4, 0
    while time.monotonic() < end:
        number += 1
        set_value(site, "P.x", str(number))
        set_value(site, "P.y", str(number))
    reader.wait("the newest values", lambda record: record.fields == {"x": ("int", number), "y": ("int", number)})
    arrivals = reader.arrivals()
    assert len(arrivals) <= 4000 / buffer_ms + 3, f"{len(arrivals)} records for {number} changes"
    # Publishing is spaced by the buffer time; the way to this process may shorten a gap by what it delayed the one before.
    gaps = [after[0] - before[0] for before, after in zip(arrivals, arrivals[1:])]
    assert sum(gaps) >= (len(gaps) - 1) * buffer_ms / 1000 * 0.95, gaps
    values = [record.fields["x"][1] for _, record in arrivals]
    assert values == sorted(values)


def test_a_publication_added_while_running_starts_and_an_existing_one_stays_as_it_is(site):
    elements = {"P.x": "int", "P.y": "int"}
    site.apply(elements, {}, {"one": {"bufferTime": 0, "fields": {"x": "P.x"}}})
    set_value(site, "P.x", "1")
    set_value(site, "P.y", "2")
    gateway = site.gateway()
    one, two = Reader(site, "one"), Reader(site, "two")
    one.wait("the first publication", lambda record: record.quality == 1)
    before = len(gateway.out)
    out = site.apply(elements, {}, {"one": {"bufferTime": 0, "fields": {"x": "P.y"}}, "two": {"bufferTime": 0, "fields": {"y": "P.y"}}})
    assert "one" in out and "restart" in out, out
    two.wait("the second publication", lambda record: record.fields == {"y": ("int", 2)})
    assert gateway.out[before:] == ["Created DPEWrapper for DPE P.y", "Created publisher mapping between DPE P.y tag y",
                                    "Created Publication group two"]
    set_value(site, "P.x", "5")
    one.wait("the first one as it was", lambda record: record.fields == {"x": ("int", 5)})


def test_an_entry_that_cannot_work_is_reported_and_the_others_do(site):
    site.apply({"P.x": "int"}, {}, {"good": {"bufferTime": 0, "fields": {"x": "P.x"}}})
    set_value(site, "P.x", "1")
    (listed,) = site.get(harness.PUBLICATIONS)["elements"]
    entries = ["only\x1a0", "odd\x1a0\x1aP.x\x1at\x1amore", "name\x1a\x1aP.x", "late\x1asoon\x1aP.x",
               "gone\x1a0\x1aNo.such", *listed["value"]]
    set_value(site, harness.PUBLICATIONS, "[" + ", ".join('"' + entry.replace("\x1a", "\\x1A") + '"' for entry in entries) + "]")
    gateway = site.gateway()
    reader = Reader(site, "good")
    reader.wait("the good one", lambda record: record.fields == {"x": ("int", 1)})
    for bad in entries[:4]:
        assert f'ERROR: kelPublicationManager 66 Badly formated publication configuration "{bad}"' in gateway.out, gateway.said()
    at = gateway.out.index("ERROR: kelPubGroup 237 Invalid DPE No.such can not be published through gone. This pub is now invalid")
    assert gateway.out[at + 1:at + 4] == ["Destroyed DPEWrapper for DPE No.such",
                                          "Destroying pub group mappings before publication was created",
                                          "ERROR: kelPublicationManager 38 Failed to create Publication group gone"]


def test_publications_wait_for_a_broker_that_is_away_and_carry_the_newest_values(site):
    site.apply({"P.x": "int"}, {}, {"x": {"bufferTime": 0, "fields": {"x": "P.x"}}})
    set_value(site, "P.x", "1")
    gateway = site.gateway()
    Reader(site, "x").wait("the first record", lambda record: record.quality == 1)
    site.broker.stop()
    for number in range(2, 30):
        set_value(site, "P.x", str(number))
    site.broker.start()
    record = Reader(site, "x").wait("the newest value\n" + gateway.said(), lambda record: record.fields == {"x": ("int", 29)})
    assert record.quality == 1
