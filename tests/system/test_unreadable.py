"""What lies in the store and cannot be read: never shown as good, said in one line, and nothing else suffers from it."""

import harness
from test_publishing import Reader, set_value

OUT = {"out": {"bufferTime": 0, "fields": {"v": "P.x", "w": "P.w"}}, "other": {"bufferTime": 0, "fields": {"v": "P.y"}}}
ELEMENTS = {"P.x": "int", "P.w": "int", "P.y": "int", "A.x": "int"}


def spoil(site, element, text="12 apples"):
    """As somebody does who writes into the store by hand."""
    site.redis.command("HSET", f"dp:d:{element}", "v", text)


def unreadable(gateway):
    return [line for line in gateway.err if "could not be read" in line]


def begin(site):
    site.apply(ELEMENTS, {"p1": {"t": "A.x"}}, OUT)
    for element in ("P.x", "P.w", "P.y"):
        set_value(site, element, "1")



def flag(site, element, invalid):
    """The flag alone, as a call of the store that says nothing of the value."""
    flag.number = getattr(flag, "number", 0) + 1
    site.redis.command("FCALL", "dp_set", "0", "flags", "", str(flag.number), str(flag.number - 1), "", "", element,
                       f"i{int(invalid)}")


def test_a_gateway_that_starts_declares_it_bad_in_one_line_and_goes_on(site):
    begin(site)
    spoil(site, "P.x")
    reader, other = Reader(site, "out"), Reader(site, "other")
    gateway = site.gateway()
    assert other.wait("what is sound", lambda record: record.quality == 1).fields == {"v": ("int", 1)}
    first = reader.wait("the publication", lambda record: True)
    assert (first.quality, first.fields, first.reason) == (-1, {}, "1 PVSS dpe's set to invalid")
    set_value(site, "P.w", "2")
    set_value(site, "P.y", "2")
    other.wait("what is sound", lambda record: record.fields == {"v": ("int", 2)})
    assert [record.quality for record in reader.records()] == [-1] * len(reader.records()), "no record of it is good"
    (line,) = unreadable(gateway)
    assert "P.x" in line and "'12 apples' is not a whole number" in line, line
    set_value(site, "P.x", "3")
    assert reader.wait("good", lambda record: record.quality == 1).fields == {"v": ("int", 3), "w": ("int", 2)}
    assert gateway.running()


def test_a_flag_written_alone_does_not_make_it_good(site):
    begin(site)
    spoil(site, "P.x")
    reader = Reader(site, "out")
    gateway = site.gateway()
    reader.wait("the publication", lambda record: True)
    flag(site, "P.x", True)
    flag(site, "P.x", False)
    set_value(site, "P.w", "2")  # what came before it has been looked at once this is published
    harness.wait_until("the change behind it", lambda: reader.last() is not None and len(reader.records()) >= 4)
    assert [(record.quality, record.fields) for record in reader.records()] == [(-1, {})] * len(reader.records())
    set_value(site, "P.x", "3")
    assert reader.wait("good", lambda record: record.quality == 1).fields == {"v": ("int", 3), "w": ("int", 2)}
    assert len(unreadable(gateway)) == 1, gateway.said()


def test_a_change_that_brings_it_makes_its_publication_bad_and_the_next_value_good_again(site):
    begin(site)
    reader = Reader(site, "out")
    gateway = site.gateway()
    reader.wait("good", lambda record: record.quality == 1)
    site.redis.command("FCALL", "dp_set", "0", "hand", "", "1", "0", "", "", "P.x", "i0v12 apples")
    bad = reader.wait("bad", lambda record: record.quality == 0)
    assert bad.reason == "1 PVSS dpe's set to invalid"
    assert bad.fields == {"v": ("int", 1), "w": ("int", 1)}, "what was sent last"
    (line,) = unreadable(gateway)
    assert "P.x" in line and "'12 apples' is not a whole number" in line, line
    set_value(site, "P.x", "3")
    reader.wait("good again", lambda record: record.quality == 1 and record.fields["v"] == ("int", 3))


def test_a_list_that_cannot_be_read_leaves_the_last_one_in_place(site):
    begin(site)
    reader = Reader(site, "out")
    gateway = site.gateway()
    reader.wait("good", lambda record: record.quality == 1)
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    before = len(gateway.out)
    site.redis.command("FCALL", "dp_set", "0", "hand", "", "1", "0", "", "", harness.LIST, "i0vno netstrings")
    harness.wait_until(lambda: "the line\n" + gateway.said(), lambda: unreadable(gateway))
    set_value(site, "P.x", "3")
    reader.wait("what was published before", lambda record: record.quality == 1 and record.fields["v"] == ("int", 3))
    assert not [line for line in gateway.out[before:] if line.startswith("Destroyed")], gateway.said()
    (line,) = unreadable(gateway)
    assert harness.LIST in line, line
    site.apply(ELEMENTS, {}, {})
    harness.wait_until(lambda: "the list that can be read\n" + gateway.said(),
                       lambda: len([line for line in gateway.out[before:] if line.startswith("Destroyed")]) >= 3)


def test_a_list_that_cannot_be_read_from_the_start_is_followed_once_it_can(site):
    begin(site)
    spoil(site, harness.LIST, "no netstrings")
    gateway = site.gateway()
    harness.wait_until(lambda: "the line\n" + gateway.said(), lambda: unreadable(gateway))
    assert harness.LIST in unreadable(gateway)[0]
    site.done("dp", "set", harness.LIST, '["A.x"]')
    harness.wait_until(lambda: "the mapping\n" + gateway.said(),
                       lambda: any("Created client mapping between DPE A.x" in line for line in gateway.out))
    assert len(unreadable(gateway)) == 1, gateway.said()
