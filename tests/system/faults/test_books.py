"""Every published record is in one column by what was seen, and a record that is taken out of the evidence is found, wherever
it was: before a gateway's death, after it, on its way to the broker, at the newest end."""

import copy

import pytest

import books
import evidence
from evidence import LIFE_NUMBERS, START_MS, Evidence, Life, Violated
from recorders import Write
from witnesses import Handed, Session

BASE = LIFE_NUMBERS
COUNT = 400          # records of each publication, one every 10 ms from 8.0 on
BEGIN, EVERY = 8.0, 0.01
DIED, SUBSCRIBED = 9.0, 10.0


def moment(count):
    return BEGIN + count * EVERY


def write_of(at, publication, count):
    number = BASE + count
    return Write(at, 0, START_MS + number, "1.abc", {f"L{publication}.{tag}": {"i": "0", "1": "1", "2": "1", "v": str(number)}
                                                     for tag in evidence.TAGS})


def session_of(incarnation, since, until=None):
    session = Session("KelGateway-" + incarnation, since)
    session.topics, session.closed = {0: since, 1: since}, until
    return session


def row(publication, **figures):
    return {"publication": f"load/{publication}", "gaps": 0, "before": 0, "superseded": 0, "discarded": 0, "again": 0,
            "resends": 0, **figures}


@pytest.fixture
def flow():
    """Two publications; one gateway all the time, which wrote everything."""
    seen = Evidence(2, 0, quiet=False)
    seen.handed, seen.reached, seen.settled, seen.now = Handed(), {0: {}, 1: {}}, True, 14.0
    seen.published = {0: [(1, COUNT)], 1: [(1, COUNT)]}
    seen.lives = {"publisher": [Life(1, 7.0)], "gateway": [Life(1, 6.0)]}
    seen.sessions = [session_of("aaa", 6.5)]
    for count in range(1, COUNT + 1):
        seen.handed.note(moment(count), 1, (count, count))
        for publication in (0, 1):
            seen.reached[publication][BASE + count] = moment(count) + 0.001
            seen.writes.append(write_of(moment(count) + 0.003, publication, count))
    seen.ledger = {"store": {"coalesced": 0, "lost": 0, "restored": 0}, "subscribe": [row(0), row(1)]}
    return seen


@pytest.fixture
def killed(flow):
    """As flow, and the gateway was killed at 9 and its successor had subscribed at 10."""
    flow.lives["gateway"] = [Life(1, 6.0, DIED), Life(2, 9.5)]
    flow.sessions = [session_of("aaa", 6.5, DIED), session_of("bbb", SUBSCRIBED)]
    flow.writes = [write for write in flow.writes if write.at < DIED - 0.02 or write.at > SUBSCRIBED]
    return flow


def without(seen, publication, count):
    number = str(BASE + count)
    return [write for write in seen.writes if write.elements.get(f"L{publication}.n", {}).get("v") != number]


def test_all_that_was_written_is_written(flow):
    found = books.account(flow)
    assert (found.published, found.written, found.never_written, found.lost) == (2 * COUNT, 2 * COUNT, 0, 0)
    assert found.contradictions == []


def test_what_a_dying_gateway_had_and_what_came_while_there_was_none_are_told_apart(killed):
    found = books.account(killed)
    assert (found.in_flight, found.away, found.lost, found.coalesced, found.gaps) == (4, 200, 0, 0, 0)
    assert sum(found.ends.values()) == found.published
    evidence.lost_at_most(killed, 0)


@pytest.mark.parametrize("count", [50, 300], ids=["before the gateway's death", "after it"])
def test_a_write_that_is_taken_out_is_lost(killed, count):
    killed.writes = without(killed, 0, count)
    with pytest.raises(Violated, match=f"1 records are lost.*load/0 number {BASE + count}: it was at the broker at"):
        evidence.lost_at_most(killed, 0)


def test_what_is_missing_long_before_a_death_did_not_die_with_the_gateway(killed):
    killed.reached = copy.deepcopy(killed.reached)
    killed.lives["gateway"][0].died = killed.sessions[0].closed = 11.0
    killed.sessions[1] = session_of("bbb", 11.5)
    killed.writes = [write_of(moment(count) + 0.003, publication, count) for count in range(1, COUNT + 1) for publication in (0, 1)
                     if not 10.98 < moment(count) < 11.5 and (publication == 1 or not 9.0 < moment(count) < 11.0)]
    found = books.account(killed)
    assert found.lost > 50, "the other publication was written all the time: only the last second can have been under way"
    assert found.in_flight < 220


def test_a_record_of_the_moment_of_the_subscription_may_have_come_before_it(flow):
    flow.sessions = [session_of("aaa", moment(100))]
    flow.writes = [write for write in flow.writes if write.at > moment(103)]
    flow.ledger["subscribe"] = [row(0, before=102), row(1, before=102)]
    found = books.account(flow)
    assert (found.away, found.lost, found.contradictions) == (204, 0, [])
    flow.ledger["subscribe"] = [row(0, before=99, superseded=3), row(1, before=99, superseded=3)]
    assert (books.account(flow).lost, books.account(flow).contradictions) == (0, [])
    flow.writes = without(flow, 0, 103)
    assert books.account(flow).lost == 0, "nothing had been written yet"
    flow.writes = without(flow, 0, 108)
    assert books.account(flow).lost == 1


def test_who_came_right_before_the_subscription_may_have_been_held_and_superseded(flow):
    flow.sessions = [session_of("aaa", moment(100))]
    flow.writes = [write for write in flow.writes if write.at > moment(103)]
    flow.ledger["subscribe"] = [row(index, before=77, superseded=25) for index in (0, 1)]
    assert (books.account(flow).lost, books.account(flow).contradictions) == (0, [])
    flow.ledger["subscribe"] = [row(index, before=42, superseded=60) for index in (0, 1)]
    assert books.account(flow).contradictions, "that was long before it"


def test_a_record_that_never_reached_the_broker_is_lost_unless_it_waited_for_it(flow):
    del flow.reached[0][BASE + 50]
    flow.writes = without(flow, 0, 50)
    assert books.account(flow).lost == 1
    for count in range(40, 100):  # the publisher was out of contact for 600 ms
        for publication in (0, 1):
            flow.reached[publication].pop(BASE + count, None)
            flow.writes = without(flow, publication, count)
    found = books.account(flow)
    assert found.gaps + found.lost == 120
    assert found.gaps >= 120 - 2 * (books.WAITED / EVERY + 1), "the last ones did not wait long enough to be replaced"


def test_who_waits_for_a_name_keeps_the_newest_record_only(flow):
    for count in range(1, 60):
        del flow.reached[0][BASE + count]
        flow.writes = without(flow, 0, count)
    flow.ledger["subscribe"] = [row(0, before=59), row(1)]
    found = books.account(flow)
    assert (found.gaps, found.lost, found.contradictions) == (59, 0, [])


def test_while_the_broker_was_away_nobody_can_see_how_long_a_record_waited(flow):
    flow.witness_away = [(moment(40), moment(100))]
    for count in range(40, 100):
        for publication in (0, 1):
            flow.reached[publication].pop(BASE + count)
            flow.writes = without(flow, publication, count)
    flow.ledger["subscribe"] = [row(0, gaps=60), row(1, gaps=60)]
    found = books.account(flow)
    assert (found.gaps, found.lost, found.contradictions) == (120, 0, [])


def test_the_newest_record_is_not_under_way_for_ever(flow):
    flow.writes = without(flow, 0, COUNT)
    assert books.account(flow).lost == 1
    flow.settled = False
    flow.now = moment(COUNT) + 0.1
    assert books.account(flow).lost == 0, "it may still be under way"


def test_the_newest_record_of_a_living_publisher_reaches_the_broker(flow):
    del flow.reached[0][BASE + COUNT]
    flow.writes = without(flow, 0, COUNT)
    assert books.account(flow).lost == 1


def test_what_a_killed_publisher_had_not_got_rid_of_went_with_it(flow):
    flow.lives["publisher"][0].died = moment(COUNT) + 0.1
    for count in range(COUNT - 5, COUNT + 1):
        flow.reached[0].pop(BASE + count)
        flow.writes = without(flow, 0, count)
    found = books.account(flow)
    assert (found.in_flight, found.lost) == (6, 0)
    del flow.reached[1][BASE + 20]  # a hole in what it did get rid of is nothing of the kind
    flow.writes = without(flow, 1, 20)
    assert books.account(flow).lost == 1
    flow.reached[0] = {number: at for number, at in flow.reached[0].items() if at < 10}
    flow.writes = [write for write in flow.writes if "L1.n" in write.elements or write.at < 10]
    assert books.account(flow).lost > 50, "the other publication reached the broker all the time"


def test_what_waited_for_a_link_that_was_dead_already_went_with_it(flow):
    """The link is silent from 9 on, the broker gives it up at 11 when the gateway comes by a new one, and gives that one the
    newest record first."""
    since = moment(305)
    flow.sessions = [session_of("aaa", 6.5, since), session_of("aaa", since)]
    flow.writes = [write for write in flow.writes if write.at < 9.0 or write.at > since]
    kept = [write_of(since + 0.002, publication, 304) for publication in (0, 1)]
    flow.writes = sorted([*flow.writes, *kept], key=lambda write: write.at)
    flow.ledger = None
    found = books.account(flow)
    assert (found.lost, found.gaps, found.away) == (0, 2 * 204, 0)
    flow.writes = without(flow, 0, 50)
    assert books.account(flow).lost == 1


def test_nobody_takes_along_more_than_its_queue_holds(killed, monkeypatch):
    assert books.account(killed).contradictions == []
    monkeypatch.setattr(books, "QUEUE", 3)
    with pytest.raises(Violated, match="4 records were under way when 1 processes ended, and their queues hold 3"):
        evidence.lost_at_most(killed, 0)


@pytest.fixture
def taken(flow):
    """As flow, and the gateway's link to the store is silent from 9 on; another one has its number and has subscribed at 10.
    The first hears of it at 10.5 and ends."""
    first, second = Life(1, 6.0, 10.5), Life(1, 6.1)
    first.left = 2 * 150 * 12
    flow.lives["gateway"], flow.lives["gateway2"] = [first], [second]
    flow.sessions = [session_of("aaa", 6.5, 10.5), session_of("bbb", SUBSCRIBED)]
    flow.writes = [write for write in flow.writes if not DIED <= write.at <= SUBSCRIBED]
    for write in flow.writes:
        write.writer = "1.aaa" if write.at < DIED else "1.bbb"
    return flow


def test_what_a_gateway_had_that_ended_by_itself_went_with_it_though_another_one_wrote_meanwhile(taken):
    found = books.account(taken)
    assert (found.in_flight, found.lost, found.contradictions) == (200, 0, [])
    taken.lives["gateway"][0].left = None
    assert books.account(taken).lost > 0, "it has not said that it ended so"


def test_whose_writes_they_were_does_not_hang_on_how_slow_the_machine_is(taken, monkeypatch):
    monkeypatch.setattr(books, "LINGER", 0.1)  # 1 s, as before
    taken.patience = 10.0
    found = books.account(taken)
    assert (found.in_flight, found.lost, found.contradictions) == (200, 0, [])


@pytest.mark.parametrize("count", [50, 300], ids=["before its link fell silent", "after another one had subscribed"])
def test_an_end_by_itself_does_not_explain_what_is_missing_at_another_time(taken, count):
    taken.writes = without(taken, 0, count)
    assert books.account(taken).lost == 1


def test_what_is_missing_long_before_the_last_write_did_not_end_with_that_gateway(taken):
    for write in taken.writes:
        write.at -= 0.0 if write.at < 8.5 or write.at > DIED else 0.5
    taken.writes = [write for write in taken.writes if "L1.n" in write.elements or not 8.1 < write.at < DIED]
    taken.writes += [write_of(9.9, 1, 150)]
    taken.writes[-1].writer = "1.aaa"
    taken.writes.sort(key=lambda write: write.at)
    assert books.account(taken).lost > 40, "it wrote the other publication until 9.9"


def test_a_gateway_that_ends_takes_no_more_along_than_it_says(taken):
    first = taken.lives["gateway"][0]
    first.died = taken.sessions[0].closed = 11.5
    first.left = 2399
    with pytest.raises(Violated, match="said that 2399 values were not written; by what was seen it had 2400"):
        evidence.lost_at_most(taken, 0)
    first.hung = [9.5]
    assert books.account(taken).contradictions == [], "what came while it hung it may never have read"


def test_nobody_who_ends_has_more_records_in_its_queue_than_that_holds(taken, monkeypatch):
    monkeypatch.setattr(books, "QUEUE", 150)
    first = taken.lives["gateway"][0]
    for left, words in [(200, []), (196, ["a gateway ended by itself with 196 values, and 200 records would have gone with it, "
                                          "150 of them in its queue"])]:
        first.left = left
        assert [text for text in books.account(taken).contradictions if "in its queue" in text] == words


@pytest.fixture
def rightless(flow):
    """As flow, and the gateway had no right to read from 9 to 10."""
    flow.rightless = [(9.0, 10.0)]
    flow.writes = [write for write in flow.writes if not 9.0 < write.at < 10.01]
    flow.ledger["subscribe"] = [row(0, gaps=101), row(1, gaps=101)]
    return flow


def test_what_came_while_the_gateway_had_no_right_to_read_it_was_away(rightless):
    found = books.account(rightless)
    assert (found.away, found.lost, found.contradictions) == (202, 0, [])
    rightless.rightless = [(9.03, 9.98)]  # seen by another witness than the records
    found = books.account(rightless)
    assert (found.away, found.lost, found.contradictions) == (202, 0, [])


@pytest.mark.parametrize("count", [50, 95, 208, 300], ids=["before", "right before", "right after", "after"])
def test_a_right_that_is_taken_does_not_explain_what_is_missing_at_another_time(rightless, count):
    rightless.writes = without(rightless, 0, count)
    assert books.account(rightless).lost == 1


def test_a_gateway_that_may_read_again_has_to_find_its_publisher_alive_anew(rightless):
    rightless.writes = [write for write in rightless.writes if not 9.0 < write.at < moment(260)]
    rightless.ledger["subscribe"] = [row(0, gaps=101, superseded=59), row(1, gaps=101, superseded=59)]
    found = books.account(rightless)
    assert (found.away + found.coalesced, found.lost, found.contradictions) == (320, 0, [])


def test_a_ledger_that_misses_less_than_could_not_be_read_contradicts_the_witnesses(rightless):
    rightless.ledger["subscribe"] = [row(0), row(1)]
    with pytest.raises(Violated, match="0 records never came to the gateway, and by what was seen it is 202"):
        evidence.lost_at_most(rightless, 0)


def late_writes(seen, first, last, at):
    """These were written late, at `at`, but for all save the newest one of each publication."""
    for count in range(first, last + 1):
        for publication in (0, 1):
            seen.writes = without(seen, publication, count)
    seen.writes += [write_of(at, publication, last) for publication in (0, 1)]
    seen.writes.sort(key=lambda write: write.at)


def test_a_record_that_waited_may_be_superseded_and_is_held_against_the_ledger(flow):
    late_writes(flow, 101, 150, moment(200))
    found = books.account(flow)
    missing = 2 * 49
    assert found.coalesced + found.lost == missing and found.lost == missing, "the ledger knows nothing of it"
    flow.ledger["store"]["coalesced"] = 12 * (missing - 1)
    assert books.account(flow).lost == 1
    flow.ledger["store"]["coalesced"] = 12 * missing
    found = books.account(flow)
    assert (found.coalesced, found.lost, found.contradictions) == (missing, 0, [])
    evidence.coalesced_above(flow, missing - 1)
    with pytest.raises(Violated, match="98 records were superseded"):
        evidence.coalesced_above(flow, missing)


def test_a_publisher_that_was_silent_has_to_be_found_alive_anew(flow):
    flow.lives["publisher"].append(Life(2, 7.0))
    flow.published[1] = [(2, COUNT)]
    flow.reached[1] = {BASE + number: at for number, at in flow.reached[1].items()}
    flow.handed = Handed()
    for count in range(1, COUNT + 1):
        flow.handed.note(moment(count), 1, (count, 0))
        flow.handed.note(moment(count), 2, (0, count))
    flow.writes = [write_of(write.at, 1, int(write.elements["L1.n"]["v"])) if "L1.n" in write.elements else write
                   for write in flow.writes]
    for count in range(100, 221):
        flow.writes = without(flow, 0, count)
        if count < 210:
            del flow.reached[0][BASE + count]
    flow.ledger["subscribe"] = [row(0, gaps=110, superseded=11), row(1)]
    found = books.account(flow)
    # Of those that never reached the broker the last ones did not wait long enough for it.
    assert (found.coalesced, found.gaps + found.lost) == (11, 110) and found.lost <= books.WAITED / EVERY + 1


def test_a_gateway_that_hung_has_to_find_its_publisher_alive_anew(flow):
    flow.writes = [write for write in flow.writes if not 9.0 < write.at < 10.5]
    flow.writes = sorted([*flow.writes, *(write_of(10.5 + count / 10_000, publication, count) for count in range(100, 245)
                                          for publication in (0, 1))], key=lambda write: write.at)
    flow.ledger["subscribe"] = [row(0, superseded=5), row(1, superseded=5)]
    found = books.account(flow)
    assert (found.coalesced, found.lost) == (10, 0)
    flow.writes = without(flow, 0, 60)
    assert books.account(flow).lost == 1, "that was before it hung"


def test_a_ledger_that_counts_more_than_is_missing_contradicts_the_witnesses(flow):
    flow.ledger["store"]["coalesced"] = 12 * 100
    found = books.account(flow)
    assert found.lost == 0 and len(found.contradictions) == 1
    with pytest.raises(Violated, match="the ledger and the witnesses disagree: the ledger says of 1200 attributes"):
        evidence.lost_at_most(flow, 0)


def test_what_is_given_up_of_the_publisher_outside_the_table_explains_nothing_in_it(flow):
    late_writes(flow, 101, 150, moment(200))
    flow.writes.append(Write(moment(300), 0, START_MS, "1.abc", {"F.n": {"v": "1"}, "F.text": {"v": "Größe 1"}}))
    flow.ledger["subscribe"].append({**row(0), "publication": "foreign/0", "delivered": 21})
    flow.ledger["store"]["coalesced"] = 12 * 98 + 8 * 20
    found = books.account(flow)
    assert (found.coalesced, found.lost, found.contradictions) == (98, 0, [])
    flow.ledger["store"]["coalesced"] = 12 * 98
    assert books.account(flow).lost == 14, "160 attributes, of which the others have had the word"


def test_gaps_that_nobody_else_saw_contradict_the_witnesses(flow):
    flow.ledger["subscribe"] = [row(0, gaps=20), row(1)]
    with pytest.raises(Violated, match="20 records never came to the gateway, and by what was seen it is 0"):
        evidence.lost_at_most(flow, 0)


def test_records_of_before_a_publisher_was_known_to_be_alive_are_superseded(flow, monkeypatch):
    flow.sessions = [session_of("aaa", moment(100))]
    flow.writes = [write for write in flow.writes if write.at > moment(150)]
    flow.ledger["subscribe"] = [row(0, before=99, superseded=50), row(1, before=99, superseded=50)]
    found = books.account(flow)
    assert found.lost == 0 and (found.away, found.coalesced) == (248, 50)
    monkeypatch.setattr(books, "HEAD", 1.0)
    flow.writes = [write for write in flow.writes if write.at > moment(150) + books.HEAD]
    flow.ledger = None
    found = books.account(flow)
    assert 0 < found.lost <= 2 * books.WAITED / EVERY, "not for ever: the last ones had not waited either"


def test_what_a_broker_dropped_from_a_full_queue_is_a_gap(flow):
    flow.writes = without(flow, 0, 50)
    flow.sessions[0].dropped = True
    flow.ledger["subscribe"] = [row(0, gaps=1), row(1)]
    found = books.account(flow)
    assert (found.gaps, found.lost, found.contradictions) == (1, 0, [])
    flow.dropped = 1
    assert books.account(flow).lost == 0
    flow.writes = without(flow, 1, 60)
    found = books.account(flow)
    assert (found.gaps, found.lost) == (1, 1), "it says that it dropped one only"


def test_what_a_broker_dropped_for_the_witness_too_is_a_gap(flow):
    flow.writes = without(flow, 0, 50)
    del flow.reached[0][BASE + 50]
    flow.ledger["subscribe"] = [row(0, gaps=1), row(1)]
    assert books.account(flow).lost == 1, "the broker had room for everybody"
    flow.sessions[0].dropped = True
    flow.dropped = 2
    found = books.account(flow)
    assert (found.gaps, found.lost, found.contradictions) == (1, 0, [])
    flow.dropped = 1
    assert books.account(flow).lost == 1, "one of the two had it"


def test_what_a_broker_dropped_right_after_a_silence_is_a_gap_or_superseded(flow):
    silence = 150  # nothing of the publisher is seen at the broker for more than a second, as when a witness has fallen behind
    for publication in (0, 1):
        for count in range(100, 100 + silence):
            del flow.reached[publication][BASE + count]
    flow.writes = [write for write in flow.writes if not 100 <= int(next(iter(write.elements.values()))["v"]) - BASE < 255]
    flow.sessions[0].dropped = True
    flow.dropped = 10_000
    for figures in ({"gaps": 155}, {"gaps": 150, "superseded": 5}):
        flow.ledger["subscribe"] = [row(0, **figures), row(1, **figures)]
        found = books.account(flow)
        assert (found.gaps, found.lost, found.contradictions) == (310, 0, []), figures
    flow.ledger["subscribe"] = [row(0, gaps=130), row(1, gaps=130)]
    assert books.account(flow).contradictions, "nobody counted the others"


def test_what_a_store_had_confirmed_and_its_successor_does_not_know_is_forgotten(flow):
    gone = [write for write in flow.writes if write.elements.get("L0.n", {}).get("v") == str(BASE + 50)]
    flow.writes = without(flow, 0, 50)
    flow.forgotten_writes = gone
    flow.ledger["store"]["lost"] = 12
    found = books.account(flow)
    assert (found.forgotten, found.lost) == (1, 0)
    flow.ledger["store"]["lost"] = 0
    assert books.account(flow).lost == 1, "the ledger does not know of it"


def test_what_is_written_twice_is_counted_once_and_noted(flow):
    flow.writes.append(write_of(13.5, 0, COUNT))
    found = books.account(flow)
    assert (found.written, found.again, found.lost) == (2 * COUNT, 1, 0)


def test_what_nobody_has_published_is_not_written(flow):
    flow.writes.append(write_of(13.5, 0, COUNT + 1))
    with pytest.raises(Violated, match="1 numbers were written that nobody has published"):
        evidence.lost_at_most(flow, 0)


def test_books_without_a_witness_say_so(flow):
    flow.reached = None
    with pytest.raises(Violated, match="nobody watched"):
        evidence.lost_at_most(flow, 0)
    with pytest.raises(Violated, match="nobody watched"):
        evidence.coalesced_above(flow, 0)


def test_a_large_record_is_known_by_its_time():
    write = Write(1.0, 1, START_MS + BASE + 7, "1.abc", {"L3.n": dict.fromkeys("i12v"), "L3.text": dict.fromkeys("i12v")})
    assert books.numbers_in(write, {3}) == {3: BASE + 7}
    assert evidence.numbers_of(write) == {3: BASE + 7}
