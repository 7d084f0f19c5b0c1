"""Names and texts from outside: whatever is in them, they arrive as they are or are refused with a word, are never taken for
a format, a script, a command or a file name, and never steer a terminal."""

import json
import os
import re

import pytest

import harness
from witness import codec

NS = 1_700_000_000_000_000_000
LONG = "x" * 100_000
HOSTILE = {
    "formats": "%n%n%s%d%999999999c {} {0} {nope!r} {:>999999999}",
    "colours": "\x1b[31mred\x1b]0;title\x07\x1b[2J",
    "lines": "two\nlines\r\nERROR: kelPubGroup 52 Pulisher has internal error\n",
    "path": "../../../../tmp/../etc/passwd",
    "shell": "$(touch taken) `touch taken` ; touch taken | touch taken & '\"\\",
    "lua": "']] redis.call('FLUSHALL') --[[ \\0 \\x00 \" end",
    "wide": "grüß € \U0001f600 \u202e\u0085\u009b31m",
    "long": LONG,
}
# ESC and all else that a terminal obeys; line ends and tabs are for whoever prints them.
CONTROLS = re.compile("[\x00-\x08\x0b-\x1f\x7f\u0080-\u009f]")


def element(name):
    return f"Text.{name}"


def tame(text, lines=None):
    """Nothing in it steers a terminal; as many lines as are expected."""
    found = CONTROLS.search(text)
    assert found is None, f"{found.group()!r} in {text[max(0, found.start() - 60):found.start() + 60]!r}"
    if lines is not None:
        assert text.count("\n") == lines, text[:2000]
    return text


def unharmed(site, gateway):
    assert gateway.running(), gateway.said()
    assert "taken" not in os.listdir(site.folder)
    for line in gateway.err:
        tame(line)


def start(site):
    names = list(HOSTILE)
    site.apply({element(name): "text" for name in names} | {"Out.text": "text", "Out.texts": "dyn_text"},
               {"in": {name: element(name) for name in names}},
               {"out": {"bufferTime": 0, "fields": {"text": "Out.text", "texts": "Out.texts"}}})
    gateway = site.gateway()
    harness.wait_until(lambda: "the mappings\n" + gateway.said(),
                       lambda: sum("Created client mapping" in line for line in gateway.out) == len(names))
    return gateway


def test_texts_from_publishers_arrive_as_they_are_and_are_shown_tamely(site):
    gateway = start(site)
    watch = site.spawn("kelgw", "dp", "watch", *[element(name) for name in HOSTILE])
    listener = site.spawn("kelgw", "kel", "sub", "in")
    harness.wait_until("both to listen", lambda: len(watch.out) >= len(HOSTILE) and listener.running())
    site.broker.publish("in", codec.encode({name: ("string", text) for name, text in HOSTILE.items()}, time_ns=NS))
    last = list(HOSTILE)[-1]
    harness.wait_until(lambda: "the record\n" + gateway.said(), lambda: site.get(element(last))["elements"][0]["value"] == LONG)
    for name, text in HOSTILE.items():
        shown = site.done("dp", "get", element(name), "--json")
        assert json.loads(shown)["elements"][0]["value"] == text, name
        tame(shown)
        tame(site.done("dp", "get", element(name)), 2)
        tame(site.done("explain", element(name)))
    tame(site.done("dp", "ls"), 1 + len(HOSTILE) + 4)
    tame(site.done("kel", "ls", "--fields"), 3)
    tame(site.done("kel", "ls", "--json"))
    tame(site.done("status"))
    tame(site.done("check", os.path.join(site.folder, "plant.yaml")))
    harness.wait_until("both to have shown it",
                       lambda: len(watch.out) >= 2 * len(HOSTILE) and any("%n%n%s%d" in line for line in listener.out))
    for line in watch.out + listener.out + watch.err + listener.err:
        tame(line)
    unharmed(site, gateway)


def test_texts_of_elements_are_published_as_they_are(site):
    gateway = start(site)
    site.done("dp", "set", "Out.texts", '["a"]')
    for name, text in HOSTILE.items():
        text = text[:50_000]
        escaped = "".join(c if " " <= c <= "~" and c not in '\\"' else "".join(f"\\x{byte:02x}" for byte in c.encode())
                          for c in text)
        site.done("dp", "set", "Out.text", escaped, "--escapes")

        def published(wanted=text):
            for publication in site.json("kel", "ls", "--fields")["publications"]:
                if publication["name"] == "out":
                    return ((publication["record"] or {}).get("fields") or {}).get("text", {}).get("value") == wanted
            return False
        harness.wait_until(lambda: f"{name} to be published\n" + gateway.said(), published)
        tame(site.done("kel", "sub", "out", "--count", "1", "--for", "10"))
    unharmed(site, gateway)


def test_bytes_that_are_no_text_do_no_harm(site):
    gateway = start(site)
    for number, raw in enumerate((b"\xff\xfe\x9b31m", b"a\x00b\x1b[31m", b"\xed\xa0\x80", b"\xc3")):
        site.broker.publish("in", codec.encode({"shell": ("bytes", raw)}, time_ns=NS + number))
        harness.wait_until(lambda: "an answer\n" + gateway.said(), lambda: site.get(element("shell"))["elements"][0]["value"] is not None)
        tame(site.done("dp", "get", element("shell")), 2)
        tame(site.done("dp", "get", element("shell"), "--json"))
        tame(site.done("kel", "ls", "--fields"), 3)
        tame(site.done("kel", "ls", "--json"))
    # No record at all, in the middle of everything.
    site.broker.publish("in", b"\x1b[31m%n{}\n\x00\xff")
    harness.wait_until(lambda: "a word about it\n" + gateway.said(), lambda: any("not a record" in line for line in gateway.err))
    tame(site.done("kel", "ls", "--fields"), 3)
    unharmed(site, gateway)


@pytest.mark.parametrize("text", [HOSTILE["formats"], HOSTILE["path"], HOSTILE["shell"], HOSTILE["lua"], "grüß € %C3"],
                         ids=["formats", "path", "shell", "lua", "wide"])
def test_names_of_publications_publishers_and_fields_do_no_harm(site, text):
    site.apply({"A.x": "int"}, {text: {text: "A.x"}})
    gateway = site.gateway()
    publisher = site.spawn("kelgw", "kel", "pub", text, f"{text.replace('=', '')}=int:7", "--publisher", text, "--stay")
    harness.wait_until(lambda: "the value\n" + gateway.said() + publisher.said(),
                       lambda: site.get("A.x")["elements"][0]["value"] == 7, 30)
    tame(site.done("kel", "ls", "--fields"), 2)
    tame(site.done("kel", "ls", "--json"))
    tame(site.done("kel", "sub", text, "--count", "1", "--for", "10"))
    tame(site.done("explain", "A.x"))
    tame(site.done("status"))
    unharmed(site, gateway)


def test_names_in_the_lists_are_reported_and_do_no_harm(site):
    site.apply({"A.x": "int"})
    gateway = site.gateway()
    harness.wait_until("the gateway", lambda: any("connected" in line for line in gateway.err))
    names = [text for name, text in HOSTILE.items() if name not in ("lines", "colours", "wide")]
    quoted = "[" + ", ".join(json.dumps(text) for text in names) + "]"
    site.done("dp", "set", harness.LIST, quoted)
    harness.wait_until(lambda: "a report for each\n" + gateway.said(),
                       lambda: sum("is not a valid DPE - ignoring" in line for line in gateway.out) == len(names))
    for text in names:
        assert f"ERROR: KELClientManager 114 DPE {text} is not a valid DPE - ignoring" in gateway.out, text[:80]
    site.done("dp", "set", harness.PUBLICATIONS, quoted)
    harness.wait_until(lambda: "a report for each\n" + gateway.said(),
                       lambda: sum("Badly formated publication configuration" in line for line in gateway.out) == len(names))
    for text in names:
        assert f'ERROR: kelPublicationManager 66 Badly formated publication configuration "{text}"' in gateway.out, text[:80]
    unharmed(site, gateway)


def test_the_tool_says_what_is_wrong_with_a_name_in_one_tame_line(site):
    site.apply({"A.x": "int"})
    for name, text in HOSTILE.items():
        for command in (("dp", "get", text), ("explain", text), ("dp", "set", "A.x", text), ("dp", "set", text, "1"),
                        ("kel", "sub", "p", "--for", text), ("check", text), ("apply", text),
                        ("kel", "ls", "--kel", "mqtt://" + text), ("dp", "ls", "--store", "redis://" + text)):
            code, out, err = site.tool(*command)
            assert code in (1, 2, 3), (name, command[:2], code, out[:200], err[:200])
            tame(out)
            tame(err)
            assert err.count("\n") + out.count("\n") <= 6, (name, command[:2], out[:500], err[:500])
    assert "taken" not in os.listdir(site.folder)


def test_a_plant_file_with_hostile_names_is_refused_or_applied_tamely(site):
    for name, text in HOSTILE.items():
        plant = site.write("hostile.yaml", json.dumps({"elements": {text: "int", "A.x": text}, "subscribe": {text: {text: text}}}))
        code, out, err = site.tool("apply", plant)
        assert code == 2, (name, code, out[:300], err[:300])
        tame(out)
        tame(err)
