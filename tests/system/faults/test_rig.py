"""A real violation with real processes: it is seen, and what is needed to understand it stays."""

import os
import re
import time

import pytest

import harness
import language
import recorders
import rig
import servers

SCENARIO = f"""title a gateway that hangs marks nothing, while its publisher dies
load 500 records/s over 4 publications
writes 20 /s over 2 publications
start store
start broker
start gateway
start publisher
start writer
wait until flowing
expect nothing dead shown as good after 2 s
pause gateway
kill -9 publisher
wait {4 * harness.PATIENCE:.0f} s
expect nothing dead shown as good after 2 s
expect gateway running
"""


def test_a_real_violation_is_told_with_its_line_and_its_figures_and_the_folder_is_kept(folder):
    run = rig.Rig(language.parse("hanging", SCENARIO), folder)
    try:
        step, text = run.run()
    finally:
        run.close(keep=True)
    assert step.line == 14
    # The busy ones, and of the others those that have a value: fields of four busy publications alone are twelve.
    shown = re.match(r"(\d+) times shown as good though untrue: ", text)
    assert shown and int(shown[1]) >= 12, text
    kept = set(os.listdir(run.folder))
    assert {"story", "log", "messages", "gateway.1.out", "gateway.1.err", "publisher.1.out", "store.1.out", "ledger.json"} <= kept
    with open(os.path.join(run.folder, "log"), encoding="utf-8") as log:
        assert "'L0.n'" in log.read()
    assert not any(process.running() for _, process in run.past)


def test_a_run_that_holds_leaves_nothing(folder):
    run = rig.Rig(language.parse("short", "start store\nstart broker\nstart gateway\nexpect gateway running\n"), folder)
    try:
        assert run.run() is None
    finally:
        run.close(keep=False)
    assert os.listdir(folder) == []


def test_what_ends_by_itself_is_started_again_and_its_exit_code_is_kept(folder):
    text = "start store\nstart broker\nstart gateway\nrestart gateway when it ends\nexpect gateway running\n"
    run = rig.Rig(language.parse("ending", text), folder)
    try:
        assert run.run() is None
        first = run.now["gateway"]
        first.kill()

        def again():
            run.supervisor.look()
            return "gateway" in run.now and run.now["gateway"] is not first
        harness.wait_until("the gateway to be started again", again)
        assert run.supervisor.codes == {"gateway": [-9]}
        assert [life.died is None for life in run.evidence.lives["gateway"]] == [False, True]
        assert run.evidence.returns == [], "this is no return that a scenario has brought about"
    finally:
        run.close(keep=False)


class LeakyRig(rig.Rig):
    """One link of it loses records, and no process, no store and no broker knows of it."""

    leaky = None
    waits = 0

    def kel_url(self, link=None):
        if link != self.leaky:
            return super().kel_url(link)
        if link not in self.links:
            port = servers.quiet_port()
            process = recorders.TimedProcess([rig.PYTHON, "-B", os.path.join(rig.HERE, "swallower.py"), port, self.broker.port],
                                             stdin=True)
            self.past.append((link, process))
            self.links[link] = (port, process)
            harness.wait_until("the link", lambda: servers_listens(port))
        return f"mqtt://127.0.0.1:{self.links[link][0]}?group={harness.GROUP}&keepAlive={self.scenario.keep_alive}"

    def do(self, step):
        # Not before the second wait: right behind the start nobody can tell a loss from a witness who was not there yet.
        self.waits += step.form == "wait <number> s"
        if self.waits == 2:
            self.swallow()
            self.waits += 1
        super().do(step)

    def within(self, seconds, judge, elements=False):
        # What is lost does not come, however long a slow machine is waited for; and in the end the gateway finds out by
        # itself, because the broker gives it nothing.
        return super().within(seconds / harness.PATIENCE if self.waits > 2 else seconds, judge, elements)

    def swallow(self):
        process = self.links[self.leaky][1]
        process.order(self.order)
        process.wait_for("what it swallows", lambda: any(line.startswith("swallowed") for line in process.out))


def servers_listens(port):
    try:
        servers.socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


LEAKY = """title a link loses one record and nobody is told
load 500 records/s over 4 publications
writes 20 /s over 2 publications
start store
start broker
start gateway
start publisher
start writer
wait until flowing
wait 2 s
wait 1 s
expect gateway running
"""


@pytest.mark.parametrize("link, order, said", [
    ("publisher-broker", "one load/2", r"at the end: 1 records are lost: .* load/2 number \d+: it was handed over by"),
    ("gateway-broker", "one load/2", r"at the end: 1 records are lost: .* load/2 number \d+: it was at the broker at"),
    ("gateway-broker", "all load/7", r"at the end: 3 elements are not what was published last: L7\.n is \d+ invalid 0"),
])
def test_a_record_that_a_link_has_lost_is_found(folder, link, order, said):
    LeakyRig.leaky, LeakyRig.order = link, order
    run = LeakyRig(language.parse("leaky", LEAKY), folder)
    try:
        failed = run.run()
    finally:
        run.close(keep=True)
    assert failed is not None, "nothing was found"
    assert re.match(said, failed[1]), failed[1]


def test_where_no_record_is_lost_none_is_found(folder):
    run = rig.Rig(language.parse("tight", LEAKY), folder)
    try:
        assert run.run() is None
    finally:
        run.close(keep=False)
