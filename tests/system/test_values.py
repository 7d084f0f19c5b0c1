"""Every Kel type, made by a publisher and a codec that nobody here wrote, arrives in the data point as it should."""

import math
import struct

import pytest

import harness
from witness import codec

START_NS = 1_700_000_000_123_999_999  # truncates to ...123 ms

ELEMENT_TYPES = {
    "boolean": "bit", "byte": "bit32", "short": "int", "int": "int", "long": "int", "float": "float", "double": "float",
    "string": "text", "bytes": "text", "boolean[]": "dyn_bit", "byte[]": "dyn_bit32", "short[]": "dyn_int",
    "int[]": "dyn_int", "long[]": "dyn_int", "float[]": "dyn_float", "double[]": "dyn_float", "string[]": "dyn_text",
}


def as_float32(value):
    return struct.unpack("<f", struct.pack("<f", value))[0]


def low32(value):
    return codec.signed(value, 32)


def same(value):
    return value


CONVERSIONS = {"long": low32, "float": as_float32}

INTEGERS = {"short": 16, "int": 32, "long": 64}
FLOATS = [0.0, -0.0, 1.0, 0.1, -273.15, math.nan, math.inf, -math.inf]
SCALARS = {
    "boolean": [True, False],
    "byte": [0, 1, 127, 128, 255],
    **{kind: [0, 1, -1, -(1 << bits - 1), (1 << bits - 1) - 1] for kind, bits in INTEGERS.items()},
    "float": FLOATS + [struct.unpack("<f", b"\xff\xff\x7f\x7f")[0], struct.unpack("<f", b"\x01\0\0\0")[0]],
    "double": FLOATS + [1.7976931348623157e308, 5e-324],
    "string": ["", "Kessel 1", "Überdruck °C", "\U0001F525 heiß", "\x01\t\r\n\x1a\x7f%s%n", "x" * 100_000],
    "bytes": [b"\xff\xfe\x80 not text", bytes(range(1, 256))],
}
SCALARS["long"] += [2**32 + 5, 2**31, -(2**31) - 1]
BIG = 100_000


def array_edges(kind):
    element = kind[:-2]
    if element == "string":
        return [[], [""], ["", "a", ""], ["\U0001F525", "\x01\x1a", "ß"], [f"text {i}" for i in range(BIG)]]
    values = SCALARS[element]
    return [[], values[:1], values, (values * BIG)[:BIG]] + ([[True] * 7, [True] * 8, [False, True] * 5] if element == "boolean" else [])


def expected(kind, value):
    if kind.endswith("[]"):
        return [expected(kind[:-2], item) for item in value]
    return CONVERSIONS.get(kind, same)(value)


def shown(value):
    """A value as the tool shows it in JSON, made comparable: NaN equals NaN, -0.0 differs from 0.0."""
    if isinstance(value, list):
        return [shown(item) for item in value]
    if isinstance(value, dict):
        return bytes.fromhex(value["hex"])
    return value


def key(value, floating):
    if isinstance(value, list):
        return [key(item, floating) for item in value]
    if floating:
        return struct.pack("<d", math.nan if math.isnan(float(value)) else float(value))
    return value


@pytest.mark.parametrize("kind", list(codec.KINDS))
def test_a_foreign_publisher_reaches_the_element_with_value_bits_flag_and_time(site, kind):
    site.apply({"V.x": ELEMENT_TYPES[kind]}, {"values/one": {"v": "V.x"}})
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    floating = "float" in ELEMENT_TYPES[kind]
    for number, value in enumerate(array_edges(kind) if kind.endswith("[]") else SCALARS[kind]):
        time_ns = START_NS + number * 1_000_000
        site.broker.publish("values/one", codec.encode({"v": (kind, value)}, quality=1, time_ns=time_ns))
        harness.wait_until(lambda: f"{kind} number {number}\n" + gateway.said(),
                           lambda: site.get("V.x")["elements"][0]["stimeMs"] == time_ns // 1_000_000)
        (reading,) = site.get("V.x")["elements"]
        assert key(shown(reading["value"]), floating) == key(expected(kind, value), floating)
        assert (reading["invalid"], reading["userbit1"], reading["userbit2"]) == (False, True, True)
        assert reading["type"] == ELEMENT_TYPES[kind]
    assert not [line for line in gateway.out if line.startswith("ERROR:")]


def test_one_record_feeds_all_its_elements_in_one_write(site):
    kinds = [kind for kind in codec.KINDS if kind != "bytes"]
    elements = {f"All.e{index}": ELEMENT_TYPES[kind] for index, kind in enumerate(kinds)}
    site.apply(elements, {"values/all": {f"tag {index}": f"All.e{index}" for index in range(len(kinds))}})
    gateway = site.gateway()
    # A record that comes while the mappings are being made is asked for once more, and so written twice.
    harness.wait_until("the mappings", lambda: sum("Created client mapping" in line for line in gateway.out) == len(kinds))
    values = {kind: (array_edges(kind)[2] if kind.endswith("[]") else SCALARS[kind][1]) for kind in kinds}
    site.broker.publish("values/all", codec.encode({f"tag {index}": (kind, values[kind]) for index, kind in enumerate(kinds)},
                                                   time_ns=START_NS))
    harness.wait_until("the write", lambda: site.get("All.e0")["elements"][0]["stimeMs"])
    readings = site.get("All.*")["elements"]
    assert len(readings) == len(kinds)
    for reading in readings:
        kind = kinds[int(reading["name"].removeprefix("All.e"))]
        floating = "float" in ELEMENT_TYPES[kind]
        assert key(shown(reading["value"]), floating) == key(expected(kind, values[kind]), floating)
        assert not reading["invalid"]
        assert reading["stimeMs"] == START_NS // 1_000_000
    writes = [written for _, _, _, written in site.log() if "v" in written.get("All.e0", ("", None))[0]]
    assert len(writes) == 1 and sorted(writes[0]) == sorted(elements), "one write has to carry all elements"
    assert all(sorted(letters) == ["1", "2", "i", "v"] for letters, _ in writes[0].values())


def test_the_unnamed_value_and_tags_of_every_sort_are_found(site):
    tags = {"": "T.unnamed", "_underscore": "T.underscore", "__two": "T.two", "with blank/#+%": "T.odd", "größe": "T.umlaut"}
    site.apply({name: "int" for name in tags.values()}, {"tags": tags})
    site.gateway()
    site.broker.publish("tags", codec.encode({tag: ("int", number) for number, tag in enumerate(tags)}, time_ns=START_NS))
    harness.wait_until("the write", lambda: site.get("T.unnamed")["elements"][0]["stimeMs"])
    found = {reading["name"]: reading["value"] for reading in site.get("T.*")["elements"]}
    assert found == {name: number for number, name in enumerate(tags.values())}


@pytest.mark.parametrize("name, topic", [("plant/boiler1", "plant/boiler1"), ("a b", "a%20b"), ("100%", "100%25"),
                                         ("x+y#z", "x%2By%23z"), ("Größe", "Gr%C3%B6%C3%9Fe"), ("A-z.9_/-", "A-z.9_/-")])
def test_publication_names_become_topics_byte_by_byte(site, name, topic):
    site.apply({"N.x": "int"}, {name: {"v": "N.x"}})
    site.gateway()
    site.broker.publish(topic, codec.encode({"v": ("int", 4711)}, time_ns=START_NS))
    harness.wait_until("the write", lambda: site.get("N.x")["elements"][0]["value"] == 4711)


def test_times_before_1970_and_absent_times(site):
    site.apply({"W.x": "int"}, {"when": {"v": "W.x"}})
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    for number, (how, stime) in enumerate([({"time_ns": -1_500_000_000}, -1500), ({"time_ns": -1}, 0),
                                           ({"time_ns": 4_102_444_800_000_000_000}, 4_102_444_800_000),
                                           ({"timestamp_ms": 1_600_000_000_001}, 1_600_000_000_001)], 1):
        site.broker.publish("when", codec.encode({"v": ("int", number)}, **how))
        harness.wait_until(f"number {number}", lambda: site.get("W.x")["elements"][0]["value"] == number)
        assert site.get("W.x")["elements"][0]["stimeMs"] == stime
