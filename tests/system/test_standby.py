"""Two gateways of one number and one publisher name: whoever has the number in the store has the name at the broker."""

import signal
import time

import harness
from witness import codec

TAKEN = 4  # exit code of a gateway whose number another one has taken


def publish_plant(site):
    site.apply({"A.x": "int"}, None, {"q": {"fields": {"v": "A.x"}}})


def holder(site):
    return site.redis.command("HGET", "dp:mgr:1:lease", "writer")


def pair(site):
    """A first gateway that publishes, and a second that waits for its number."""
    first = site.gateway()
    harness.wait_until("the number of the first", lambda: holder(site))
    second = site.gateway()
    second.wait_for("that it waits", lambda: [line for line in second.err if "is held by" in line])
    return first, second


def published(witness, site, value, name):
    """Writes the value into the element; whether a record with it comes."""
    site.done("dp", "set", "A.x", str(value))
    topic = site.broker.topic("q")

    def there():
        records = [codec.Record(payload) for _, _, _, payload in witness.of(topic) if payload]
        return any(record.fields.get("v") == ("int", value) for record in records)
    harness.wait_until(f"{value} published by {name}", there, 15)


def ended(first):
    """A gateway that lost its number: gone with its exit code, and one line that says who has it."""
    assert first.wait(10) == TAKEN, first.said()
    lines = [line for line in first.err if "was taken by" in line]
    assert len(lines) == 1, first.said()
    return lines[0]


def test_a_gateway_that_slept_longer_than_its_lease_beside_a_stand_by_ends_and_leaves_number_and_name_to_it(site):
    publish_plant(site)
    witness = site.broker.subscribe()
    site.processes.append(witness.process)
    first, second = pair(site)
    published(witness, site, 1, "the first")
    first.send_signal(signal.SIGSTOP)
    taken = holder(site)
    harness.wait_until("the stand-by to take over", lambda: holder(site) not in (taken, None))
    site.done("dp", "set", "A.x", "2")
    time.sleep(1.5)
    first.send_signal(signal.SIGCONT)
    assert f"process {second.pid}" in ended(first)
    site.gateways.remove(first)
    published(witness, site, 3, "the second")
    assert second.running()


def test_an_orderly_end_leaves_the_number_to_the_stand_by_at_once(site):
    publish_plant(site)
    witness = site.broker.subscribe()
    site.processes.append(witness.process)
    first, second = pair(site)
    published(witness, site, 1, "the first")
    had = holder(site)
    assert first.stop() == 0
    assert holder(site) != had, "its lease was given back, and did not only run out"
    published(witness, site, 2, "the second")
    assert second.running()


def test_a_store_restarted_under_a_healthy_pair_lets_the_first_go_on(site):
    publish_plant(site)
    witness = site.broker.subscribe()
    site.processes.append(witness.process)
    first, second = pair(site)
    owner = holder(site)
    for turn in range(4):
        published(witness, site, 10 + turn, "the first")
        site.redis.stop()
        time.sleep(4)
        site.redis.start()
        harness.wait_until("the number to be taken again", lambda: holder(site))
        assert holder(site) == owner, first.said()
        harness.holds_for("the first to keep the number", lambda: holder(site) == owner and first.running(), 1)
    published(witness, site, 20, "the first")
    assert second.running() and not [line for line in second.err if "free again" in line], second.said()
