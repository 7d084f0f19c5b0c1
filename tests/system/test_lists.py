"""The client list is followed while the gateway runs; the reports on standard output say what was done, exactly."""

import harness
from witness import codec

NS = 1_700_000_000_000_000_000


def value(site, element):
    (reading,) = site.get(element)["elements"]
    return reading["value"], reading["invalid"]


def expect(gateway, before, lines):
    """Exactly these lines have come since `before`, in this order, and no others."""
    harness.wait_until(lambda: f"{len(lines)} lines\n" + gateway.said(), lambda: len(gateway.out) >= before + len(lines))
    harness.holds_for("no further line", lambda: gateway.out[before:] == lines, 0.3)


def test_elements_are_added_moved_and_removed_with_their_reports(site):
    elements = {"A.x": "int", "B.y": "float", "C.z": "text"}
    for name, fields in {"p1": {"t": ("int", 1), "f": ("float", 2.5)}, "p2": {"t": ("int", 2)}}.items():
        site.broker.publish(name, codec.encode(fields, time_ns=NS))

    site.apply(elements, {"p1": {"t": "A.x"}})
    gateway = site.gateway()
    expect(gateway, 0, ["Created DPEWrapper for DPE A.x",
                        "Created subscription to p1",
                        "Created client mapping between DPE A.x and publication p1\x1at"])
    harness.wait_until("the value of p1", lambda: value(site, "A.x") == (1, False))

    # A second element of the same publication gets its current value at once, by a resend.
    before = len(gateway.out)
    site.apply(elements, {"p1": {"t": "A.x", "f": "B.y"}})
    expect(gateway, before, ["Created DPEWrapper for DPE B.y",
                             "Created client mapping between DPE B.y and publication p1\x1af"])
    harness.wait_until("the value of the second element", lambda: value(site, "B.y") == (2.5, False))

    # The address changes under an unchanged list.
    before = len(gateway.out)
    site.apply(elements, {"p2": {"t": "A.x"}, "p1": {"f": "B.y"}})
    expect(gateway, before, ["Destroyed client mapping between DPE A.x and publication p1\x1at",
                             "Created subscription to p2",
                             "Created client mapping between DPE A.x and publication p2\x1at"])
    harness.wait_until("the value of p2", lambda: value(site, "A.x") == (2, False))
    site.broker.publish("p1", codec.encode({"t": ("int", 99), "f": ("float", 3.5)}, time_ns=NS + 1_000_000))
    harness.wait_until("the value of the one that stayed", lambda: value(site, "B.y") == (3.5, False))
    assert value(site, "A.x") == (2, False), "the old publication must not reach a moved element"

    # Removed from the list: nothing reaches it any more.
    before = len(gateway.out)
    site.apply(elements, {"p1": {"f": "B.y"}})
    expect(gateway, before, ["Destroyed client mapping between DPE A.x and publication p2\x1at",
                             "Destroyed DPEWrapper for DPE A.x",
                             "Destroyed subscription to p2"])
    site.broker.publish("p2", codec.encode({"t": ("int", 77)}, time_ns=NS + 1_000_000))
    site.broker.publish("p1", codec.encode({"f": ("float", 4.5)}, time_ns=NS + 2_000_000))
    harness.wait_until("the value of the one that stayed", lambda: value(site, "B.y") == (4.5, False))
    assert value(site, "A.x")[0] == 2

    before = len(gateway.out)
    site.apply(elements, {})
    expect(gateway, before, ["Destroyed client mapping between DPE B.y and publication p1\x1af",
                             "Destroyed DPEWrapper for DPE B.y",
                             "Destroyed subscription to p1"])


def test_a_name_that_is_no_element_is_reported_and_the_rest_works(site):
    site.apply({"A.x": "int"}, {"p1": {"t": "A.x"}})
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    before = len(gateway.out)
    site.done("dp", "set", harness.LIST, '["A.x","No.such"]')
    expect(gateway, before, ["Created DPEWrapper for DPE No.such",
                             "ERROR: KELClientManager 114 DPE No.such is not a valid DPE - ignoring",
                             "Destroyed DPEWrapper for DPE No.such"])
    site.broker.publish("p1", codec.encode({"t": ("int", 5)}, time_ns=NS))
    harness.wait_until("the value", lambda: value(site, "A.x") == (5, False))


def test_an_element_without_address_is_reported(site):
    site.apply({"A.x": "int", "Plain.x": "int"}, {"p1": {"t": "A.x"}})
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    before = len(gateway.out)
    site.done("dp", "set", harness.LIST, '["A.x","Plain.x"]')
    expect(gateway, before, ["Created DPEWrapper for DPE Plain.x",
                             "ERROR: CdpeWrapper 54 Address config does not exist for Plain.x",
                             "ERROR: KELClientManager 114 DPE Plain.x is not a valid DPE - ignoring",
                             "Destroyed DPEWrapper for DPE Plain.x"])


def test_an_element_that_changes_its_type_is_mapped_anew(site):
    site.broker.publish("p1", codec.encode({"t": ("int", 1), "s": ("string", "one")}, time_ns=NS))
    site.apply({"A.x": "int"}, {"p1": {"t": "A.x"}})
    gateway = site.gateway()
    harness.wait_until("the value", lambda: value(site, "A.x") == (1, False))
    site.apply({"A.x": "text"}, {"p1": {"s": "A.x"}})
    harness.wait_until(lambda: "the value of the new type\n" + gateway.said(), lambda: value(site, "A.x") == ("one", False))
    assert gateway.running()


def test_lists_of_a_thousand_elements_change_under_traffic_without_losing_a_record(site):
    count = 1000
    elements = {f"E{i}.v": "int" for i in range(count)}

    def mapping(shift):
        result = {}
        for i in range(count):
            if (i + shift) % 3:
                result.setdefault(f"g{(i + shift) % 50}", {})[f"t{i}"] = f"E{i}.v"
        return result

    def record(shift):
        # No two records are alike, nor two fields of one.
        return codec.encode({f"t{i}": ("int", shift * count + i) for i in range(count)}, time_ns=NS + shift * 1_000_000)

    newest = {f"g{g}": 0 for g in range(50)}
    for publication in newest:
        site.broker.publish(publication, record(0))
    site.apply(elements, mapping(0))
    gateway = site.gateway()
    for shift in range(1, 6):
        site.apply(elements, mapping(shift))
        site.broker.publish(f"g{shift}", record(shift))
        newest[f"g{shift}"] = shift
    wanted = {element: newest[publication] * count + int(tag[1:])
              for publication, fields in mapping(5).items() for tag, element in fields.items()}

    def not_there():
        found = {reading["name"]: (reading["value"], reading["invalid"]) for reading in site.get("E*")["elements"]}
        return {element: (found[element], value) for element, value in wanted.items() if found[element] != (value, False)}

    harness.wait_until(lambda: f"the newest record in every mapped element, not {dict(list(not_there().items())[:5])}\n"
                       + gateway.said(), lambda: not not_there(), 60)


def test_a_list_of_another_type_from_the_start_is_said_in_one_line_and_followed_once_it_is_a_list(site):
    site.apply({"A.x": "int"}, {"p1": {"t": "A.x"}})
    site.broker.publish("p1", codec.encode({"t": ("int", 5)}, time_ns=NS))
    site.redis.command("FCALL", "dp_put", "0", "hand", harness.LIST, "text")
    site.done("dp", "set", harness.LIST, "A.x")
    gateway = site.gateway()

    def said():
        return [line for line in gateway.err if harness.LIST in line]

    harness.wait_until(lambda: "the line\n" + gateway.said(), said)
    harness.holds_for("nothing loaded", lambda: not gateway.out and gateway.running(), 1)
    (line,) = said()
    assert "is of type text, not dyn_text" in line, line

    site.apply({"A.x": "int"}, {"p1": {"t": "A.x"}})
    harness.wait_until(lambda: "the value\n" + gateway.said(), lambda: value(site, "A.x") == (5, False))
    assert gateway.out == ["Created DPEWrapper for DPE A.x", "Created subscription to p1",
                           "Created client mapping between DPE A.x and publication p1\x1at"]
    assert len(said()) == 2 and "dyn_text" in said()[1], said()
