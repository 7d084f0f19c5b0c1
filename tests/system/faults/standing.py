"""What must hold in every scenario, whatever it expects itself: when its last statement is done the load is stopped, and
then everything that is shown is held against what is true, and everything that was published is accounted for."""

import evidence
import foreign
import harness
import stale

WHILE_LOOKED_AT = 10  # seconds that what is right in the end may take beyond the scenario's own allowance

BEGINS = {"pause <process>": "pause", "fill disk": "disk", "fill memory": "memory", "take rights at <server>": "rights"}
ENDS = {"continue <process>": "pause", "free disk": "disk", "free memory": "memory", "give rights at <server>": "rights"}


def note(wrong, form, values):
    """Keeps the set of what is wrong now, by the statements that are done."""
    if form in BEGINS:
        wrong.add((BEGINS[form], *values))
    elif form in ENDS:
        wrong.discard((ENDS[form], *values))
    elif form.split()[0] in ("cut", "refuse", "delay", "throttle") and "<link>" in form:
        wrong.add(("link", values[0]))
    elif form == "heal <link>":
        wrong.discard(("link", values[0]))
    elif form.startswith(("kill", "stop <process>")):
        for name in values:
            wrong.discard(("pause", name))


def allowance_of(scenario):
    """Seconds for which something untrue may be shown as good: what the scenario says, else twice the keep-alive and 2 s."""
    for step in scenario.expectations:
        if step.form.startswith("expect nothing dead"):
            return step.values[0]
    return 2 * scenario.keep_alive + 2


def unsettled(rig):
    """Why nothing can be asked of the end, or None."""
    if rig.wrong:
        return "at the end something is wrong still: " + evidence.some(" ".join(each) for each in sorted(rig.wrong))
    for names in (("store",), ("broker",), ("gateway", "gateway2")):
        if not any(name in rig.now and rig.now[name].running() for name in names):
            return f"at the end no {names[0]} runs"
    return None


def _alive(seen, *names):
    return any(seen.lives.get(name) and seen.lives[name][-1].died is None for name in names)


def elements_true(seen):
    """Every fed element is what its living publisher handed over last, or invalid when there is none."""
    if not seen.publications:
        return
    wrong = foreign.difference(seen.foreign, seen.elements) if seen.foreign is not None else []
    if wrong:
        raise evidence.Violated(evidence.some(wrong))
    if _alive(seen, "publisher", "publisher2"):
        evidence.elements_equal(seen)
        return
    good = [element for elements in seen.fed().values() for element in elements
            if seen.elements.get(element, {}).get("i", "1") != "1"]
    if good:
        raise evidence.Violated(f"{len(good)} elements are good, and their publisher is dead: {evidence.some(good)}")


def publications_true(seen):
    """Every publication of the gateway has what its elements have, on the broker and at a subscriber."""
    if not seen.out_publications:
        return
    evidence.publications_carry(seen)
    shown = stale.shown_now(seen)
    last = evidence.last_messages(seen)
    wrong = [f"out/{index} is {shown.get(f'out/{index}')} at a subscriber, on the broker it is {message.fields['x']}"
             for index, message in last.items() if shown.get(f"out/{index}") != message.fields["x"]]
    if wrong:
        raise evidence.Violated(f"{len(wrong)} publications are shown otherwise to a subscriber: {evidence.some(wrong)}")


def true_at_the_end(seen):
    elements_true(seen)
    publications_true(seen)


def judge(rig):
    """None, or what does not hold."""
    why = unsettled(rig)
    if why:
        rig.story.append(why + ": not everything is looked at")
        return None
    try:
        rig.quiet()
        if rig.applied and (rig.evidence.publications or rig.evidence.out_publications):
            rig.within(allowance_of(rig.scenario) + WHILE_LOOKED_AT, true_at_the_end, elements=True)
        seen = rig.look(elements=True)
        # From now on what has not arrived does not arrive any more.
        seen.settled = True
        found = evidence.dead_shown_as_good(seen, allowance_of(rig.scenario) * harness.PATIENCE, rig.buffered)
        if found:
            raise evidence.Violated(f"{len(found)} times shown as good though untrue: {evidence.some(found)}")
        if seen.published:
            rig.ledger(seen)
            most = [step.values[0] for step in rig.scenario.expectations if step.form.startswith("expect lost at most")]
            evidence.lost_at_most(seen, max(most, default=0))
    except evidence.Violated as violated:
        return f"at the end: {violated}"
    return None
