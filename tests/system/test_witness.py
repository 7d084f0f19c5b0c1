"""The witness itself: what it encodes is what the standard says, byte by byte, and it reads back what it wrote."""

import math

import pytest

from witness import codec


def test_a_record_has_the_bytes_of_the_standard():
    data = codec.encode({"v": ("int", -2)}, quality=1, time_ns=3, timestamp_ms=5)
    assert data == bytes.fromhex("0805"                                    # 1: timestamp 5
                                 "120b" "0a0176" "2003" "50feffffff0f"     # 2: name v, datatype 3, int 0xFFFFFFFE
                                 "120e" "0a085f7175616c697479" "2003" "5001"
                                 "120b" "0a055f74696d65" "2004" "5803")


@pytest.mark.parametrize("kind, values, data", [
    ("boolean[]", [True, False, False, False, False, False, False, True, True], "09000000" "8180"),
    ("boolean[]", [], "00000000"),
    ("byte[]", [1, 255], "01ff"),
    ("short[]", [1, -2], "0100feff"),
    ("int[]", [-1], "ffffffff"),
    ("long[]", [2], "0200000000000000"),
    ("float[]", [1.0], "0000803f"),
    ("double[]", [1.0], "000000000000f03f"),
    ("string[]", ["a", "", "bc"], "6100006263" "00"),
])
def test_arrays_are_packed_as_the_standard_says(kind, values, data):
    assert codec.pack_array(kind, values) == bytes.fromhex(data)
    assert codec.unpack_array(kind, bytes.fromhex(data)) == values


def test_every_kind_survives_a_round_trip():
    fields = {"a": ("boolean", True), "b": ("byte", 200), "c": ("short", -3), "d": ("int", -4), "e": ("long", -5),
              "f": ("float", 0.5), "g": ("double", -math.inf), "h": ("string", "ß"), "i": ("bytes", b"\xff"),
              "_j": ("string[]", ["x"]), "": ("int", 1)}
    record = codec.Record(codec.encode(fields, quality=2, time_ns=-7, publisher="p", sequence=9, reason="why"))
    assert record.fields == fields
    assert (record.quality, record.time_ns, record.publisher, record.sequence, record.reason) == (2, -7, "p", 9, "why")
