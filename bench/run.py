#!/usr/bin/python3
"""The figures of the gateway, measured on this machine in one run and printed as one table of ratios.

usage: bench/run.py --bin BUILD/bin [NAME...]      names: core, store, cpu, peer, start, publish
                                                   and, only when named: soak [--for SECONDS], 15 minutes long

Every figure has its own yardstick in the same run, because absolute numbers of a noisy machine say little.
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))


def plant_of(publications, fields, kind="float"):
    """`publications` publications of `fields` fields, each mapped to an element of its own."""
    elements, subscribe = {}, {}
    for p in range(publications):
        tags = {}
        for f in range(fields):
            element = f"Bench{p}.field{f}"
            elements[element] = kind
            tags[f"field{f}"] = element
        subscribe[f"bench/p{p}"] = tags
    return elements, subscribe


class Bench:
    def __init__(self, binaries):
        os.environ["KELGW_BIN"] = binaries
        import harness
        self.harness = harness
        self.bin = binaries
        self.rows = []
        self.seconds = 900

    def program(self, name):
        return os.path.join(self.bin, name)

    def row(self, figure, measured, goal, held):
        self.rows.append((figure, measured, goal, "yes" if held else "NO"))

    def say(self, text):
        print(f"bench: {text}", file=sys.stderr, flush=True)

    def counters(self, site):
        """Counters of the manager's heartbeat, as numbers where they are."""
        for manager in site.json("status")["managers"]:
            return {key: int(value) if str(value).lstrip("-").isdigit() else value
                    for key, value in manager["counters"].items()}
        return {}

    def written(self, site):
        """Batches that the store has applied for managers: the store's own count."""
        total = 0
        for writer, known in site.redis.hash("dp:cli").items():
            if not writer.startswith(b"kelgw") and not writer.startswith(b"peer"):
                total += int(known.split()[1])
        return total

    def flood(self, site, *arguments, wait=True):
        process = self.harness.Process([self.program("bench_flood"), *arguments],
                                       env={"KEL_URL": site.broker.url})
        if not wait:
            return process
        code = process.wait(600)
        if code != 0:
            raise SystemExit(process.said())
        return json.loads(process.out[-1])

    def site(self):
        return self.harness.Site().start()

    # ------------------------------------------------------------------------------------------- figures

    def core(self):
        """Loopback and memory store in one process: how many DPE values a second one core carries."""
        result = subprocess.run([self.program("bench_core"), "--json"], capture_output=True, text=True, check=True)
        figure = json.loads(result.stdout.splitlines()[-1])
        rate = figure["valuesPerCpuSecond"]
        self.row("core: values per second of one core (20 fields, loopback, memory store)",
                 f"{rate / 1e6:.2f} million", ">= 1 million", rate >= 1e6)

    def store(self):
        """What one write through the store costs, its confirmation and its return by the log included."""
        site = self.site()
        try:
            result = subprocess.run([self.program("bench_store"), site.redis.url], capture_output=True, text=True, check=True)
        finally:
            site.close()
        figure = json.loads(result.stdout.splitlines()[-1])
        self.row("store: CPU of a write of one element, 10,000 a second (waking up once a millisecond included)",
                 f"{figure['paced']:.1f} µs (a poll that only sleeps: {figure['idlePoll']:.1f} µs)", "<= 5 µs",
                 figure["paced"] <= 5)

    def cpu(self):
        """CPU per record through the real broker and store against a subscriber that only counts."""
        records, publications = 200_000, 4
        site = self.site()
        try:
            elements, subscribe = plant_of(publications, 1)
            site.apply(elements, subscribe)
            gateway = site.gateway()
            self.harness.wait_until("the gateway to subscribe",
                                    lambda: sum("Created client mapping" in line for line in gateway.out) == publications)
            bare = self.harness.Process([self.program("bench_bare"), "127.0.0.1", site.broker.port,
                                         f"kel/{self.harness.GROUP}/data/#"])
            time.sleep(1)
            before, bare_before = gateway.cpu_seconds(), bare.cpu_seconds()
            applied = self.written(site)
            sent = self.flood(site, "--publications", publications, "--fields", 1, "--records", records, "--rate", 10000)
            self.harness.wait_until("the store to have all", lambda: self.written(site) - applied >= records, 120)
            spent, bare_spent = gateway.cpu_seconds() - before, bare.cpu_seconds() - bare_before
            mine, yardstick = spent / sent["sent"] * 1e6, bare_spent / sent["sent"] * 1e6
            self.row("cpu: gateway per record, against a bare libmosquitto subscriber",
                     f"{mine:.1f} µs / {yardstick:.1f} µs = {mine / yardstick:.2f}", "<= 2", mine <= 2 * yardstick)
            bare.stop()
        finally:
            site.close()

    def peer(self):
        """Records of 20 fields a second, against the same job as a script on well-kept packages."""
        records, publications, fields = 60_000, 4, 20
        folder = os.path.join(ROOT, "bench", "peer")
        if not os.path.isdir(os.path.join(folder, "node_modules")):
            self.say("installing the packages of the yardstick script")
            subprocess.run(["npm", "ci", "--no-audit", "--no-fund", "--silent"], cwd=folder, check=True)
        elements, subscribe = plant_of(publications, fields)

        def flood(site):
            return self.flood(site, "--publications", publications, "--fields", fields, "--records", records,
                              wait=False)

        site = self.site()
        try:
            site.apply(elements, subscribe)
            gateway = site.gateway()
            self.harness.wait_until("the gateway to subscribe",
                                    lambda: sum("Created client mapping" in line for line in gateway.out) == publications * fields)
            time.sleep(1)
            applied = self.written(site)
            source = flood(site)
            self.harness.wait_until("the first record", lambda: self.written(site) > applied, 60)
            started, first = time.monotonic(), self.written(site)
            source.wait(600)
            last, quiet = 0, time.monotonic()
            while time.monotonic() - quiet < 1.0:
                now = self.written(site)
                if now != last:
                    last, quiet = now, time.monotonic()
                time.sleep(0.02)
            rate = (last - first) / (quiet - started)
        finally:
            site.close()

        site = self.site()
        try:
            site.apply(elements, subscribe)
            mapping = site.write("mapping.json", json.dumps(subscribe))
            script = self.harness.Process(["node", os.path.join(folder, "peer.mjs"), site.broker.url.split("?")[0],
                                           self.harness.GROUP, site.redis.path, mapping, records])
            self.harness.wait_until("the script to subscribe", lambda: script.out, 60)
            source = flood(site)
            script.wait(600)
            source.wait(600)
            result = json.loads(script.out[-1])
            yardstick = result["records"] / result["seconds"]
        finally:
            site.close()
        self.row("peer: records of 20 fields a second, against mqtt.js + ioredis",
                 f"{rate:,.0f} / {yardstick:,.0f} = {rate / yardstick:.2f}", ">= 2", rate >= 2 * yardstick)

    def start(self):
        """10,000 DPEs over 500 publications: start, memory, idle."""
        publications, fields = 500, 20
        site = self.site()
        try:
            elements, subscribe = plant_of(publications, fields)
            site.apply(elements, subscribe)
            source = self.flood(site, "--publications", publications, "--fields", fields, "--records", publications,
                                "--hold", 60, wait=False)
            self.harness.wait_until("the publisher to have sent", lambda: source.out, 60)
            started = time.monotonic()
            gateway = site.gateway()

            def valid():
                return sum(site.redis.command("HGET", f"dp:d:Bench{p}.field{fields - 1}", "i") == b"0" for p in range(publications))

            self.harness.wait_until("all to be connected", lambda: valid() == publications, 60)
            seconds = time.monotonic() - started
            with open(f"/proc/{gateway.pid}/status", encoding="ascii") as status:
                resident = next(int(line.split()[1]) for line in status if line.startswith("VmRSS")) / 1024
            time.sleep(2)
            before, began = gateway.cpu_seconds(), time.monotonic()
            time.sleep(15)
            idle = (gateway.cpu_seconds() - before) / (time.monotonic() - began) * 100
            self.row("start: 10,000 DPEs over 500 publications, from start to all connected", f"{seconds:.2f} s", "<= 3 s", seconds <= 3)
            self.row("start: resident memory", f"{resident:.1f} MB", "<= 40 MB", resident <= 40)
            self.row("start: idle", f"{idle:.2f} % of one core", "<= 3 %", idle <= 3)
            source.stop()
        finally:
            site.close()

    def publish(self):
        """1,000 publications of 10 DPEs, buffer time 100 ms, every DPE changing 50 times a second for 30 s."""
        result = subprocess.run([self.program("bench_publish"), "--json"], capture_output=True, text=True, check=False)
        figure = json.loads(result.stdout.splitlines()[-1])
        changes, wanted = figure["changes"], figure["wantedChanges"]
        self.row("publish: changes taken in of those wanted (1,000 x 10 DPEs, 50 a second)",
                 f"{changes / 1e6:.2f} of {wanted / 1e6:.2f} million, {figure['cpuSeconds'] / figure['seconds']:.2f} cores",
                 "shown", True)
        self.row("publish: most records of one publication, buffer time 100 ms",
                 f"{figure['mostPerPublication']} in {figure['seconds']:.0f} s",
                 f"<= {figure['allowedPerPublication']:.0f}", figure["tooOften"] == 0)
        self.row("publish: publications whose last record is not the last values", str(figure["notLast"]), "0",
                 figure["notLast"] == 0)
        self.row("publish: gaps and repeated records", f"{figure['gaps']} and {figure['repeated']}", "0 and 0",
                 figure["gaps"] == 0 and figure["repeated"] == 0)

    def soak(self):
        """Does anything grow under hours of load in minutes? See bench/soak.py."""
        command = [sys.executable, "-B", os.path.join(ROOT, "bench", "soak.py"), "--bin", self.bin, "--for", str(self.seconds), "--json"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as child:
            last = ""
            for line in child.stdout:
                if last:
                    print(last, flush=True)
                last = line.rstrip("\n")
        if not last.startswith("{"):
            raise SystemExit(last or "the soak bench said nothing")
        figure = json.loads(last)
        self.row(f"soak: slope of resident memory over {figure['seconds'] - figure['warmUp']} s after the warm-up",
                 f"{figure['kbPerMinute']:+.1f} KB/min (standard error {figure['standardError']:.1f})", "flat", figure["flat"])
        for name in ("descriptors", "threads"):
            low, high, _, _ = figure[name]
            self.row(f"soak: {name}", str(low) if low == high else f"{low} to {high}", "constant", low == high)

    def table(self):
        widths = [max(len(str(row[column])) for row in [("figure", "measured", "goal", "held"), *self.rows]) for column in range(4)]
        for row in [("figure", "measured", "goal", "held"), *self.rows]:
            print("  ".join(str(cell).ljust(width) for cell, width in zip(row, widths)).rstrip())
        sys.stdout.flush()


FIGURES = ("core", "store", "cpu", "peer", "start", "publish")
WHEN_NAMED = ("soak",)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True, help="folder of the built programs")
    parser.add_argument("names", nargs="*", choices=[*FIGURES, *WHEN_NAMED, []],
                        help="figures to measure; all when none is named, soak only when it is")
    parser.add_argument("--for", dest="seconds", type=int, default=900, help="how long soak takes, in seconds")
    arguments = parser.parse_args()
    bench = Bench(os.path.abspath(arguments.bin))
    bench.seconds = arguments.seconds
    for name in arguments.names or FIGURES:
        bench.say(f"measuring {name}")
        getattr(bench, name)()
    bench.table()
    return 0 if all(row[3] == "yes" for row in bench.rows) else 1


if __name__ == "__main__":
    sys.exit(main())
