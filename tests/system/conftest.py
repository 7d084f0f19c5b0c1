"""Fixtures of the system tests."""

import os
import tempfile

import pytest

import harness


def pytest_configure(config):
    if not os.access(os.path.join(harness.BIN, "kel-gateway"), os.X_OK):
        raise pytest.UsageError("KELGW_BIN must name the folder with kel-gateway and kelgw")


def pytest_collection_modifyitems(config, items):
    """Every so manieth test from the K-th on, when KELGW_PART is "K/N": N runs of one file share its tests."""
    if "KELGW_PART" not in os.environ:
        return
    part, parts = map(int, os.environ["KELGW_PART"].split("/"))
    if not 1 <= part <= parts:
        raise pytest.UsageError(f"KELGW_PART is {part}/{parts}: there is no such part")
    left_out = [item for position, item in enumerate(items) if position % parts != part - 1]
    items[:] = items[part - 1::parts]
    config.hook.pytest_deselected(items=left_out)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    setattr(item, "report_" + outcome.get_result().when, outcome.get_result())


@pytest.fixture
def site(request):
    """Servers up, nothing in the store, no gateway yet."""
    here = harness.Site().start()
    yield here
    report = getattr(request.node, "report_call", None)
    if report is not None and report.failed:
        for process in here.processes:
            print(process.said())
    here.close()


@pytest.fixture
def bare_site(request):
    """Folder and addresses only; the test starts what it wants."""
    here = harness.Site()
    yield here
    report = getattr(request.node, "report_call", None)
    if report is not None and report.failed:
        for process in here.processes:
            print(process.said())
    here.close()


@pytest.fixture
def folder():
    """A folder that is gone after the test."""
    with tempfile.TemporaryDirectory(prefix="kelgw-test.") as path:
        yield path


@pytest.fixture(scope="module")
def shared_folder():
    """A folder that is gone after the tests of the module."""
    with tempfile.TemporaryDirectory(prefix="kelgw-test.") as path:
        yield path
