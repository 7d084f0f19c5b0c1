"""What is no record is counted and reported once with its topic, never delivered half, and never ends the gateway."""

import os
import random
import struct

import pytest

import harness
from witness import codec

NS = 1_700_000_000_000_000_000
GOOD = codec.encode({"v": ("int", 1), "w": ("int", 1)}, quality=1, time_ns=NS)


def varint(number):
    out = b""
    while number > 0x7F:
        out += bytes([number & 0x7F | 0x80])
        number >>= 7
    return out + bytes([number])


def metric(*parts):
    body = b"".join(parts)
    return b"\x12" + varint(len(body)) + body


def named(text):
    return b"\x0a" + varint(len(text)) + text


def datatype(number):
    return b"\x20" + varint(number)


def held(data):
    return b"\x82\x01" + varint(len(data)) + data


V = named(b"v") + datatype(3) + b"\x50\x63"  # v = 99: must not be delivered without the rest

BAD = {
    "garbage": b"\xff" * 64,
    "text": b"this is no payload",
    "truncated": codec.encode({"v": ("int", 99), "w": ("string", "x" * 50)}, time_ns=NS)[:-20],
    "length beyond the end": b"\x12\xff\xff\xff\xff\x0f" + V,
    "unknown datatype": metric(V) + metric(named(b"w"), datatype(77), b"\x50\x01"),
    "unsigned datatype": metric(V) + metric(named(b"w"), datatype(7), b"\x50\x01"),
    "dataset datatype": metric(V) + metric(named(b"w"), datatype(16)),
    "no datatype": metric(V) + metric(named(b"w"), b"\x50\x01"),
    "value of another kind": metric(V) + metric(named(b"w"), datatype(12), b"\x50\x01"),
    "no value": metric(V) + metric(named(b"w"), datatype(3)),
    "array not a multiple": metric(V) + metric(named(b"w"), datatype(24), held(b"12345")),
    "booleans beyond the bytes": metric(V) + metric(named(b"w"), datatype(32), held(struct.pack("<I", 4_000_000_000) + b"\xff")),
    "booleans without count": metric(V) + metric(named(b"w"), datatype(32), held(b"\x01")),
    "string array without end": metric(V) + metric(named(b"w"), datatype(33), held(b"abc")),
    "no name": metric(V) + metric(datatype(3), b"\x50\x01"),
    "quality of another type": metric(V) + metric(named(b"_quality"), datatype(12), b"\x7a\x01x"),
    "deep nesting": b"\x12" + varint(20000) + b"\x4a" * 20000,
    "a group that never ends": b"\x0b" * 5000,
}


@pytest.fixture
def fed(site):
    site.apply({"B.v": "int", "B.w": "int"}, {"bad": {"v": "B.v", "w": "B.w"}})
    site.process = site.gateway()
    site.broker.publish("bad", GOOD)
    harness.wait_until("the first record", lambda: values(site) == [1, 1])
    return site


def values(site):
    return [reading["value"] for reading in site.get("B.*")["elements"]]


def works_still(site, number):
    site.broker.publish("bad", codec.encode({"v": ("int", number), "w": ("int", number)}, time_ns=NS + number * 1_000_000))
    harness.wait_until(lambda: f"record {number} after a bad one\n" + site.process.said(), lambda: values(site) == [number, number])


@pytest.mark.parametrize("name", list(BAD))
def test_a_bad_payload_is_reported_with_its_topic_and_nothing_of_it_arrives(fed, name):
    before = len(fed.process.err)
    fed.broker.publish("bad", BAD[name])
    harness.wait_until(lambda: f"a line about {name}\n" + fed.process.said(),
                       lambda: [line for line in fed.process.err[before:] if fed.broker.topic("bad") in line])
    assert values(fed) == [1, 1], "nothing of a bad record may arrive"
    works_still(fed, 2)
    assert fed.process.running()


def test_a_reserved_name_that_nobody_knows_is_passed_over(fed):
    before = len(fed.process.err)
    v, w = (metric(named(name), datatype(3), b"\x50\x63") for name in (b"v", b"w"))
    fed.broker.publish("bad", v + metric(named(b"_else"), datatype(3), b"\x50\x01") + w)
    harness.wait_until("the record", lambda: values(fed) == [99, 99])
    assert len(fed.process.err) == before, fed.process.said()


def test_many_bad_payloads_are_one_line_a_minute(fed):
    before = len(fed.process.err)
    for _ in range(20):
        for payload in (BAD["garbage"], BAD["truncated"], BAD["unknown datatype"]):
            fed.broker.publish("bad", payload, retain=False)
    works_still(fed, 3)
    lines = [line for line in fed.process.err[before:] if fed.broker.topic("bad") in line]
    assert len(lines) == 1, fed.process.said()


def test_random_damage_never_ends_the_gateway(fed):
    seed = int.from_bytes(os.urandom(4), "little")
    print("seed", seed)
    chance = random.Random(seed)
    whole = codec.encode({"v": ("int", 1), "w": ("int", 1), "a": ("string[]", ["x", "yy"]), "b": ("boolean[]", [True] * 9),
                          "d": ("double[]", [1.5, 2.5])}, quality=1, time_ns=NS)
    for _ in range(150):
        damaged = bytearray(whole)
        for _ in range(chance.randint(1, 8)):
            damaged[chance.randrange(len(damaged))] = chance.randrange(256)
        fed.broker.publish("bad", bytes(damaged[:chance.randint(1, len(damaged))]), retain=False)
    works_still(fed, 4)


def test_a_large_record_arrives_and_an_empty_one_closes_the_publication(fed):
    big = {"v": ("int", 5), "w": ("int", 5), "rest": ("bytes", b"\xff" * 8_000_000)}
    fed.broker.publish("bad", codec.encode(big, time_ns=NS + 5_000_000))
    harness.wait_until("the large record", lambda: values(fed) == [5, 5])
    fed.broker.publish("bad", b"")
    harness.wait_until("invalid after closing", lambda: all(reading["invalid"] for reading in fed.get("B.*")["elements"]))
    assert values(fed) == [5, 5]
