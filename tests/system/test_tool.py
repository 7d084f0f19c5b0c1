"""kelgw on real servers: what it says, what it leaves alone, and its exit codes."""

import json
import os

import pytest

import harness

ELEMENTS = "elements:\n  A.x: int\n  B.y: {type: float, value: 3.5}\n  L.clients: dyn_text\n  L.pubs: dyn_text\n"
LISTS = "lists: {clients: L.clients, publications: L.pubs}\n"
GOOD = ELEMENTS + LISTS + "subscribe:\n  plant/p1: {t: A.x}\n"
OFF = {"PVSS_STORE": "redis+unix:///nowhere/redis.sock", "KEL_URL": "mqtt://127.0.0.1:1"}


def everything(site):
    """All keys with their contents, but for the server's own bookkeeping of time."""
    dump = {}
    for key in sorted(site.redis.command("KEYS", "*")):
        dump[key] = site.redis.command("DUMP", key)
    return dump


def apply(site, text, *switches):
    return site.tool("apply", site.write("plant.yaml", text), *switches)


# ------------------------------------------------------------------------------------------------ apply

def test_apply_makes_the_store_match_and_a_second_time_there_is_nothing_to_do(site):
    code, out, err = apply(site, GOOD)
    assert code == 0, err
    names = [element["name"] for element in site.json("dp", "ls")["elements"]]
    assert names == ["A.x", "B.y", "L.clients", "L.pubs"]
    (element,) = site.json("dp", "ls", "A.x")["elements"]
    assert element["type"] == "int"
    assert element["address"] == {"type": element["address"]["type"], "driver": "KEL", "publication": "plant/p1", "tag": "t"}
    assert element["address"]["type"] != 0
    assert site.get("B.y")["elements"][0]["value"] == 3.5
    assert site.get("L.clients")["elements"][0]["value"] == ["A.x"]
    before = everything(site)
    code, out, err = apply(site, GOOD)
    assert code == 0 and everything(site) == before, "an unchanged plan must write nothing"


def test_an_initial_value_does_not_overwrite_a_live_one(site):
    apply(site, GOOD)
    site.done("dp", "set", "B.y", "7.25")
    apply(site, GOOD)
    assert site.get("B.y")["elements"][0]["value"] == 7.25


def test_dry_run_prints_the_plan_and_touches_nothing(site):
    before = everything(site)
    code, out, err = apply(site, GOOD, "--dry-run")
    assert code == 0, err
    assert "A.x" in out and "L.clients" in out
    assert everything(site) == before
    assert site.redis.command("FUNCTION", "LIST") == []


def test_prune_removes_what_the_file_does_not_have_and_nothing_else_does(site):
    apply(site, GOOD.replace("A.x: int", "A.x: int\n  Old.z: text"))
    assert apply(site, GOOD)[0] == 0
    assert len(site.json("dp", "ls")["elements"]) == 5
    assert apply(site, GOOD, "--prune")[0] == 0
    assert [element["name"] for element in site.json("dp", "ls")["elements"]] == ["A.x", "B.y", "L.clients", "L.pubs"]


BAD_FILES = {
    "unknown type": (ELEMENTS.replace("A.x: int", "A.x: integer") + LISTS, 2),
    "duplicate element": ("elements:\n  A.x: int\n  A.x: float\n", 3),
    "mapping to nothing": (ELEMENTS + LISTS + "subscribe:\n  p: {t: No.such}\n", 8),
    "fed from two places": (ELEMENTS + LISTS + "subscribe:\n  p: {t: A.x}\n  q: {t: A.x}\n", 9),
    "no Kel type reaches char": (GOOD.replace("A.x: int", "A.x: char"), None),
    "no Kel type reaches uint": (GOOD.replace("A.x: int", "A.x: uint"), None),
    "no Kel type reaches dyn_char": (GOOD.replace("A.x: int", "A.x: dyn_char"), None),
    "no Kel type reaches dyn_uint": (GOOD.replace("A.x: int", "A.x: dyn_uint"), None),
    "list of another type": (GOOD.replace("L.clients: dyn_text", "L.clients: text"), None),
    "separator in a publication": (ELEMENTS + LISTS + 'subscribe:\n  "a\\x1Ab": {t: A.x}\n', 8),
    "separator in a tag": (ELEMENTS + LISTS + 'subscribe:\n  p: {"t\\x1A": A.x}\n', 8),
    "control character in an element": ('elements:\n  "A.\\x07x": int\n', 2),
    "value of another type": ("elements:\n  A.x: {type: int, value: many}\n", 2),
    "value out of range": ("elements:\n  A.x: {type: int, value: 2147483648}\n", 2),
    "no YAML": ("elements: {A.x: int\n", None),
    "unknown section": (GOOD + "subscirbe: {}\n", 9),
    "elements is a list": ("elements: [A.x]\n", 1),
    "empty publication name": (ELEMENTS + LISTS + 'subscribe:\n  "": {t: A.x}\n', 8),
}


@pytest.mark.parametrize("name", list(BAD_FILES))
@pytest.mark.parametrize("command", [("apply",), ("apply", "--dry-run"), ("check",)])
def test_a_bad_plant_file_is_refused_whole_with_file_line_and_reason(site, name, command):
    assert apply(site, GOOD)[0] == 0
    before = everything(site)
    text, line = BAD_FILES[name]
    path = site.write("bad.yaml", text)
    code, out, err = site.tool(command[0], path, *command[1:])
    assert code == 2, (out, err)
    said = out + err
    assert "bad.yaml:" in said, said
    if line is not None:
        assert f"bad.yaml:{line}:" in said, said
    assert everything(site) == before, "the store must be untouched"


IMPOSSIBLE_NAMES = {"too many levels": "/".join(["level"] * 200), "too long": "n" * 70_000, "empty": ""}


@pytest.mark.parametrize("name", list(IMPOSSIBLE_NAMES))
@pytest.mark.parametrize("direction", ["subscribe", "publish"])
def test_a_publication_name_that_cannot_be_is_refused_whole_in_both_directions(site, name, direction):
    assert apply(site, GOOD)[0] == 0
    before = everything(site)
    what = "{t: New.x}" if direction == "subscribe" else "{bufferTime: 0, fields: {t: New.x}}"
    text = ("elements:\n  New.x: int\n"
            f"lists: {{clients: {harness.LIST}, publications: {harness.PUBLICATIONS}}}\n"
            f"{direction}:\n"
            f'  ? "{IMPOSSIBLE_NAMES[name]}"\n  : {what}\n')
    path = site.write("bad.yaml", text)
    for command in (["check", path], ["apply", path, "--dry-run"], ["apply", path]):
        code, out, err = site.tool(*command)
        assert code == 2, (command, code, out[:500], err[:500])
        said = [line for line in (out + err).splitlines() if "bad.yaml:5: " in line]
        assert len(said) == 1 and len(said[0]) < 400, (out + err)[:1000]
    assert everything(site) == before, "the store must be untouched"


def test_every_mistake_of_a_file_is_named_at_once(site):
    text = "elements:\n  A.x: integer\n  B.y: floating\n" + "subscribe:\n  p: {t: No.such}\n"
    code, out, err = apply(site, text)
    assert code == 2
    assert all(f"plant.yaml:{line}:" in out + err for line in (2, 3, 5)), out + err


def test_a_plant_file_that_is_not_there_is_named(site):
    code, out, err = site.tool("apply", "/nowhere/plant.yaml")
    assert code == 2 and "/nowhere/plant.yaml" in err


# ------------------------------------------------------------------------------------------------ dp

VALUES = [("bit", "1", True), ("char", "65", 65), ("int", "-2147483648", -2147483648), ("uint", "4294967295", 4294967295),
          ("bit32", "255", 255), ("float", "0.1", 0.1), ("text", "wärmer \U0001F525", "wärmer \U0001F525"), ("text", "", ""),
          ("dyn_int", "[1,2]", [1, 2]), ("dyn_int", "[]", []), ("dyn_float", "[0.5]", [0.5]), ("dyn_bit", "[true,false]", [True, False]),
          ("dyn_text", '["a","","b,c"]', ["a", "", "b,c"]), ("dyn_uint", "[4294967295]", [4294967295]), ("dyn_bit32", "[1]", [1])]


@pytest.mark.parametrize("kind, given, expected", VALUES)
def test_a_value_of_every_type_is_set_and_read_back(site, kind, given, expected):
    site.apply({"S.x": kind})
    site.done("dp", "set", "S.x", "--", given)
    (reading,) = site.get("S.x")["elements"]
    assert reading["value"] == expected and not reading["invalid"]


def test_an_element_never_written_is_invalid_without_time(site):
    site.apply({"S.x": "int"})
    (reading,) = site.get("S.x")["elements"]
    assert reading["invalid"] and reading["stimeMs"] == 0


@pytest.mark.parametrize("arguments", [("dp", "get", "No.such"), ("dp", "set", "No.such", "1"), ("dp", "watch", "No.such"),
                                       ("dp", "ls", "No.*"), ("dp", "watch", "S.x", "--count", "1", "--for", "0.5")])
def test_what_does_not_hold_is_exit_code_1(site, arguments):
    site.apply({"S.x": "int"})
    code, out, err = site.tool(*arguments)
    assert code == 1, (out, err)


@pytest.mark.parametrize("arguments", [("dp", "set", "S.x", "much"), ("dp", "set", "S.x", "2147483648"), ("dp", "set", "S.x"), ("dp",), (),
                                       ("nonsense",), ("dp", "get"), ("kel", "pub", "p"), ("kel", "pub", "p", "v=int:x"),
                                       ("kel", "pub", "p", "v=number:1"), ("dp", "get", "S.x", "--store", "ftp://x"),
                                       ("dp", "get", "S.x", "--store", "memory:plant.yaml"), ("kel", "ls", "--kel", "http://x")])
def test_bad_usage_is_exit_code_2_with_a_reason(site, arguments):
    site.apply({"S.x": "int"})
    code, out, err = site.tool(*arguments)
    assert code == 2 and err.strip(), (out, err)


@pytest.mark.parametrize("arguments", [("dp", "ls"), ("dp", "get", "S.x"), ("dp", "set", "S.x", "1"), ("dp", "watch", "S.x"), ("kel", "ls"),
                                       ("kel", "sub", "p"), ("kel", "pub", "p", "v=int:1"), ("apply", "{plant}")])
def test_a_server_that_is_not_there_is_exit_code_3_with_its_address(bare_site, arguments):
    plant = bare_site.write("plant.yaml", GOOD)
    code, out, err = bare_site.tool(*[argument.replace("{plant}", plant) for argument in arguments], "--limit", "1", env=OFF)
    assert code == 3, (out, err)
    assert "/nowhere/redis.sock" in err or "127.0.0.1:1" in err, err


def test_watch_shows_every_write_equal_ones_included(site):
    site.apply({"S.x": "int"})
    watch = site.spawn("kelgw", "dp", "watch", "S.x", "--json", "--count", "4", "--for", "30")
    harness.wait_until("the watch to begin", lambda: watch.out)
    for value in ("1", "1", "2", "1"):
        site.done("dp", "set", "S.x", value)
    assert watch.wait() == 0
    events = [json.loads(line) for line in watch.out]
    assert [(event["event"], event["value"]) for event in events] == [("now", None), ("set", 1), ("set", 1), ("set", 2), ("set", 1)]
    sequences = [event["sequence"] for event in events]
    assert sequences == sorted(set(sequences))


# ------------------------------------------------------------------------------------------------ kel

FIELDS = {"b": ("boolean", "true", True), "y": ("byte", "255", 255), "s": ("short", "-32768", -32768), "i": ("int", "7", 7),
          "l": ("long", "-9223372036854775808", -9223372036854775808), "f": ("float", "0.1", 0.1), "d": ("double", "2.5", 2.5),
          "t": ("string", "Größe a=b:c", "Größe a=b:c"),
          "B": ("boolean[]", "true,false", [True, False]), "Y": ("byte[]", "1,2", [1, 2]),
          "S": ("short[]", "-1", [-1]), "I": ("int[]", "[]", []), "L": ("long[]", "[1, 2]", [1, 2]), "F": ("float[]", "0.5", [0.5]),
          "D": ("double[]", "1e300", [1e300]), "T": ("string[]", '["a", "", "b,c"]', ["a", "", "b,c"])}


def test_what_pub_sends_sub_and_ls_show_for_every_type(site):
    sub = site.spawn("kelgw", "kel", "sub", "tool/all", "--count", "1", "--for", "30", "--json")
    site.spawn("kelgw", "kel", "pub", "tool/all", *[f"{tag}={kind}:{text}" for tag, (kind, text, _) in FIELDS.items()], "--stay")
    assert sub.wait(40) == 0, sub.said()
    events = [json.loads(line) for line in sub.out]
    assert [event["event"] for event in events] == ["connected", "record"]
    expected = {tag: {"type": kind, "value": value} for tag, (kind, _, value) in FIELDS.items()}
    assert events[1]["fields"] == expected and events[1]["quality"] == 1
    (publication,) = site.json("kel", "ls")["publications"]
    assert (publication["name"], publication["state"]) == ("tool/all", "alive")
    assert publication["record"]["fields"] == expected


def test_what_pub_sends_the_witness_reads(site):
    from witness import codec
    listener = site.broker.subscribe()
    site.processes.append(listener.process)
    site.spawn("kelgw", "kel", "pub", "tool/all", *[f"{tag}={kind}:{text}" for tag, (kind, text, _) in FIELDS.items()], "--stay",
               "--time", "2024-01-02T03:04:05.678Z")
    topic = site.broker.topic("tool/all")
    harness.wait_until("the record", lambda: listener.of(topic))
    record = codec.Record(listener.of(topic)[-1][3])
    for tag, (kind, _, value) in FIELDS.items():
        found_kind, found = record.fields[tag]
        assert found_kind == kind
        assert found == (pytest.approx(value, rel=1e-7) if kind == "float" else value)
    assert record.quality == 1 and record.time_ns == 1_704_164_645_678_000_000
    assert record.sequence is not None and record.publisher


def test_kel_ls_tells_the_states_apart(site):
    from witness import codec
    site.broker.publish("foreign", codec.encode({"v": ("int", 1)}))
    site.broker.publish("broken", b"\xff\xff\xff")
    alive = site.spawn("kelgw", "kel", "pub", "alive", "v=int:1", "--stay")
    gone = site.spawn("kelgw", "kel", "pub", "gone", "v=int:1", "--stay")
    harness.wait_until("both", lambda: alive.out and gone.out)
    gone.kill()
    site.processes.remove(gone)
    expected = {"foreign": "foreign", "broken": "unreadable", "alive": "alive", "gone": "gone"}

    def states():
        return {publication["name"]: publication["state"] for publication in site.json("kel", "ls")["publications"]}

    harness.wait_until(lambda: f"the will; now {states()}", lambda: states() == expected)


# ------------------------------------------------------------------------------------------------ help

COMMANDS = [(), ("apply",), ("check",), ("dp",), ("dp", "ls"), ("dp", "get"), ("dp", "set"), ("dp", "watch"), ("kel",), ("kel", "ls"),
            ("kel", "sub"), ("kel", "pub"), ("status",), ("explain",)]


@pytest.mark.parametrize("command", COMMANDS)
def test_help_needs_no_server_and_names_the_exit_codes(bare_site, command):
    code, out, err = bare_site.tool(*command, "--help", env=OFF)
    assert code == 0 and err == ""
    assert "Exit codes: 0 done, 1 it did not hold, 2 usage or bad input, 3 a server could not be reached." in out
    if command and command not in (("dp",), ("kel",)):
        assert "Example" in out


def test_a_reader_that_goes_away_ends_the_tool_quietly(site):
    site.apply({f"S.x{i}": "int" for i in range(2000)})
    import subprocess
    result = subprocess.run(["bash", "-c", 'set -o pipefail; "$0" dp ls | head -n 1', os.path.join(harness.BIN, "kelgw")],
                            env={**os.environ, **site.env}, capture_output=True, timeout=60, check=False)
    assert result.stdout.startswith(b"ELEMENT") and result.stderr == b""
