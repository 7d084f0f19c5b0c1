"""There and back: an element, its publication, a second gateway, an element of another store. Value, invalid flag and
source time arrive for every type pair that exists in both directions; docs/losses.md says what is lost on the way, and is
held to it here."""

import json
import pathlib
import re

import pytest

import harness

PAGE = pathlib.Path(__file__).parents[2] / "docs" / "losses.md"
TYPES = {"bit", "char", "int", "uint", "bit32", "float", "text"}


def pairs():
    """The first table of the page: type at the source -> type that it reaches, [(given, as it arrives)]."""
    found = {}
    for line in PAGE.read_text(encoding="utf-8").split("\n## ")[1].splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if len(cells) == 5 and "→" in cells[3]:
            cases = re.findall(r"`([^`]*)` → `([^`]*)`", cells[3])
            found[cells[0]] = cells[2], [("" if given == "(empty)" else given, json.loads(arrives)) for given, arrives in cases]
    return found


PAIRS = pairs()


def test_the_page_speaks_of_every_element_type():
    assert set(PAIRS) == TYPES | {f"dyn_{kind}" for kind in TYPES}
    assert all(cases for _, cases in PAIRS.values())


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
