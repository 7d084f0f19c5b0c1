"""The life of a publisher as an element sees it: valid while it lives, invalid at once when it is gone, and never an old
record shown as good in between."""

import signal
import time

import harness


def state(site, element="A.x"):
    (reading,) = site.get(element)["elements"]
    return reading["value"], reading["invalid"]


def publisher(site, value, *switches, env=None, publication="life"):
    return site.spawn("kelgw", "kel", "pub", publication, f"v=int:{value}", "--stay", *switches, env=env)


def start(site):
    site.apply({"A.x": "int"}, {"life": {"v": "A.x"}})
    return site.gateway()


def test_a_killed_publisher_makes_its_elements_invalid_at_once_and_the_next_one_valid_again(site):
    gateway = start(site)
    first = publisher(site, 1)
    harness.wait_until(lambda: "valid\n" + gateway.said(), lambda: state(site) == (1, False))
    watch = site.watch("A.x")

    killed = time.monotonic()
    first.send_signal(signal.SIGKILL)
    harness.wait_until(lambda: "invalid\n" + gateway.said(), lambda: state(site) == (1, True))
    assert time.monotonic() - killed < 3 * harness.PATIENCE, "a closed socket is noticed at once, not by a time-out"
    harness.holds_for("invalid while nobody publishes", lambda: state(site) == (1, True), 1)

    publisher(site, 2)
    dead_shown = []

    def shows_the_new_one():
        shown = state(site)
        if shown == (1, False):
            dead_shown.append(time.monotonic())
        return shown == (2, False)

    harness.wait_until(lambda: "valid again\n" + gateway.said(), shows_the_new_one)
    # The connection clears the flag by a write of its own, right before the record of the new publisher.
    assert not dead_shown or time.monotonic() - dead_shown[0] < harness.PATIENCE, "the dead one's value passed for good"
    harness.wait_until("the watch to see it", lambda: any(event["value"] == 2 for event in watch()))
    after = [event for event in watch() if event["event"] == "set"]
    # Nothing may come between the two, and no record of the dead one may be written at all.
    assert [(event["attributes"], event["value"], event["invalid"]) for event in after] == [
        ("i", 1, True), ("i", 1, False), ("vi12", 2, False)], after


def test_a_record_left_by_a_dead_publisher_is_never_good_for_a_gateway_that_starts_later(site):
    site.apply({"A.x": "int"}, {"life": {"v": "A.x"}})
    site.done("dp", "set", "A.x", "0")  # an element that was good before: one never written is invalid by itself
    assert state(site) == (0, False)
    dead = publisher(site, 1)
    harness.wait_until("the record", lambda: dead.out)
    dead.send_signal(signal.SIGKILL)
    dead.wait()
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    harness.holds_for("what was there before", lambda: state(site)[0] == 0, 2)
    publisher(site, 2)
    harness.wait_until(lambda: "valid\n" + gateway.said(), lambda: state(site) == (2, False))
    # Not written at all, not even as invalid.
    assert [value for _, letters, value in site.log_of("A.x") if "v" in letters] == ["0", "2"], site.log_of("A.x")


def test_an_orderly_end_makes_the_elements_invalid_at_once(site):
    gateway = start(site)
    first = publisher(site, 1)
    harness.wait_until(lambda: "valid\n" + gateway.said(), lambda: state(site) == (1, False))
    assert first.stop() == 0
    ended = time.monotonic()
    harness.wait_until(lambda: "invalid\n" + gateway.said(), lambda: state(site) == (1, True))
    assert time.monotonic() - ended < 3 * harness.PATIENCE, "who ends says so, and is not only missed"


def test_a_publisher_that_hangs_is_noticed_by_its_keep_alive_and_is_good_again_when_it_goes_on(site):
    env = {"KEL_URL": site.broker.url + "&keepAlive=1"}
    site.apply({"A.x": "int"}, {"life": {"v": "A.x"}})
    gateway = site.gateway(env=env)
    first = publisher(site, 1, env=env)
    harness.wait_until(lambda: "valid\n" + gateway.said(), lambda: state(site) == (1, False))
    first.send_signal(signal.SIGSTOP)
    try:
        harness.wait_until(lambda: "invalid\n" + gateway.said(), lambda: state(site) == (1, True), 30)
    finally:
        first.send_signal(signal.SIGCONT)
    harness.wait_until(lambda: "valid again\n" + gateway.said(), lambda: state(site) == (1, False), 30)


def test_a_second_publisher_of_the_same_publication_waits_until_the_first_is_gone(site):
    gateway = start(site)
    first = publisher(site, 1, "--publisher", "one")
    harness.wait_until(lambda: "valid\n" + gateway.said(), lambda: state(site) == (1, False))
    second = publisher(site, 2, "--publisher", "two", "--limit", "60")
    harness.holds_for("the first one's value", lambda: state(site) == (1, False), 2)
    first.send_signal(signal.SIGKILL)
    harness.wait_until(lambda: "the second one's value\n" + second.said(), lambda: state(site) == (2, False), 40)


def test_a_gateway_that_starts_again_takes_up_what_is_alive(site):
    gateway = start(site)
    publisher(site, 7)
    harness.wait_until(lambda: "valid\n" + gateway.said(), lambda: state(site) == (7, False))
    gateway.kill()
    site.gateways.remove(gateway)
    site.done("dp", "set", "A.x", "0")
    again = site.gateway()
    harness.wait_until(lambda: "the value again\n" + again.said(), lambda: state(site) == (7, False), 30)


def test_a_second_gateway_with_the_same_number_waits_and_says_so_once(site):
    gateway = start(site)
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    second = site.gateway(name="Second")
    harness.wait_until(lambda: "a line\n" + second.said(), lambda: second.err)
    harness.holds_for("one line, and nothing done", lambda: len(second.err) == 1 and not second.out, 3)
    gateway.kill()
    site.gateways.remove(gateway)
    harness.wait_until(lambda: "the second one to take over\n" + second.said(),
                       lambda: any("Created client mapping" in line for line in second.out), 40)
