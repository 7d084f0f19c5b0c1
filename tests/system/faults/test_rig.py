"""A real violation with real processes: it is seen, and what is needed to understand it stays."""

import os

import harness
import language
import rig

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
    assert text.startswith("12 times shown as good though dead: ")
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
