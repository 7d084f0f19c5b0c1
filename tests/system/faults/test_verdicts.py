"""Each judge of verdicts.py holds where all is well, and sees a planted violation."""

import types

import pytest

import evidence
import verdicts
from test_judges import BASE, good, message_of  # noqa: F401  # pylint: disable=unused-import
from verdicts import Violated

RUNNING = {"gateway": 11, "gateway2": 12, "store": 13}
OWNERS = {"out/0": 12, "out/1": 12}


def record_of(value, quality=1):
    return types.SimpleNamespace(fields={"v": ("int", value)}, quality=quality)


def test_one_owner_holds_when_number_and_publications_are_of_one_living_gateway():
    verdicts.one_owner(12, OWNERS, RUNNING)


@pytest.mark.parametrize("number, owners, running, said", [
    (None, OWNERS, RUNNING, "held by process None"),
    (12, OWNERS, {"gateway": 11}, "held by process 12"),
    (13, OWNERS, RUNNING, "held by process 13"),
    (12, {}, RUNNING, "no record"),
    (11, OWNERS, RUNNING, "gateway has the manager number, and 2 of 2 publications are published by others: out/0 by gateway2"),
    (12, {"out/0": 12, "out/1": None}, RUNNING, "1 of 2 publications are published by others: out/1 by nobody alive"),
])
def test_a_split_between_two_owners_is_seen(number, owners, running, said):
    with pytest.raises(Violated, match=said):
        verdicts.one_owner(number, owners, running)


@pytest.fixture
def bad(good):  # noqa: F811
    """The store's link was cut at 12.6, and both publications said so at 13."""
    good.losses = [(12.6, 1_000_000, "cut gateway-store")]
    good.messages += [message_of(13.0, publication, "aaa", 3, BASE + 2, quality=0) for publication in (0, 1)]
    return good


def test_publications_bad_gives_the_time_of_the_last_one(bad):
    assert verdicts.publications_bad(bad, 5) == pytest.approx(0.4)


def one_stays_good(seen):
    seen.messages.pop()


def good_again_without_store(seen):
    seen.messages.append(message_of(13.1, 0, "aaa", 4, BASE + 2))


def bad_only_before(seen):
    for message in seen.messages:
        message.at -= 1 if message.quality == 0 else 0


def bad_late(seen):
    for message in seen.messages:
        message.at += 6 if message.quality == 0 else 0


@pytest.mark.parametrize("plant", [one_stays_good, good_again_without_store, bad_only_before, bad_late])
def test_a_publication_that_is_shown_as_good_without_a_store_is_seen(bad, plant):
    plant(bad)
    with pytest.raises(Violated):
        verdicts.publications_bad(bad, 5)


def test_an_odd_publication_is_good_or_bad_as_its_record_says():
    verdicts.odd_publication("deleted", False, record_of(1, quality=0), {})
    verdicts.odd_publication("large", True, record_of(7), {"v": "7"})


@pytest.mark.parametrize("is_good, record, element", [
    (False, None, {}), (False, record_of(1), {}), (True, None, {"v": "7"}), (True, record_of(6), {"v": "7"}),
    (True, record_of(7, quality=0), {"v": "7"}), (True, record_of(7), {}),
])
def test_an_odd_publication_that_says_something_else_is_seen(is_good, record, element):
    with pytest.raises(Violated):
        verdicts.odd_publication("large", is_good, record, element)


def test_a_large_record_is_written_whole_and_good():
    verdicts.large_record({"v": "rrr", "i": "0"}, "rrr")
    for state in ({}, {"v": "rr", "i": "0"}, {"v": "rrr", "i": "1"}):
        with pytest.raises(Violated):
            verdicts.large_record(state, "rrr")


MOVED = {"M0.v": 5, "M1.v": None}
MOVED_STATES = {"M0.v": {"v": "5", "i": "0"}, "M1.v": {"v": "4", "i": "1"}}


def test_moved_elements_have_what_they_are_mapped_onto():
    verdicts.moved_elements(MOVED, MOVED_STATES)


@pytest.mark.parametrize("element, state, said", [
    ("M0.v", {"v": "4", "i": "0"}, "M0.v is 4 invalid 0, and 5 was published"), ("M0.v", {"v": "5", "i": "1"}, "M0.v"),
    ("M0.v", {}, "M0.v"), ("M1.v", {"v": "4", "i": "0"}, "M1.v is mapped onto what nobody publishes, and shows 4 as good"),
])
def test_a_moved_element_with_something_else_is_seen(element, state, said):
    with pytest.raises(Violated, match=said):
        verdicts.moved_elements(MOVED, {**MOVED_STATES, element: state})


def test_publications_of_a_changing_list_carry_their_element():
    verdicts.moved_publications({"moved/0": {"v": "7"}}, {"moved/0": record_of(7)})


@pytest.mark.parametrize("records", [{}, {"moved/0": record_of(6)}, {"moved/0": record_of(7, quality=0)},
                                     {"moved/0": record_of(7), "moved/new1": record_of(7)}])
def test_a_publication_of_a_changing_list_with_something_else_is_seen(records):
    with pytest.raises(Violated):
        verdicts.moved_publications({"moved/0": {"v": "7"}}, records)


def test_an_end_by_itself_has_its_exit_code():
    verdicts.ended_by_itself("gateway", [4, 4], 4)
    for codes in ([], [4, -6], [0]):
        with pytest.raises(Violated):
            verdicts.ended_by_itself("gateway", codes, 4)


def test_forgotten_above_counts_what_a_store_had_confirmed_and_lost(good):  # noqa: F811
    with pytest.raises(Violated):
        verdicts.forgotten_above(good, 0)
    good.forgotten_writes = [good.writes.pop(0)]
    good.ledger["store"].update({"lost": 3 * evidence.ATTRIBUTES, "restored": 0})
    verdicts.forgotten_above(good, 0)
