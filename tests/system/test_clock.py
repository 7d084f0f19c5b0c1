"""A clock that is stepped under a running gateway: buffered publications go on. Only this one process sees the steps."""

import os
import time

import pytest

import harness
from test_publishing import Reader, set_value

LIBRARY = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1"
HOURS = 3600


class Clock:
    """The offset that the gateway's wall clock has from the true one, in seconds."""

    def __init__(self, site):
        self.path = os.path.join(site.folder, "clock")
        self.step(0)

    def step(self, seconds):
        with open(self.path + ".new", "w", encoding="ascii") as file:
            file.write(f"{seconds:+d}s\n")
        os.rename(self.path + ".new", self.path)

    @property
    def env(self):
        return {"LD_PRELOAD": LIBRARY, "FAKETIME_TIMESTAMP_FILE": self.path, "FAKETIME_NO_CACHE": "1",
                "FAKETIME_DONT_FAKE_MONOTONIC": "1"}


@pytest.mark.parametrize("steps", [[5 * HOURS], [-5 * HOURS], [2 * HOURS, -2 * HOURS, 0, 24 * HOURS]])
def test_a_stepped_clock_neither_stops_nor_floods_a_buffered_publication(site, steps):
    buffer_ms = 200
    site.apply({"P.x": "int"}, {}, {"slow": {"bufferTime": buffer_ms, "fields": {"x": "P.x"}}})
    set_value(site, "P.x", "0")
    reader = Reader(site, "slow")
    clock = Clock(site)
    gateway = site.gateway(env=clock.env)
    reader.wait("the first record\n" + gateway.said(), lambda record: record.quality == 1)
    number = 0
    for step in [0, *steps]:
        clock.step(step)
        began = time.monotonic()
        before = len(reader.records())
        changes = 0
        while time.monotonic() - began < 2:
            number, changes = number + 1, changes + 1
            set_value(site, "P.x", str(number))
        reader.wait(f"the newest value after a step of {step} s", lambda record: record.fields == {"x": ("int", number)})
        span = time.monotonic() - began
        records = len(reader.records()) - before
        assert 3 <= records <= span * 1000 / buffer_ms + 2, f"{records} records in {span:.1f} s for {changes} changes"
        # The process does see the step: a declaration carries its own clock's time.
        set_value(site, "P.x", str(number), "--invalid")
        bad = reader.wait("the declaration", lambda record: record.quality == 0)
        assert abs(bad.time_ns / 1e9 - time.time() - step) < 60 * harness.PATIENCE
        set_value(site, "P.x", str(number))
        reader.wait("good again", lambda record: record.quality == 1)
    assert gateway.running()
