"""Judges of the expectations that troubles.py asks about; as those of evidence.py they start nothing and ask nobody, and
each is shown a planted violation (test_verdicts.py)."""

import evidence
from evidence import Violated, some


def one_owner(number, owners, running):
    """`number`: process that holds the manager number; `owners`: publication -> process that publishes it, None for one that
    is not alive; `running`: name -> process."""
    name = next((name for name, process in running.items() if process == number and name.startswith("gateway")), None)
    if name is None:
        raise Violated(f"the manager number is held by process {number}, and these run: {running}")
    if not owners:
        raise Violated("the broker keeps no record of any outgoing publication")
    others = {publication: process for publication, process in owners.items() if process != number}
    if others:
        names = {process: name for name, process in running.items()}
        told = [f"{publication} by {names.get(process, process or 'nobody alive')}" for publication, process in others.items()]
        raise Violated(f"{name} has the manager number, and {len(others)} of {len(owners)} publications are published by "
                       f"others: {some(told)}")


def publications_bad(seen, within):
    """Seconds from the last loss until every outgoing publication said that it is bad, and none has said otherwise since."""
    at, _, what = seen.losses[-1]
    bad = {}
    for message in seen.messages_since(at):
        index = int(message.publication.split("/")[-1])
        if message.quality == 1:
            bad.pop(index, None)
        else:
            bad.setdefault(index, message.at)
    missing = [f"out/{index}" for index in range(seen.out_publications) if index not in bad]
    if missing:
        raise Violated(f"{len(missing)} of {seen.out_publications} publications are good since {what}: {some(missing)}")
    took = max(bad.values()) - at
    if took > within:
        raise Violated(f"the last publication was declared bad {took:.2f} s after {what}")
    return took


def odd_publication(name, good, record, element):
    """`record`: what the broker keeps of it, or None; `element`: its state in the store, {} when it is gone."""
    if record is None:
        raise Violated(f"the broker keeps no record of odd/{name}")
    value = record.fields.get("v", (None, None))[1]
    if not good:
        if record.quality == 1:
            raise Violated(f"odd/{name} is shown as good, with {short(value)}; its element is {short(element)}")
        return
    if record.quality != 1:
        raise Violated(f"odd/{name} is bad, and its element is {short(element)}")
    if str(value) != element.get("v"):
        raise Violated(f"odd/{name} has {short(value)}, and its element is {short(element)}")


def short(thing):
    text = str(thing)
    return text if len(text) <= 80 else f"{text[:60]}... ({len(text)} characters)"


def large_record(element, text):
    if element.get("v") != text or element.get("i") != "0":
        raise Violated(f"a text of {len(text)} characters was published, and the element is {short(element)}")


def moved_elements(wanted, states):
    """`wanted`: element -> number, or None when it is mapped onto what nobody publishes."""
    wrong = []
    for element, number in wanted.items():
        state = states.get(element, {})
        if number is None and state.get("i") != "1":
            wrong.append(f"{element} is mapped onto what nobody publishes, and shows {state.get('v')} as good")
        elif number is not None and (state.get("v") != str(number) or state.get("i") != "0"):
            wrong.append(f"{element} is {state.get('v')} invalid {state.get('i', '1')}, and {number} was published last where it "
                         f"is mapped onto now")
    if wrong:
        raise Violated(f"{len(wrong)} of {len(wanted)} moved elements are wrong: {some(wrong)}")


def moved_publications(wanted, records):
    """`wanted`: publication -> state of its element; `records`: publication -> what the broker keeps of it."""
    wrong = [f"{name} was never on the list, and the broker keeps a record of it" for name in records if name not in wanted]
    for name, state in wanted.items():
        record = records.get(name)
        if record is None:
            wrong.append(f"{name} has no record")
        elif record.quality != 1 or str(record.fields.get("v", (None, None))[1]) != state.get("v"):
            wrong.append(f"{name} carries {record.fields} with quality {record.quality}, and its element has {state.get('v')}")
    if wrong:
        raise Violated(f"{len(wrong)} publications of the changing list are wrong: {some(wrong)}")


def ended_by_itself(name, codes, code):
    if not codes:
        raise Violated(f"{name} has not ended by itself")
    others = [each for each in codes if each != code]
    if others:
        raise Violated(f"{name} has ended by itself with {some(others)}, and {code} was expected")


def forgotten_above(seen, least):
    books = evidence.account(seen)
    if books.forgotten <= least:
        raise Violated(f"{books.forgotten} records are counted as forgotten: {books}")
