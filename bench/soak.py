#!/usr/bin/python3
"""Hours of load in minutes: does anything grow? One gateway with a real Redis and a real broker, records as fast as they are
taken in one direction, the changes that they make published again in the other, and both lists written every second.

usage: bench/soak.py --bin BUILD/bin [--for SECONDS] [--warm-up SECONDS] [--json]

Prints a line a minute, and at the end the slope of the resident memory after the warm-up (least squares) and whether
descriptors and threads stayed as they were. Exit code 0 when nothing grew: a slope of at most 64 KB a minute, or of at most
three of its own standard errors; descriptors and threads the same at the end as after the warm-up.
"""

import argparse
import json
import os
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))

PUBLICATIONS, FIELDS = 4, 10  # as fast as they are taken; what is written for them is published again
GUESTS = 20                   # elements that come and go once a second
NO_GROWTH_KB_A_MINUTE = 64


def slope(points):
    """(KB a minute, its standard error) of (seconds, KB), by least squares."""
    count = len(points)
    mean_x = sum(x for x, _ in points) / count
    mean_y = sum(y for _, y in points) / count
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    if count < 3 or spread == 0:
        return 0.0, float("inf")
    rise = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread
    rest = sum((y - mean_y - rise * (x - mean_x)) ** 2 for x, y in points)
    return rise * 60, (rest / (count - 2) / spread) ** 0.5 * 60


class Soak:
    def __init__(self, binaries, seconds, warm_up):
        os.environ["KELGW_BIN"] = binaries
        import harness
        self.harness = harness
        self.seconds, self.warm_up = seconds, warm_up
        self.stop = threading.Event()
        self.trouble = []
        self.list_changes = 0

    # ---------------------------------------------------------------------------------------- what loads it

    def load(self, site):
        """The plant: what is fed, what is published, and what comes and goes."""
        elements, subscribe, publish = {}, {}, {}
        for p in range(PUBLICATIONS):
            fields = {f"field{f}": f"Bench{p}.field{f}" for f in range(FIELDS)}
            elements |= {element: "float" for element in fields.values()}
            subscribe[f"bench/p{p}"] = fields
            publish[f"soak/out{p}"] = {"bufferTime": 0, "fields": fields}
        elements |= {f"Guest.e{e}": "int" for e in range(GUESTS)}
        subscribe["soak/guests"] = {f"t{e}": f"Guest.e{e}" for e in range(GUESTS)}
        site.apply(elements, subscribe, publish)

    @staticmethod
    def publisher(site):
        return site.spawn("bench_flood", "--publications", PUBLICATIONS, "--fields", FIELDS, "--records", 10**15)

    @staticmethod
    def listed(texts):
        return "[" + ", ".join('"' + text.replace("\\", "\\\\").replace('"', '\\"').replace("\x1a", "\\x1a") + '"'
                               for text in texts) + "]"

    def change_lists(self, site):
        """Every second: the fed elements with or without the guests, and the same entries of publications again."""
        fed = json.loads(site.done("dp", "get", self.harness.LIST, "--json"))["elements"][0]["value"]
        published = json.loads(site.done("dp", "get", self.harness.PUBLICATIONS, "--json"))["elements"][0]["value"]
        regulars = [name for name in fed if "Guest." not in name]
        while not self.stop.wait(1):
            self.list_changes += 1
            names = fed if self.list_changes % 2 else regulars
            for element, texts in ((self.harness.LIST, names), (self.harness.PUBLICATIONS, published)):
                code, out, err = site.tool("dp", "set", element, self.listed(texts))
                if code != 0:
                    self.trouble.append(f"a list was not written: {out}{err}")
                    return

    # ------------------------------------------------------------------------------------------ what is seen

    @staticmethod
    def look(pid):
        """(resident KB, descriptors, threads)"""
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            fields = dict(line.split(":", 1) for line in status)
        return int(fields["VmRSS"].split()[0]), len(os.listdir(f"/proc/{pid}/fd")), int(fields["Threads"])

    def counters(self, site):
        """What the gateway says of itself: its heartbeat's counters, and those of its presence as "kel.NAME"."""
        result = {}
        for manager in site.json("status")["managers"]:
            result |= {key: int(value) for key, value in manager["counters"].items() if str(value).lstrip("-").isdigit()}
        for publisher in site.json("kel", "ls")["publishers"]:
            if publisher["name"] == "KelGateway":
                result |= {f"kel.{key}": int(value) for key, value in publisher["counters"].items()}
        return result

    def run(self):
        site = self.harness.Site().start()
        try:
            self.load(site)
            gateway = site.gateway()
            mapped = PUBLICATIONS * FIELDS + GUESTS
            self.harness.wait_until(lambda: "the gateway to be up\n" + gateway.said(),
                                    lambda: sum("Created client mapping" in line for line in gateway.out) >= mapped, 60)
            source = self.publisher(site)
            lists = threading.Thread(target=self.change_lists, args=(site,), daemon=True)
            lists.start()
            rows = self.watch(site, gateway, source)
            self.stop.set()
            lists.join(60)
            return rows
        finally:
            self.stop.set()
            for process in site.processes:
                if process not in site.gateways and process.running():
                    process.kill()
            site.close()

    def watch(self, site, gateway, source):
        rows, began, printed = [], time.monotonic(), 0.0
        print(f"{'minute':>6}  {'resident KB':>11}  {'descriptors':>11}  {'threads':>7}  {'written':>12}  {'hot-links':>12}  {'backlog KB':>10}  {'to deliver':>10}  {'to send':>8}  {'lists':>6}",
              flush=True)
        while (now := time.monotonic() - began) < self.seconds:
            if not gateway.running():
                raise SystemExit("the gateway ended\n" + gateway.said())
            # What it said is not looked at here, and must not grow here either.
            del gateway.out[:-100], gateway.err[:-100]
            if not source.running():
                raise SystemExit("the publisher ended\n" + source.said())
            if self.trouble:
                raise SystemExit(self.trouble[0])
            rows.append((now, *self.look(gateway.pid)))
            if now >= printed:
                printed += 60
                counted = self.counters(site)
                print(f"{now / 60:6.1f}  {rows[-1][1]:11,}  {rows[-1][2]:11}  {rows[-1][3]:7}  {counted.get('confirmed', 0):12,}  "
                      f"{counted.get('hotLinks', 0):12,}  {counted.get('backlogBytes', 0) // 1024:10,}  "
                      f"{counted.get('kel.pending', 0):10,}  {counted.get('kel.outgoingPending', 0):8,}  {self.list_changes:6}", flush=True)
            time.sleep(1)
        return rows

    def judge(self, rows):
        warm = [row for row in rows if row[0] >= self.warm_up]
        if len(warm) < 10:
            raise SystemExit("too short: at least ten seconds have to follow the warm-up")
        rise, error = slope([(row[0], row[1]) for row in warm])
        constant = {name: (min(row[index] for row in warm), max(row[index] for row in warm), warm[0][index], warm[-1][index])
                    for name, index in (("descriptors", 2), ("threads", 3))}
        flat = rise <= max(NO_GROWTH_KB_A_MINUTE, 3 * error)
        return {"seconds": self.seconds, "warmUp": self.warm_up, "kbPerMinute": rise, "standardError": error, "flat": flat,
                "residentFirst": warm[0][1], "residentLast": warm[-1][1],
                "descriptors": constant["descriptors"], "threads": constant["threads"],
                "constant": all(low == high for low, high, _, _ in constant.values()),
                "returned": all(first == last for _, _, first, last in constant.values()),
                "listChanges": self.list_changes}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True, help="folder of the built programs")
    parser.add_argument("--for", dest="seconds", type=int, default=900, help="how long, in seconds (default: 15 minutes)")
    parser.add_argument("--warm-up", type=int, default=None, help="what is left out before, in seconds (default: a fifth)")
    parser.add_argument("--json", action="store_true", help="the result as one line of JSON as well")
    arguments = parser.parse_args()
    warm_up = arguments.warm_up if arguments.warm_up is not None else arguments.seconds // 5
    soak = Soak(os.path.abspath(arguments.bin), arguments.seconds, warm_up)
    result = soak.judge(soak.run())
    print(f"resident memory after {warm_up} s: {result['residentFirst']:,} KB, at the end {result['residentLast']:,} KB; "
          f"slope {result['kbPerMinute']:+.1f} KB/min (standard error {result['standardError']:.1f}): "
          f"{'flat' if result['flat'] else 'IT GROWS'}")
    for name in ("descriptors", "threads"):
        low, high, first, last = result[name]
        print(f"{name}: {low} constant" if low == high else
              f"{name}: NOT constant, {low} to {high} ({first} after the warm-up, {last} at the end)")
    if arguments.json:
        print(json.dumps(result))
    return 0 if result["flat"] and result["constant"] else 1


if __name__ == "__main__":
    sys.exit(main())
