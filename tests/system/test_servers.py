"""Servers that are not there, go away and come back."""

import time

import harness
from witness import codec

NS = 1_700_000_000_000_000_000


def value(site, element="A.x"):
    (reading,) = site.get(element)["elements"]
    return reading["value"], reading["invalid"]


def quiet_lines(process, word):
    return [line for line in process.err if word in line]


def test_a_store_that_is_not_there_yet_is_one_line_and_then_it_works(bare_site):
    site = bare_site
    site.broker.start()
    gateway = site.gateway()
    harness.wait_until(lambda: "a line about the store\n" + gateway.said(), lambda: quiet_lines(gateway, site.redis.path))
    harness.holds_for("one line, no flood", lambda: len(gateway.err) == 1 and gateway.running(), 3)
    site.redis.start()
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    site.broker.publish("p", codec.encode({"v": ("int", 1)}, time_ns=NS))
    harness.wait_until(lambda: "the value\n" + gateway.said(), lambda: value(site) == (1, False))


def test_a_broker_that_is_not_there_yet_is_one_line_and_then_it_works(bare_site):
    site = bare_site
    site.redis.start()
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway()
    harness.wait_until(lambda: "a line about the broker\n" + gateway.said(), lambda: quiet_lines(gateway, str(site.broker.port)))
    harness.holds_for("one line, no flood", lambda: len(quiet_lines(gateway, str(site.broker.port))) == 1, 3)
    site.broker.start()
    site.broker.publish("p", codec.encode({"v": ("int", 1)}, time_ns=NS))
    harness.wait_until(lambda: "the value\n" + gateway.said(), lambda: value(site) == (1, False))
    assert len(quiet_lines(gateway, str(site.broker.port))) == 2, "one line when it is back"


def test_a_broker_that_dies_makes_the_elements_invalid_and_its_return_valid_again(site):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    site.broker.publish("p", codec.encode({"v": ("int", 1)}, time_ns=NS))
    gateway = site.gateway()
    harness.wait_until("the value", lambda: value(site) == (1, False))
    site.broker.kill()
    began = time.monotonic()
    harness.wait_until(lambda: "invalid\n" + gateway.said(), lambda: value(site) == (1, True))
    assert time.monotonic() - began < 5 * harness.PATIENCE
    site.broker.start()
    site.broker.publish("p", codec.encode({"v": ("int", 2)}, time_ns=NS + 1_000_000))
    harness.wait_until(lambda: "valid again\n" + gateway.said(), lambda: value(site) == (2, False))


def test_writes_wait_while_the_store_is_away_and_arrive_in_order(site):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway()
    site.broker.publish("p", codec.encode({"v": ("int", 0)}, time_ns=NS))
    harness.wait_until("the value", lambda: value(site) == (0, False))
    site.redis.stop()
    for number in range(1, 21):
        site.broker.publish("p", codec.encode({"v": ("int", number)}, time_ns=NS + number * 1_000_000))
    site.redis.start()
    harness.wait_until(lambda: "the last value\n" + gateway.said(), lambda: value(site) == (20, False))
    written = [int(value) for _, letters, value in site.log_of("A.x") if "v" in letters]
    assert written == list(range(21)), "every record once, in order"


def test_a_store_that_is_killed_loses_nothing_that_the_gateway_had(bare_site):
    site = bare_site
    # Written out before each answer, so that what the store lost cannot be blamed on its disk.
    site.redis.settings = ("--appendfsync", "always")
    site.start()
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway()
    for number in range(1, 6):
        site.broker.publish("p", codec.encode({"v": ("int", number)}, time_ns=NS + number * 1_000_000))
        if number % 2:
            site.redis.kill()
            site.redis.start()
    harness.wait_until(lambda: "the last value\n" + gateway.said(), lambda: value(site) == (5, False))
    (reading,) = site.get("A.x")["elements"]
    assert reading["stimeMs"] == NS // 1_000_000 + 5


def test_a_store_that_comes_back_knowing_less_gets_the_newest_values_again(bare_site):
    site = bare_site
    site.redis.settings = ("--appendonly", "no")
    site.start()
    site.apply({"A.x": "int", "A.y": "text"}, {"p": {"v": "A.x", "w": "A.y"}})
    gateway = site.gateway()
    harness.wait_until("the mappings", lambda: sum("Created client mapping" in line for line in gateway.out) == 2)
    site.redis.command("SAVE")
    for number in range(1, 4):
        site.broker.publish("p", codec.encode({"v": ("int", number), "w": ("string", f"text {number}")}, time_ns=NS + number * 1_000_000))
    harness.wait_until("the values", lambda: value(site) == (3, False))
    site.redis.kill()
    site.redis.start()
    harness.wait_until(lambda: "the values again\n" + gateway.said(),
                       lambda: (value(site), value(site, "A.y")) == ((3, False), ("text 3", False)))
    assert [reading["stimeMs"] for reading in site.get("A.*")["elements"]] == [NS // 1_000_000 + 3] * 2


def test_a_flood_of_failures_is_not_a_flood_of_lines(site):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    harness.wait_until("the broker", lambda: any("connected to mqtt" in line for line in gateway.err))
    before = len(gateway.err)
    site.redis.stop()
    site.broker.stop()
    time.sleep(6)
    assert len(gateway.err) - before <= 4, gateway.said()
    cpu = gateway.cpu_seconds()
    time.sleep(2)
    assert gateway.cpu_seconds() - cpu < 0.5 * harness.PATIENCE, "waiting must not cost a core"
