#!/usr/bin/python3
"""Runs fault scenarios with real processes and prints one table of what was seen.

usage: tests/system/faults/run.py --bin FOLDER [--repeat N] [--jobs N] [--json] [--keep FOLDER] [SCENARIO...]
Exit code 0 when every run held, 1 when one did not, 2 for a mistake in a scenario or on the command line.
"""

import argparse
import concurrent.futures
import json
import os
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.dirname(HERE)]

COLUMNS = ("SCENARIO", "RUNS", "PASSED", "RECOVERY s", "WORST", "INVALID s", "PUBLISHED", "WRITTEN", "AGAIN", "COALESCED", "GAPS",
           "IN FLIGHT", "AWAY", "FORGOTTEN", "LOST", "NEVER WRITTEN %", "STALE IN", "STALE OUT", "MEMORY MB")

# What became of the records: the name in the document, and in books.Account; in the table in the same order.
COUNTS = {"published": "published", "written": "written", "again": "again", "coalesced": "coalesced", "gaps": "gaps",
          "inFlight": "in_flight", "away": "away", "forgotten": "forgotten", "lost": "lost"}


def arguments():
    parser = argparse.ArgumentParser(description="Runs fault scenarios with real processes.")
    parser.add_argument("--bin", required=True, help="folder with kel-gateway, kelgw and load_publisher")
    parser.add_argument("--repeat", type=int, help="runs of each scenario, instead of what it says itself")
    parser.add_argument("--jobs", type=int, default=1, help="runs side by side (1): most of the time a run waits")
    parser.add_argument("--short", action="store_true", help="only the scenarios that are run 20 times or more by themselves")
    parser.add_argument("--json", action="store_true", help="a document instead of the table")
    parser.add_argument("--keep", help="where the folders of failed runs go (default: the system's temporary folder)")
    parser.add_argument("scenario", nargs="*", help="names or files; all without")
    given = parser.parse_args()
    for program in ("kel-gateway", "kelgw", "load_publisher"):
        if not os.access(os.path.join(given.bin, program), os.X_OK):
            parser.error(f"{given.bin} has no {program}; build first: ./dev build")
    if given.repeat is not None and given.repeat < 1:
        parser.error("--repeat takes a number from 1")
    if given.jobs < 1:
        parser.error("--jobs takes a number from 1")
    return given


def one_run(scenario, keep):
    """The figures of one run."""
    import books as accounts
    import evidence
    import harness
    import rig
    import stale
    import standing
    one = rig.Rig(scenario, keep)
    began = time.monotonic()
    failed = None
    try:
        failed = one.run()
        seen = one.look()
        if seen.ledger is None and one.applied:
            try:
                one.ledger(seen)
            except evidence.Violated as violated:
                one.story.append(f"no ledger: {violated}")
        books = accounts.account(seen)
        allowance = standing.allowance_of(scenario) * harness.PATIENCE
        shown = {"staleIn": stale.elements(seen, allowance), "staleOut": stale.publications(seen, allowance, one.buffered)}
        figures = {"passed": failed is None, "seconds": round(time.monotonic() - began, 2),
                   "recovery": [round(value, 3) for value in one.figures["recovery"]],
                   "invalid": [round(value, 3) for value in one.figures["invalid"]],
                   **{name: getattr(books, attribute) if books else None for name, attribute in COUNTS.items()},
                   **{name: None if found is None else len(found) for name, found in shown.items()},
                   "memory": max((high for name, high in one.sampler.high.items() if name.startswith("gateway")), default=0)}
        if failed:
            figures.update({"failed": f"{scenario.name}:{failed[0].line}: {failed[0].text}", "why": failed[1],
                            "folder": one.folder})
        return figures
    finally:
        one.close(keep=failed is not None)


def total(runs, name):
    """The sum over those runs that looked; None when none did."""
    looked = [run[name] for run in runs if run[name] is not None]
    return sum(looked) if looked else None


def summary(runs):
    """One scenario's figures over all its runs; counts are sums, memory is the highest."""
    recovery = [max(run["recovery"]) for run in runs if run["recovery"]]
    invalid = [max(run["invalid"]) for run in runs if run["invalid"]]
    return {"runs": len(runs), "passed": sum(run["passed"] for run in runs),
            "recovery": statistics.median(recovery) if recovery else None, "recoveryWorst": max(recovery, default=None),
            "invalidWorst": max(invalid, default=None),
            **{name: total(runs, name) for name in (*COUNTS, "staleIn", "staleOut")},
            "memory": max(run["memory"] for run in runs)}


def row(name, figures):
    def seconds(value):
        return "-" if value is None else f"{value:.2f}"

    def count(name):
        return "-" if figures[name] is None else figures[name]
    never = f"{100 * (1 - figures['written'] / figures['published']):.1f}" if figures["published"] else "-"
    return [name, figures["runs"], figures["passed"], seconds(figures["recovery"]), seconds(figures["recoveryWorst"]),
            seconds(figures["invalidWorst"]), *map(count, COUNTS), never, count("staleIn"), count("staleOut"),
            f"{figures['memory'] / 1048576:.1f}"]


def print_table(rows):
    table = [COLUMNS, *rows]
    widths = [max(len(str(line[column])) for line in table) for column in range(len(COLUMNS))]
    for line in table:
        cells = [str(cell).ljust(width) if column == 0 else str(cell).rjust(width)
                 for column, (cell, width) in enumerate(zip(line, widths))]
        print("  ".join(cells).rstrip())


def in_rounds(scenarios, repeat):
    """(scenario, which of its runs, of how many): every scenario once, then every one again, so that whoever stops early has
    something of all."""
    counts = {scenario.name: repeat or scenario.runs for scenario in scenarios}
    for number in range(1, max(counts.values()) + 1):
        for scenario in scenarios:
            if number <= counts[scenario.name]:
                yield scenario, number, counts[scenario.name]


def repeat_all(scenarios, given, results):
    """Each run in a process of its own: they share nothing but the machine."""
    results.update({scenario.name: [] for scenario in scenarios})
    pool = concurrent.futures.ProcessPoolExecutor(given.jobs)
    try:
        wanted = {pool.submit(one_run, scenario, given.keep): (scenario.name, number, count)
                  for scenario, number, count in in_rounds(scenarios, given.repeat)}
        for run in concurrent.futures.as_completed(wanted):
            name, number, count = wanted[run]
            one = run.result()
            results[name].append(one)
            said = "held" if one["passed"] else f"FAILED\n  {one['failed']}\n  {one['why']}\n  everything is in {one['folder']}"
            print(f"{name} {number}/{count} {one['seconds']:.1f} s {said}", file=sys.stderr, flush=True)
    finally:
        pool.shutdown(cancel_futures=True)


def main():
    given = arguments()
    os.environ["KELGW_BIN"] = os.path.abspath(given.bin)
    import language
    import rig
    try:
        scenarios = [language.load(path) for path in rig.scenario_paths(given.scenario)]
    except (language.Mistake, OSError) as mistake:
        print(mistake, file=sys.stderr)
        return 2
    if given.short:
        scenarios = [scenario for scenario in scenarios if scenario.runs >= 20]
    results = {}
    stopped = False
    try:
        repeat_all(scenarios, given, results)
    except KeyboardInterrupt:
        stopped = True
        print("stopped; what was seen until here:", file=sys.stderr)
    results = {name: runs for name, runs in results.items() if runs}
    if given.json:
        print(json.dumps({name: {**summary(runs), "each": runs} for name, runs in results.items()}, indent=1))
    else:
        print_table([row(name, summary(runs)) for name, runs in results.items()])
    if stopped:
        return 130
    return 0 if all(run["passed"] for runs in results.values() for run in runs) else 1


if __name__ == "__main__":
    sys.exit(main())
