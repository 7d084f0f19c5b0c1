"""There and back: an element, its publication, a second gateway, an element of another store. Value, invalid flag and
source time arrive for every type pair that exists in both directions; what is lost on the way is listed here."""

import json

import pytest

import harness

# type at the source -> type that its Kel type reaches, [(given, as it arrives)]; where the two differ, that is the loss.
PAIRS = {
    "bit": ("bit", [("1", True), ("0", False)]),
    "int": ("int", [("-2147483648", -2147483648), ("2147483647", 2147483647)]),
    "bit32": ("int", [("7", 7), ("4294967295", -1)]),                         # the pattern becomes a signed number
    "uint": ("int", [("7", 7), ("4294967295", -1)]),                          # the low 32 bits of a long
    "float": ("float", [("0.5", 0.5), ("0.1", 0.10000000149011612)]),         # narrowed to 32 bits
    "text": ("text", [("", ""), ("Größe", "Größe")]),
    "char": ("text", [("65", "A"), ("0", "")]),                               # a text of one character
    "dyn_bit": ("dyn_bit", [("[true,false]", [True, False]), ("[]", [])]),
    "dyn_int": ("dyn_int", [("[-1,1]", [-1, 1])]),
    "dyn_bit32": ("dyn_int", [("[1,4294967295]", [1, -1])]),
    "dyn_uint": ("dyn_int", [("[1,4294967295]", [1, -1])]),
    "dyn_float": ("dyn_float", [("[0.5,0.1]", [0.5, 0.10000000149011612])]),
    "dyn_text": ("dyn_text", [('["a","","ß"]', ["a", "", "ß"])]),
    "dyn_char": ("dyn_text", [("[65,0]", ["A", ""])]),                        # a NUL inside an array travels as empty text
}


@pytest.fixture
def loop():
    """Two sites that share the broker of the first."""
    first, second = harness.Site(), harness.Site()
    first.start()
    second.redis.start()
    second.broker.port = first.broker.port
    yield first, second
    second.close()
    first.close()


def reading(site, element):
    (found,) = site.get(element)["elements"]
    return found


@pytest.mark.parametrize("kind", list(PAIRS))
def test_value_flag_and_time_go_round(loop, kind):
    first, second = loop
    target, cases = PAIRS[kind]
    first.apply({"From.x": kind}, {}, {"loop/x": {"bufferTime": 0, "fields": {"v": "From.x"}}})
    second.apply({"To.x": target}, {"loop/x": {"v": "To.x"}})
    sender, receiver = first.gateway(name="Sender"), second.gateway(name="Receiver")
    for number, (given, expected) in enumerate(cases):
        when = 1_700_000_000_001 + number
        first.done("dp", "set", "From.x", "--time", when, "--", given)
        harness.wait_until(lambda: f"{given}: {reading(second, 'To.x')}\n" + sender.said() + receiver.said(),
                           lambda: reading(second, "To.x")["stimeMs"] == when and not reading(second, "To.x")["invalid"])
        assert reading(second, "To.x")["value"] == expected
    first.done("dp", "set", "From.x", "--invalid", "--", cases[0][0])
    harness.wait_until(lambda: f"invalid: {reading(second, 'To.x')}", lambda: reading(second, "To.x")["invalid"])
    assert reading(second, "To.x")["value"] == cases[-1][1], "what was good last stays"
    when = 1_700_000_100_000
    first.done("dp", "set", "From.x", "--time", when, "--", cases[0][0])
    harness.wait_until(lambda: f"valid again: {reading(second, 'To.x')}",
                       lambda: reading(second, "To.x")["stimeMs"] == when and not reading(second, "To.x")["invalid"])
    assert reading(second, "To.x")["value"] == cases[0][1]


def test_a_dead_sender_makes_the_far_element_invalid(loop):
    first, second = loop
    first.apply({"From.x": "int"}, {}, {"loop/x": {"bufferTime": 0, "fields": {"v": "From.x"}}})
    second.apply({"To.x": "int"}, {"loop/x": {"v": "To.x"}})
    sender = first.gateway(name="Sender")
    second.gateway(name="Receiver")
    first.done("dp", "set", "From.x", "1")
    harness.wait_until("the value", lambda: reading(second, "To.x")["value"] == 1 and not reading(second, "To.x")["invalid"])
    sender.kill()
    first.gateways.remove(sender)
    harness.wait_until("invalid", lambda: reading(second, "To.x")["invalid"])
    first.gateway(name="Sender")
    harness.wait_until("valid again", lambda: not reading(second, "To.x")["invalid"], 40)
    assert json.loads(first.done("dp", "get", "From.x", "--json"))["elements"][0]["value"] == 1
