"""Command line and configuration file of the gateway: what is wrong is said once, with file and line, and exit code 2."""

import os
import signal

import pytest

import harness

GOOD = f'[kel]\nclientDPList = "{harness.LIST}"\npublisherName = "G"\n'


@pytest.mark.parametrize("text, line, reason", [
    ('[kel]\nclientDPList\n', 2, "="),
    ('# a comment\n\n[kel]\nclientDPList = "open\n', 4, "quote"),
    ('[general]\nstore = "redis+unix:///nowhere\n', 2, "quote"),
])
def test_a_bad_line_ends_the_start_with_file_line_and_reason(bare_site, text, line, reason):
    gateway = bare_site.gateway(config=text)
    assert gateway.wait() == 2
    bare_site.gateways.clear()
    assert gateway.out == [] and len(gateway.err) == 1, gateway.said()
    assert "KelGateway.config" in gateway.err[0] and str(line) in gateway.err[0] and reason in gateway.err[0]


def test_a_missing_file_is_named(bare_site):
    process = bare_site.spawn("kel-gateway", "-config", os.path.join(bare_site.folder, "none.config"))
    assert process.wait() == 2
    assert process.out == [] and len(process.err) == 1 and "none.config" in process.err[0], process.said()


def test_a_folder_instead_of_a_file_is_named(bare_site):
    process = bare_site.spawn("kel-gateway", "-config", bare_site.folder)
    assert process.wait() == 2
    assert len(process.err) == 1 and bare_site.folder in process.err[0], process.said()


@pytest.mark.parametrize("switches", [["-nonsense"], ["-num"], ["-num", "x"], ["-config"]])
def test_an_unknown_or_incomplete_switch_is_named(bare_site, switches):
    process = bare_site.spawn("kel-gateway", *switches)
    assert process.wait() == 2
    assert process.out == [] and len(process.err) == 1 and switches[0] in process.err[0], process.said()


@pytest.mark.parametrize("address, reason", [("mqtt://[::1", "']'"), ("http://127.0.0.1", "mqtt://"), ("mqtt://x?qos=7", "qos")])
def test_a_broker_address_that_is_none_is_named_and_ends_the_start(site, address, reason):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway(env={"KEL_URL": address}, wait=False)
    assert gateway.wait() == 2
    site.gateways.clear()
    said = [line for line in gateway.err if "Kel address" in line]
    assert len(said) == 1 and reason in said[0] and "KEL_URL" in said[0], gateway.said()
    assert not any("terminate" in line for line in gateway.err)


def test_unknown_keys_are_passed_over_and_keys_are_found_in_any_case(site):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway(config=f'# head\n[other]\nwhat = "ever"\n[KEL]\nunknown = 5\nCLIENTDPLIST = "{harness.LIST}" # tail\n')
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))


def test_the_store_of_the_file_is_used_and_the_variable_wins(site):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    config = '[general]\nstore = "{}"\n' + GOOD
    for store, variable in ((site.redis.url, ""), ("redis+unix:///nowhere.sock", site.redis.url)):
        gateway = site.gateway(config=config.format(store), env={"PVSS_STORE": variable})
        harness.wait_until(lambda: "the mapping\n" + gateway.said(), lambda: any("Created client mapping" in line for line in gateway.out))
        assert gateway.stop() == 0


def test_a_list_name_that_is_no_element_is_reported_once_and_the_gateway_runs(site):
    site.apply({"A.x": "int"})
    gateway = site.gateway(config='[kel]\nclientDPList = "No.list"\npubDPList = "No.publications"\n')
    expected = ["ERROR: KelApiManager {} Can not get id for client Source No.list",
                "ERROR: KelApiManager {} Can not get id for pub config Source No.publications"]
    harness.wait_until(lambda: "both reports\n" + gateway.said(), lambda: len(gateway.out) >= 2)
    for line, text in zip(gateway.out, expected):
        head, tail = text.split("{}")
        assert line.startswith(head) and line.endswith(tail)
        assert line[len(head):-len(tail)].isdigit()
    harness.holds_for("it runs", gateway.running, 0.3)


@pytest.mark.parametrize("switches, other", [(["-help"], ["-helpdbg"]), (["-helpdbg"], ["-help"])])
def test_help_is_printed_and_nothing_is_started(bare_site, switches, other):
    one, two = bare_site.spawn("kel-gateway", *switches), bare_site.spawn("kel-gateway", *other)
    assert one.wait() == 0 and two.wait() == 0
    assert one.out and one.out != two.out


def test_the_debug_help_wins(bare_site):
    both, debug = bare_site.spawn("kel-gateway", "-help", "-helpdbg"), bare_site.spawn("kel-gateway", "-helpdbg")
    assert both.wait() == 0 and debug.wait() == 0
    assert both.out == debug.out and both.out


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_the_gateway_at_once_with_0(site, number):
    site.apply({"A.x": "int"}, {"p": {"v": "A.x"}})
    gateway = site.gateway()
    harness.wait_until("the mapping", lambda: any("Created client mapping" in line for line in gateway.out))
    gateway.send_signal(number)
    assert gateway.wait(5) == 0
