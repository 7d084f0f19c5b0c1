"""The ledger: every record and every write is accounted for, whoever dies."""

import json
import os

import harness

RECORDS = 2000
ELEMENTS = {"A.n": "int", "P.x": "int"}
SUBSCRIBE = {"in": {"n": "A.n"}}
PUBLISH = {"out": {"bufferTime": 0, "fields": {"x": "P.x"}}}


def ledger(site, *switches, code=0):
    got, out, err = site.tool("status", "--ledger", "--json", "--settle", str(60 * harness.PATIENCE), *switches)
    assert got == code, f"{got}\n{out}\n{err}"
    return json.loads(out)


def start_gateway(site):
    gateway = site.gateway()
    gateway.wait_for("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    gateway.wait_for("the publication", lambda: any("Created Publication group" in line for line in gateway.out))
    return gateway


def publish(site, records, name="sender", per_second=2000):
    sender = harness.Process([os.path.join(harness.BIN, "traffic_publisher"), name, "in", records, 1, per_second],
                             env=site.env, stdin=True)
    site.processes.append(sender)
    return sender


def finished(sender):
    harness.wait_until(lambda: "its figures\n" + sender.said(), lambda: sender.out, 120)
    said = json.loads(sender.out[0])
    assert said["flushed"] and said["superseded"] == 0, said
    return said


def kill(site, process):
    process.kill()
    if process in site.gateways:
        site.gateways.remove(process)  # it cannot end in order any more


def value(site, element="A.n"):
    return site.get(element)["elements"][0]["value"] or 0


def test_every_record_and_write_of_both_directions_is_in_the_books(site):
    site.apply(ELEMENTS, SUBSCRIBE, PUBLISH)
    start_gateway(site)
    sender = publish(site, RECORDS)
    finished(sender)
    harness.wait_until("the last value", lambda: value(site) == RECORDS)
    before = ledger(site)["publish"][0]["sends"]
    for number in range(1, 11):
        site.done("dp", "set", "P.x", str(number))
    books = ledger(site)
    assert books["balanced"] and not books["moving"] and books["why"] == []
    (row,) = books["subscribe"]
    assert (row["publication"], row["publisher"], row["subscriber"]) == ("in", "sender", "KelGateway")
    assert (row["published"], row["publishedBy"]) == (RECORDS, "publisher")
    assert row["before"] + row["received"] - row["again"] + row["gaps"] == RECORDS
    assert (row["received"], row["gaps"], row["missing"], row["repeated"], row["pending"]) == (RECORDS, 0, 0, 0, 0)
    assert row["delivered"] + row["superseded"] == RECORDS
    (row,) = books["publish"]
    assert row["publication"] == "out"
    assert row["sends"] == row["lastSeq"] == row["acknowledged"] == row["lastAcknowledged"] == row["retained"] == before + 10
    store = books["store"]
    assert store["balanced"] and store["queued"] == store["confirmed"] and store["gone"] == []
    # Value, flag and two bits of each record, and the flag alone when the publisher came.
    delivered = books["subscribe"][0]["delivered"]
    assert store["settled"] == store["applied"] and 4 * delivered <= store["applied"] <= 4 * delivered + 4
    assert (store["values"], store["refused"], store["lost"]) == (delivered, 0, 0)
    # The store's own log tells the same.
    assert sum("v" in entry["A.n"][0] for _, _, _, entry in site.log() if "A.n" in entry) == delivered

    out = site.done("status", "--ledger")
    assert out.rstrip().endswith("\nbalanced"), out

    kill(site, sender)
    harness.wait_until("the loss to show", lambda: site.get("A.n")["elements"][0]["invalid"])
    books = ledger(site)
    (row,) = books["subscribe"]
    assert (row["published"], row["publishedBy"], row["received"]) == (RECORDS, "retained", RECORDS)
    assert books["balanced"], "the flag that the loss has written is accounted for as well"


def test_while_values_flow_it_says_so_and_finds_nothing_missing(site):
    site.apply(ELEMENTS, SUBSCRIBE, PUBLISH)
    start_gateway(site)
    sender = publish(site, 100_000, per_second=500)
    harness.wait_until("values", lambda: value(site) > 200)
    got, out, err = site.tool("status", "--ledger", "--json", "--settle", "3")
    books = json.loads(out)
    assert got == 0 and books["balanced"] and books["moving"], out + err
    assert books["subscribe"][0]["received"] > 200
    kill(site, sender)
    assert not ledger(site)["moving"]


def test_a_killed_publisher_leaves_two_rows_and_no_gap(site):
    site.apply(ELEMENTS, SUBSCRIBE, PUBLISH)
    start_gateway(site)
    first = publish(site, 100_000)
    harness.wait_until("values", lambda: value(site) > 500)
    kill(site, first)
    books = ledger(site)
    (row,) = books["subscribe"]
    taken = row["received"]
    assert row["publishedBy"] == "retained" and row["published"] == row["lastSeq"] == taken + row["gaps"] and row["gaps"] == 0
    second = publish(site, 300)
    finished(second)
    harness.wait_until("the second's values", lambda: value(site) == 300)
    books = ledger(site)
    rows = books["subscribe"]
    assert [row["received"] for row in rows] == [300, taken], "the newest run first"
    assert [row["publishedBy"] for row in rows] == ["publisher", "seen"]
    assert books["balanced"]


def test_a_killed_gateway_leaves_a_remainder_that_is_shown(site):
    site.apply(ELEMENTS, SUBSCRIBE, PUBLISH)
    gateway = start_gateway(site)
    sender = publish(site, RECORDS)
    harness.wait_until("values", lambda: value(site) > 500)
    kill(site, gateway)
    finished(sender)  # most of it while nobody is there

    books = ledger(site)
    assert books["subscribe"] == [] and books["publish"] == []
    (gone,) = books["store"]["gone"]
    (manager,) = books["store"]["managers"]
    assert not manager["alive"] and gone["manager"] == manager["manager"] == 1 and gone["writers"] == [manager["writer"]]
    assert gone["published"] == RECORDS and 500 < gone["applied"] < RECORDS
    assert gone["inFlight"] == RECORDS - gone["applied"] <= gone["bound"]
    # As many as the store's own log has.
    assert gone["applied"] == sum("v" in entry["A.n"][0] for _, _, _, entry in site.log() if "A.n" in entry)

    start_gateway(site)
    harness.wait_until("the last value", lambda: value(site) == RECORDS)
    books = ledger(site)
    (row,) = books["subscribe"]
    assert (row["published"], row["before"], row["received"], row["gaps"]) == (RECORDS, RECORDS - 1, 1, 0)
    assert books["store"]["applied"] == books["store"]["settled"] > 0
    (again,) = books["store"]["gone"]
    assert (again["published"], again["applied"]) == (RECORDS - 1, gone["applied"])
    assert again["inFlight"] == RECORDS - 1 - gone["applied"]


def test_records_that_the_store_never_got_are_found(site):
    site.apply(ELEMENTS, SUBSCRIBE, PUBLISH)
    start_gateway(site)
    sender = publish(site, 100)
    finished(sender)
    assert ledger(site)["balanced"]
    # Somebody takes ten attributes out of the store's count: the books must not agree any more.
    (writer,) = [name for name in site.redis.hash("dp:cli") if name.startswith(b"1.")]
    numbers = site.redis.command("HGET", "dp:cli", writer).split()
    site.redis.command("HSET", "dp:cli", writer, b" ".join([*numbers[:2], b"%d" % (int(numbers[2]) - 10), *numbers[3:]]))
    books = ledger(site, code=1)
    assert not books["balanced"] and not books["store"]["balanced"]
    (why,) = books["why"]
    assert why.startswith("manager 1: ") and "writes settled, but the store has counted" in why
    code, out, _ = site.tool("status", "--ledger")
    assert code == 1 and "not balanced:\n" in out and why in out


def test_a_server_that_is_not_there_is_code_three(bare_site):
    site = bare_site
    code, out, _ = site.tool("status", "--ledger", "--json", "--limit", "1")
    books = json.loads(out)
    assert code == 3 and not books["balanced"]
    assert not books["store"]["reachable"] and not books["broker"]["reachable"]
    site.redis.start()
    site.done("apply", site.write("plant.yaml", json.dumps({"elements": ELEMENTS})))
    code, out, err = site.tool("status", "--ledger", "--limit", "1")
    assert code == 3 and out == "" and str(site.broker.port) in err
