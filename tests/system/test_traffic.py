"""Much at once: nothing is lost between broker and store, and everything stays in order."""

import json
import os

import harness

PUBLISHERS = 4
RECORDS = 25_000


def kel_counters(site, name="KelGateway"):
    for publisher in site.json("kel", "ls")["publishers"]:
        if publisher["name"] == name:
            return publisher["counters"]
    raise AssertionError("the gateway has no presence")


def manager_counters(site):
    (number,) = site.redis.command("ZRANGE", "dp:mgr", 0, -1)
    raw = site.redis.hash(b"dp:mgr:" + number)
    return {name.decode(): int(text) for name, text in raw.items() if text.isdigit()}


def applied(site):
    """Batches that the store itself has counted for managers, duplicates not counted."""
    return sum(int(known.split()[1]) for writer, known in site.redis.hash("dp:cli").items() if writer[:1].isdigit())


def test_a_hundred_thousand_updates_of_four_publishers_all_reach_the_store_in_order(site):
    elements = {f"T{i}.n": "int" for i in range(PUBLISHERS)}
    site.apply(elements, {f"traffic/{i}": {"n": f"T{i}.n"} for i in range(PUBLISHERS)})
    gateway = site.gateway()
    harness.wait_until("the mappings", lambda: sum("Created client mapping" in line for line in gateway.out) == PUBLISHERS)
    senders = [harness.Process([os.path.join(harness.BIN, "traffic_publisher"), f"sender{i}", f"traffic/{i}", RECORDS, 1, 2500],
                               env=site.env, stdin=True) for i in range(PUBLISHERS)]
    site.processes += senders
    for sender in senders:
        harness.wait_until(lambda: "its figures\n" + sender.said(), lambda: sender.out, 300)
        said = json.loads(sender.out[0])
        assert said["flushed"] and (said["sends"], said["acknowledged"], said["superseded"]) == (RECORDS, RECORDS, 0), said

    def settled():
        kel, manager = kel_counters(site), manager_counters(site)
        return kel["received"] >= PUBLISHERS * RECORDS and kel["pending"] == 0 and manager["confirmed"] == manager["queued"]

    harness.wait_until(lambda: f"everything to arrive: {kel_counters(site)} {manager_counters(site)}", settled, 60)
    kel = kel_counters(site)
    assert kel["received"] == PUBLISHERS * RECORDS and kel["gaps"] == 0 and kel["decodeErrors"] == 0

    # From the store's side: what the log holds of each element, against what was delivered.
    written = {element: [] for element in elements}
    for _, time_ms, _, entry in site.log():
        for element, (letters, value) in entry.items():
            if "v" in letters and element in written:
                written[element].append((int(value), time_ms))
    count = sum(len(values) for values in written.values())
    assert count == kel["delivered"] - kel["resends"]
    assert count + kel["superseded"] == PUBLISHERS * RECORDS
    for values in written.values():
        numbers = [number for number, _ in values]
        assert numbers == sorted(set(numbers)), "in order, none twice"
        assert numbers[-1] == RECORDS
        assert all(time_ms == 1_700_000_000_000 + number for number, time_ms in values), "each with its own time"
    # One write for each record and a few for the flags when a publisher came; all confirmed, none of them twice.
    # The counters are those of the last heartbeat, so they may be a second behind the store's own.
    harness.wait_until(lambda: f"{manager_counters(site)} and {applied(site)} to agree",
                       lambda: manager_counters(site)["calls"] == applied(site))
    assert 0 <= applied(site) - count <= 2 * PUBLISHERS
    print(f"{count} of {PUBLISHERS * RECORDS} written, {kel['superseded']} superseded, "
          f"{gateway.cpu_seconds() / count * 1e6:.1f} µs of CPU each")


def test_wide_records_arrive_whole(site):
    fields = 200
    elements = {f"W.f{i}": "int" for i in range(fields)}
    tags = {("n" if i == 0 else f"f{i}"): f"W.f{i}" for i in range(fields)}
    site.apply(elements, {"wide": tags})
    gateway = site.gateway()
    harness.wait_until("the mappings", lambda: sum("Created client mapping" in line for line in gateway.out) == fields)
    sender = harness.Process([os.path.join(harness.BIN, "traffic_publisher"), "wide", "wide", 2000, fields, 400], env=site.env, stdin=True)
    site.processes.append(sender)
    harness.wait_until(lambda: "its figures\n" + sender.said(), lambda: sender.out, 120)
    harness.wait_until("the last record", lambda: {reading["value"] for reading in site.get("W.*")["elements"]} == {2000}, 60)
    last = 0
    for _, _, _, entry in site.log():
        values = [value for element, (letters, value) in entry.items() if "v" in letters and element in elements]
        if values:
            assert len(values) == fields and len(set(values)) == 1, "all fields of one record, and of one only"
            assert int(values[0]) > last
            last = int(values[0])
