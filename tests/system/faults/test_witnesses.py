"""The witnesses of what was published read what they are given as it is meant."""

import pytest

import traffic
import witnesses
from witness import codec

NUMBER = traffic.LIFE_NUMBERS + 17
LOG = [(1.0, "New client connected from 127.0.0.1:34768 as KelGateway-aaa (p5, c1, k60)."),
       (1.1, "KelGateway-aaa 1 kel/test/data/load/0"), (1.2, "KelGateway-aaa 1 kel/test/data/load/7"),
       (1.3, "KelGateway-aaa 1 kel/test/publisher/#"), (1.4, "load-bbb 1 kel/test/claim/load/0"),
       (1.5, "Outgoing messages are being dropped for client KelGateway-aaa.")]


def test_a_number_is_read_from_the_source_time_of_a_record():
    def payload(ms):
        return codec.encode({"n": ("int", 1)}, timestamp_ms=ms, time_ns=ms * 1_000_000)
    assert witnesses.number_of_payload(payload(traffic.START_MS + NUMBER)) == NUMBER
    assert witnesses.number_of_payload(payload(1_795_000_000_000)) is None, "a time of the wall clock"
    assert witnesses.number_of_payload(b"") is None
    assert witnesses.number_of_payload(codec.encode({"n": ("int", 1)})) is None


def test_the_broker_says_since_when_a_gateway_was_subscribed_and_until_when():
    for end, closed in [([], 9.0), ([(2.0, "Client KelGateway-aaa closed its connection.")], 2.0),
                        ([(2.0, "Client KelGateway-aaa has exceeded timeout, disconnecting.")], 2.0),
                        ([(2.0, "Client KelGateway-aaa disconnected.")], 2.0)]:
        (session,) = witnesses.sessions_of(LOG + end, 9.0, "KelGateway-")
        assert (session.opened, session.closed, session.dropped) == (1.0, closed, True)
        assert [session.had(7, at) for at in (1.1, 1.2, closed - 0.01, closed)] == [False, True, True, False]
        assert not session.had(1, 1.5)


def test_a_client_that_comes_again_has_a_session_of_its_own():
    first, second = witnesses.sessions_of([*LOG, (3.0, LOG[0][1])], None, "KelGateway-")
    assert (first.closed, second.opened, second.closed, second.topics) == (3.0, 3.0, None, {})


def test_the_broker_says_when_it_has_read_rights_anew():
    lines = [*LOG, (2.0, "Reloading config."), (3.0, "Reloading config."), (4.0, "Reloading config.")]
    assert witnesses.without_rights(lines, [False, True, False], None) == [(2.0, 3.0), (4.0, float("inf"))]
    assert witnesses.without_rights(lines, [False, True, False], 9.0) == [(2.0, 3.0), (4.0, 9.0)]
    assert witnesses.without_rights(LOG, [False], None) == [], "it was told, and has not done it yet"


def test_handed_over_is_what_an_account_has_said():
    handed = witnesses.Handed()
    for at, counts in [(1.0, (0, 0)), (1.5, (3, 0)), (2.0, (5, 1))]:
        handed.note(at, 1, counts)
    assert [handed.by(1, 0, count) for count in (1, 3, 4, 5, 6)] == [1.5, 1.5, 2.0, 2.0, None]
    assert handed.by(1, 1, 1) == 2.0
    assert handed.by(2, 0, 1) is None


@pytest.mark.parametrize("kind", ["busy", "typed", "large"])
def test_a_text_of_each_field_is_agreed_upon(kind):
    assert set(traffic.texts(kind, NUMBER)) == set(traffic.fields(kind))
    assert set(traffic.out_texts(kind, NUMBER)) == set(traffic.out_fields(kind)) == set(traffic.out_values(kind, NUMBER))
    assert traffic.texts(kind, NUMBER) != traffic.texts(kind, NUMBER + 1)


def test_large_is_more_than_a_log_entry_holds():
    assert sum(map(len, traffic.texts("large", NUMBER).values())) > 65_536
    assert sum(map(len, traffic.out_texts("large", NUMBER).values())) > 65_536
