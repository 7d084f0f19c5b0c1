"""What the quality of a record does to value, bits and flag, and what a mapping says that cannot work."""

import pytest

import harness
from witness import codec

MS = 1_700_000_000_000


def state(site, element="Q.x"):
    (reading,) = site.get(element)["elements"]
    return reading["value"], reading["userbit1"], reading["userbit2"], reading["invalid"], reading["stimeMs"]


class Sender:
    def __init__(self, site, publication="q"):
        self.site, self.publication, self.number = site, publication, 0

    def send(self, fields, **how):
        self.number += 1
        how.setdefault("time_ns", (MS + self.number) * 1_000_000)
        self.site.broker.publish(self.publication, codec.encode(fields, **how))
        return MS + self.number


@pytest.fixture
def fed(site):
    site.apply({"Q.x": "int"}, {"q": {"v": "Q.x"}})
    site.process = site.gateway()
    site.sender = Sender(site)
    when = site.sender.send({"v": ("int", 1)}, quality=1)
    harness.wait_until("the first value", lambda: state(site) == (1, True, True, False, when))
    return site


@pytest.mark.parametrize("quality, bits, invalid", [(1, (True, True), False), (2, (True, False), True),
                                                   (0, (False, False), True), (None, (True, True), False)])
def test_quality_becomes_two_bits_and_the_invalid_flag(fed, quality, bits, invalid):
    when = fed.sender.send({"v": ("int", 2)}, quality=quality)
    harness.wait_until(lambda: f"{state(fed)}", lambda: state(fed) == (2, *bits, invalid, when))


def test_quality_minus_one_writes_nothing_of_the_record(fed):
    fed.sender.send({"v": ("int", 2)}, quality=-1)
    # The publication is not there any more for its subscribers: the flag says so, value and time stay.
    harness.wait_until(lambda: f"{state(fed)}", lambda: state(fed) == (1, True, True, True, MS + 1))
    when = fed.sender.send({"v": ("int", 3)}, quality=1)
    harness.wait_until(lambda: f"{state(fed)}", lambda: state(fed) == (3, True, True, False, when))


@pytest.mark.parametrize("quality", [3, -2, 192])
def test_an_unknown_quality_writes_the_value_keeps_the_bits_and_sets_invalid(fed, quality):
    when = fed.sender.send({"v": ("int", 2)}, quality=quality)
    harness.wait_until(lambda: f"{state(fed)}", lambda: state(fed) == (2, True, True, True, when))
    assert "ERROR: CkelDataMapping 98 Failed to convert either the value or quality from q\x1av to Q.x" in fed.process.out


def test_a_missing_tag_is_reported_and_only_the_flag_is_written(site):
    site.apply({"Q.x": "int", "Q.y": "int"}, {"q": {"v": "Q.x", "absent": "Q.y"}})
    gateway = site.gateway()
    sender = Sender(site)
    when = sender.send({"v": ("int", 1)})
    harness.wait_until("the value", lambda: state(site) == (1, True, True, False, when))
    value, bit1, bit2, invalid, stime = state(site, "Q.y")
    assert (value, bit1, bit2, invalid, stime) == (None, False, False, True, 0)
    first = gateway.out.index("ERROR: CkelDataMapping 59 KEL address q\x1aabsent does not exist in publication")
    assert gateway.out[first + 1] == "ERROR: CkelDataMapping 73 Can not find converter (2)"


def test_a_field_of_a_type_that_does_not_fit_is_reported_and_works_once_it_fits(site):
    site.apply({"Q.x": "int"}, {"q": {"v": "Q.x"}})
    gateway = site.gateway()
    sender = Sender(site)
    sender.send({"v": ("double", 1.5)})
    harness.wait_until("the report", lambda: "ERROR: CkelDataMapping 73 Can not find converter (1)" in gateway.out)
    assert state(site)[0] is None and state(site)[3]
    when = sender.send({"v": ("short", -7)})
    harness.wait_until("the value", lambda: state(site) == (-7, True, True, False, when))


def test_a_field_that_changes_its_type_later_sets_invalid_and_recovers(fed):
    fed.sender.send({"v": ("string", "now a text")})
    harness.wait_until("the report", lambda: "ERROR: CkelDataMapping 98 Failed to convert either the value or quality "
                                             "from q\x1av to Q.x" in fed.process.out)
    harness.wait_until("the flag", lambda: state(fed)[3])
    assert state(fed)[0] == 1
    when = fed.sender.send({"v": ("int", 5)})
    harness.wait_until("the value", lambda: state(fed) == (5, True, True, False, when))
