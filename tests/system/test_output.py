"""Whoever reads what the gateway says, or does not: the values flow, the manager number is held, nobody dies of it."""

import fcntl
import json
import os
import subprocess

import harness

UPDATES = 1000


class Pipe:
    """The smallest pipe that the system makes; nobody reads it until read() is called."""

    def __init__(self):
        self.reading, self.writing = os.pipe()
        fcntl.fcntl(self.writing, fcntl.F_SETPIPE_SZ, 4096)

    def handed_over(self):
        os.close(self.writing)

    def read_until(self, end):
        text = b""
        while end not in text:
            more = os.read(self.reading, 65536)
            assert more, text[-2000:]
            text += more
        return text.decode()

    def close(self):
        os.close(self.reading)


class Gateway:
    """A gateway with descriptors of its own for what it says."""

    def __init__(self, site, out, err, env=None):
        config = site.write("quiet.config", f'[kel]\nclientDPList = "{harness.LIST}"\npublisherName = "KelGateway"\n')
        # A reader who has gone must be seen as the system shows it: Python ignores SIGPIPE, and a child would inherit that.
        self.child = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", "--", os.path.join(harness.BIN, "kel-gateway"),
                                       "-config", config], stdin=subprocess.DEVNULL, stdout=out, stderr=err, cwd=site.folder,
                                      env={**os.environ, **site.env, **(env or {})}, restore_signals=True)

    def running(self):
        return self.child.poll() is None

    def stop(self):
        self.child.terminate()
        try:
            return self.child.wait(20 * harness.PATIENCE)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()
            raise


def reading(site, element):
    (one,) = site.get(element)["elements"]
    return one["value"], one["invalid"]


def lease(site):
    return site.redis.hash("dp:mgr:1:lease").get(b"writer")


def sender(site, publication, records, per_second):
    process = harness.Process([os.path.join(harness.BIN, "traffic_publisher"), "sender", publication, records, 1, per_second],
                              env=site.env, stdin=True)
    site.processes.append(process)
    return process


def test_output_that_nobody_reads_stops_no_value_and_loses_no_number(site):
    # Every record brings two reports for the field that it does not have, and one value.
    site.apply({"A.n": "int", "A.none": "int"}, {"p": {"n": "A.n", "none": "A.none"}})
    out, err = Pipe(), Pipe()
    gateway = Gateway(site, out.writing, err.writing, env={"KELGW_LOG": "debug"})
    out.handed_over()
    err.handed_over()
    try:
        holder = harness.wait_until("the manager number", lambda: lease(site))
        figures = sender(site, "p", UPDATES, 200)
        seen = set()

        def arrived():
            assert gateway.running()
            seen.add(lease(site))
            return reading(site, "A.n") == (UPDATES, False)

        harness.wait_until("the last value", arrived, 30)
        assert seen == {holder}, "the manager number was lost meanwhile"
        harness.wait_until("the publisher's figures", lambda: figures.out)
        assert json.loads(figures.out[0])["acknowledged"] == UPDATES

        # Who reads now hears everything, in order, and then what comes live.
        text = out.read_until(b"Created client mapping between DPE A.none and publication p\x1anone\n")
        missing = "ERROR: CkelDataMapping 59 KEL address p\x1anone does not exist in publication\n"
        while text.count(missing) < UPDATES // 2:
            text += out.read_until(b"\n")
        assert all(line.startswith(("ERROR: ", "Created ")) for line in text.splitlines()), text[-2000:]
    finally:
        code = gateway.stop()
        out.close()
        err.close()
    assert code == 0


def test_a_reader_who_has_gone_before_the_start_ends_nobody(site):
    site.apply({"A.n": "int", "A.none": "int"}, {"p": {"n": "A.n", "none": "A.none"}})
    out, err = Pipe(), Pipe()
    out.close()
    err.close()
    # Within the process: nothing of a broker link has changed what the process does with signals.
    gateway = Gateway(site, out.writing, err.writing, env={"KELGW_LOG": "debug", "KEL_URL": "loopback:"})
    out.handed_over()
    err.handed_over()
    try:
        holder = harness.wait_until("the manager number", lambda: lease(site) or not gateway.running())
        assert gateway.running(), f"it ended with {gateway.child.returncode}"
        # The list makes it report: what it creates, and what it cannot.
        site.done("dp", "set", harness.LIST, '["A.n","A.none","No.such"]')
        site.apply({"A.n": "int"}, {"p": {"n": "A.n"}})
        harness.holds_for("it lives and has the number", lambda: gateway.running() and lease(site) == holder, 4)
    finally:
        code = gateway.stop()
    assert code == 0


def test_a_reader_who_goes_while_it_runs_ends_nobody_and_the_values_flow(site):
    site.apply({"A.n": "int", "A.none": "int"}, {"p": {"n": "A.n", "none": "A.none"}})
    out, err = Pipe(), Pipe()
    gateway = Gateway(site, out.writing, err.writing, env={"KELGW_LOG": "debug"})
    out.handed_over()
    err.handed_over()
    try:
        out.read_until(b"Created client mapping between DPE A.none")
        out.close()
        err.close()
        sender(site, "p", 100, 1000)
        harness.wait_until("the last value", lambda: not gateway.running() or reading(site, "A.n") == (100, False))
        assert gateway.running(), f"it ended with {gateway.child.returncode}"
    finally:
        code = gateway.stop()
    assert code == 0
