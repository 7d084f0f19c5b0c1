"""What the scenario language takes, and how it refuses: file, line, what is wrong, what to do."""

import os
import re

import pytest

import language

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))

GOOD = """# a comment
title the store's end   # and its return
runs 5
with keep-alive 2 s
with backlog 1.5 MB
load 2000 records/s over 20 publications
writes 200 /s over 10 publications

start store
start broker
start gateway
start publisher
start writer
cut gateway-broker
wait 1.5 s
heal gateway-broker
expect flow resumes within 5 s
expect gateway never says "ERROR: #1"
"""


def mistakes(text):
    with pytest.raises(language.Mistake) as caught:
        language.parse("x", text, "x.scenario")
    return str(caught.value).split("\n")


def test_a_scenario_is_read_with_its_settings_and_its_steps_in_order():
    scenario = language.parse("x", GOOD)
    assert scenario.title == "the store's end"
    assert (scenario.runs, scenario.keep_alive, scenario.backlog_mb) == (5, 2, 1.5)
    assert (scenario.rate, scenario.publications, scenario.write_rate, scenario.out_publications) == (2000, 20, 200, 10)
    assert scenario.links == {"gateway-broker"}
    assert [step.line for step in scenario.steps] == list(range(9, 19))
    assert scenario.steps[6].values == [1.5]
    assert scenario.steps[-1].values == ["gateway", "ERROR: #1"]
    assert not scenario.steps_clock("gateway") and not scenario.broker_persistence


@pytest.mark.parametrize("form", list(language.FORMS))
def test_every_form_is_taken_as_it_is_documented(form):
    samples = {"<text>": '"some words"', "<count>": "7", "<number>": "1.5", "<signed>": "-3600", "<process>": "gateway",
               "<link>": "gateway-store", "<server>": "broker", "<clock>": "store", "<odd>": "large"}
    line = " ".join(samples.get(word, word) for word in form.split())
    assert language.parse_line(line)[0] == form


@pytest.mark.parametrize("line, said", [
    ("strat store", "no statement begins with 'strat'"),
    ("start stoer", "'stoer' is not one of: store, broker, gateway, gateway2, publisher, publisher2, writer; write: start <process>"),
    ("wait two s", "'two' is not a number"),
    ("wait 2 sec", "'sec' stands where 's' is expected; write: wait <number> s"),
    ("kill -9", "the line ends where '<process>"),
    ("kill store", "'store' stands where '-9' is expected"),
    ("cut gateway-moon", "'gateway-moon' is not one of: gateway-store"),
    ("start store now", "'now' is too much here"),
    ('expect gateway never says "this', "a quote is opened and not closed"),
    ("expect everything", "'everything' is not one of: store"),
    ("step clock of gateway by 1.5 s", "'1.5' is not whole seconds with a sign"),
])
def test_a_line_that_nobody_understands_is_refused_with_what_to_write(line, said):
    (mistake,) = mistakes(GOOD + line)
    assert mistake.startswith("x.scenario:19: ")
    assert said in mistake


@pytest.mark.parametrize("line, said", [
    ("start store", "store runs already"),
    ("heal gateway-store", "nothing is wrong with gateway-store"),
    ("continue store", "store is not paused"),
    ("kill -9 gateway2", "gateway2 does not run here; write a line before it: start gateway2"),
    ("fill disk", "with small disk"),
    ("free memory", "write 'fill memory' and 'free memory' in turn"),
    ("take rights at store", "with log-in"),
    ("cut 64 KB off the log of store", "kill -9 store"),
    ("start publisher2\nstart publisher2", "publisher2 runs already"),
    ("restart gateway2 when it ends", "start gateway2"),
    ("expect deleted publication bad within 5 s", "write a line before it: delete published element"),
    ("expect large publication good within 5 s", "write a value of 100 KB"),
    ("expect large record written within 5 s", "publish a record of 100 KB"),
    ("expect moved elements right within 5 s", "change lists"),
    ("expect gateway2 idle", "gateway2 does not run here"),
    ("load 5 records/s over 1 publications", "move this line above the first start"),
])
def test_a_line_that_cannot_work_where_it_stands_is_refused(line, said):
    (mistake,) = mistakes(GOOD + line)
    assert said in mistake


@pytest.mark.parametrize("text, said", [
    ("start publisher\nexpect publisher running", "the publisher has nothing to send"),
    ("start writer\nexpect writer running", "the writer has nothing to write"),
    ("start store\nexpect flow resumes within 5 s", "nothing has come back before this line"),
    ("start store\nexpect elements invalid within 5 s", "nothing was lost before this line"),
    ("start store\nstop load\nexpect store running", "neither publisher nor writer has been started"),
    ("start store", "it expects nothing, so it could not fail"),
    ("", "it expects nothing, so it could not fail"),
    ("runs 0\nstart store\nexpect store running", "it would never run"),
    ("with keep-alive 1.5 s\nstart store\nexpect store running", "whole seconds from 1"),
    ("load 0 records/s over 1 publications\nstart store\nexpect store running", "nothing would ever flow"),
    ("with small disk 16 MB\nstart store\nfill disk\nfill disk\nexpect store running", "the disk is full already"),
    ("with small disk 16 MB\nstart store\nkill -9 store\nstart store\nexpect store running", "its small disk goes with it"),
    ("with log-in\nwith small disk 16 MB\nstart store\nexpect store running", "neither a replica nor a small disk"),
    ("with log-in\nstart store\ngive rights at store\nexpect store running", "in turn"),
    ("with log-in\nstart store\ntake rights at broker\nexpect store running", "broker does not run here"),
    ("start store\nexpect publications bad within 5 s", "nothing was lost before this line"),
    ("start broker\nchange lists\nexpect broker running", "store does not run here"),
    ("with small disk 16 MB\nwith replica\nstart store\nexpect store running", "not both"),
    ("start store\nlet replica fall behind\nexpect store running", "the store has no replica"),
    ("with replica\nstart store\nwait until promoted\nexpect store running", "the store is not dead"),
    ("with replica\nlet replica fall behind\nstart store\nexpect store running", "the store does not run here"),
    ("with replica\nstart store\nkill -9 store\nstart store\nexpect store running", "write instead: wait until promoted"),
    ("with replica\nstart store\nstop store\nexpect store running", "write instead: kill -9 store"),
    ("with replica\nstart store\ncut gateway-store\nexpect store running", "no one place to be cut"),
])
def test_a_scenario_that_could_not_run_or_not_fail_is_refused(text, said):
    assert any(said in mistake for mistake in mistakes(text))


def test_every_mistake_is_told_at_once():
    assert len(mistakes("start stoer\nwait\nstart broker\nexpect broker running\nfrobnicate")) == 3


@pytest.mark.parametrize("name", sorted(os.listdir(os.path.join(HERE, "scenarios"))))
def test_every_scenario_of_the_repository_can_be_read_and_says_what_it_shows(name):
    scenario = language.load(os.path.join(HERE, "scenarios", name))
    assert scenario.title != scenario.name
    assert len(scenario.expectations) >= 5


def test_the_manual_has_every_form_and_no_other():
    with open(os.path.join(TOP, "docs", "faults.md"), encoding="utf-8") as file:
        manual = file.read()
    documented = set(re.findall(r"^\| `([^`]+)` \|", manual, re.MULTILINE))
    names = {entry[:-len(".scenario")] for entry in os.listdir(os.path.join(HERE, "scenarios"))}
    assert documented == set(language.FORMS) | names
