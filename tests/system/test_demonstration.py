"""./dev run: it shows live values, says what happened, and leaves nothing behind, however it ends."""

import os
import re
import signal
import subprocess
import tempfile
import time

import pytest

import harness

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "demo", "run.py")


class Demonstration:
    """The script with a temporary folder of its own, so that what it leaves there can be seen."""

    def __init__(self, *switches, env=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="kelgw-test.")
        self.process = harness.Process(["/usr/bin/python3", "-B", SCRIPT, "--bin", harness.BIN, *switches],
                                       env={"TMPDIR": self.tmp.name, **(env or {})})

    def children(self):
        """Processes that work in its folder."""
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink(f"/proc/{pid}/cwd").startswith(self.tmp.name):
                    found.append(int(pid))
            except OSError:
                pass
        return found

    def leaves_nothing(self):
        harness.wait_until(lambda: f"no process of it: {self.children()}", lambda: not self.children(), 10)
        assert os.listdir(self.tmp.name) == []

    def number(self, label):
        (line,) = [line for line in self.process.out if line.startswith(f"run: {label}")]
        return int(re.match(r"\D*(\d+)", line[len(f"run: {label}"):]).group(1))


@pytest.fixture
def demonstration():
    made = []

    def make(*switches, **options):
        made.append(Demonstration(*switches, **options))
        return made[-1]

    yield make
    for each in made:
        if each.process.running():
            each.process.kill()
        each.tmp.cleanup()


def test_it_ends_by_itself_with_data_both_ways_and_nothing_lost(demonstration):
    run = demonstration("--for", "5")
    assert run.process.wait(90) == 0, run.process.said()
    assert run.number("values written") > 50 and run.number("records published") > 3 and run.number("lost") == 0
    lines = "\n".join(run.process.out)
    assert "Machine.load = " in lines and "good, valid" in lines
    assert "kelgw dp watch" in lines and "kelgw kel sub" in lines and "redis-cli -s" in lines
    run.leaves_nothing()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_it_in_order_with_a_summary(demonstration, number):
    run = demonstration()
    harness.wait_until(lambda: "live values\n" + run.process.said(), lambda: any("Machine.load = " in line for line in run.process.out), 60)
    time.sleep(1.5)
    run.process.send_signal(number)
    time.sleep(0.2)
    run.process.send_signal(number)  # an impatient second one changes nothing
    assert run.process.wait(60) == 0, run.process.said()
    assert run.number("values written") > 0 and run.number("lost") == 0
    run.leaves_nothing()


def test_a_signal_during_the_start_leaves_nothing(demonstration):
    run = demonstration()
    harness.wait_until("the first child", run.children)
    run.process.send_signal(signal.SIGINT)
    assert run.process.wait(60) in (0, 1)
    run.leaves_nothing()


@pytest.mark.parametrize("victim", ["kel-gateway", "redis-server", "mosquitto", "kel-live-input"])
def test_a_part_that_dies_is_named_and_ends_it_with_1(demonstration, victim):
    run = demonstration()
    harness.wait_until(lambda: "live values\n" + run.process.said(), lambda: any("Machine.load = " in line for line in run.process.out), 60)
    for pid in run.children():
        with open(f"/proc/{pid}/comm", encoding="ascii") as comm:
            if comm.read().strip() == victim:
                os.kill(pid, signal.SIGKILL)
    assert run.process.wait(60) == 1, run.process.said()
    assert run.process.err, run.process.said()
    run.leaves_nothing()


def test_even_a_killed_script_leaves_no_process(demonstration):
    run = demonstration()
    harness.wait_until(lambda: "live values\n" + run.process.said(), lambda: any("Machine.load = " in line for line in run.process.out), 60)
    run.process.kill()
    harness.wait_until(lambda: f"no process of it: {run.children()}", lambda: not run.children(), 20)


def test_values_that_do_not_reach_the_store_are_counted_as_lost(demonstration):
    run = demonstration("--for", "8")
    harness.wait_until(lambda: "live values\n" + run.process.said(), lambda: any("Machine.load = " in line for line in run.process.out), 60)
    # Where the element should be is something else: the store refuses what is written to it.
    (folder,) = os.listdir(run.tmp.name)
    subprocess.run(["redis-cli", "-s", f"{run.tmp.name}/{folder}/redis.sock", "SET", "dp:d:Machine.load", "in the way"],
                   check=True, capture_output=True)
    assert run.process.wait(90) == 1, run.process.said()
    assert run.number("lost") > 0


def test_the_table_of_a_terminal_changes_each_second_and_gives_the_screen_back(demonstration):
    run = demonstration("--for", "4", "--table", env={"LINES": "60", "COLUMNS": "120"})
    assert run.process.wait(90) == 0, run.process.said()
    text = "\n".join(run.process.out)
    frames = text.split("\x1b[H")[1:]
    assert len(frames) >= 3
    assert all(name in frames[-1] for name in ("ELEMENT", "QUALITY", "SOURCE TIME", "Machine.load", "Machine.cpu.coreUse"))
    times = [re.search(r"Machine\.uptime.*?(\d\d:\d\d:\d\d\.\d+)Z", frame) for frame in frames]
    assert len({match.group(1) for match in times if match}) >= 2, "the table has to change"
    assert text.count("\x1b[?1049h") == text.count("\x1b[?1049l") == 1
    assert text.index("run: lost") > text.index("\x1b[?1049l")
    run.leaves_nothing()


def test_without_a_terminal_there_are_lines_and_no_control_characters(demonstration):
    run = demonstration("--for", "2")
    assert run.process.wait(90) == 0, run.process.said()
    assert "\x1b" not in "\n".join(run.process.out)
