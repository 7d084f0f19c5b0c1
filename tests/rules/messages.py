"""docs/messages.md lists every text that the gateway says, and none that it does not."""

import os
import re
import sys

DECLARATION = re.compile(r'runtime::(Report|Notice|Invariant)(?:<[^>]*>)?\s+\w+\s*(?:=\s*)?\{((?:[^{}"]|"(?:\\.|[^"\\])*")*)\}')
REASON = re.compile(r'constexpr const char\* some\w+ =\s*((?:"(?:\\.|[^"\\])*"\s*)+);')
TEXT = re.compile(r'"((?:\\.|[^"\\])*)"')
ELSEWHERE = re.compile(r'\b(printf|fprintf|puts|fputs|putchar|fwrite|cout|cerr|clog)\b\s*(\(|<<)')
ROW = re.compile(r'^\|(.*)\|$')
SECTIONS = {"Error reports": ("Report", 5), "Informational lines": ("Notice", 3), "Broken invariants": ("Invariant", 4),
            "Reasons of bad publications": ("Reason", 3)}


def plain(literal):
    return literal.replace('\\"', '"').replace("\\n", "").replace("\\\\", "\\")


def said_by(sources):
    """{(kind, unit, number, text)} of every declaration; `sources` maps names to contents."""
    found = set()
    for content in sources.values():
        for kind, arguments in DECLARATION.findall(content):
            texts = [plain(text) for text in TEXT.findall(arguments)]
            number = re.search(r',\s*(\d+)\s*,', arguments)
            found.add((kind, texts[0], number.group(1) if number else "", "".join(texts[1:])))
        for literal in REASON.findall(content):
            found.add(("Reason", "", "", "".join(plain(text) for text in TEXT.findall(literal))))
    return found


def listed_in(page):
    """The same tuples as the page's tables give them, and complaints about rows that say too little."""
    found, bad, kind, columns = set(), [], None, 0
    for number, line in enumerate(page.splitlines(), 1):
        if line.startswith("## "):
            kind, columns = SECTIONS.get(line[3:].strip(), (None, 0))
            continue
        row = ROW.match(line)
        if not kind or not row or "`" not in line:
            continue
        cells = [cell.strip() for cell in re.findall(r'(?:`[^`]*`|[^|`])+', row.group(1))]
        if len(cells) != columns or not all(cells):
            bad.append(f"line {number}: {len(cells)} filled cells instead of {columns}")
            continue
        text = re.search(r'`([^`]*)`', line).group(1)
        unit = "" if kind == "Reason" else cells[0]
        found.add((kind, unit, cells[1] if kind in ("Report", "Invariant") else "", text))
    return found, bad


def differences(sources, page):
    said, (listed, bad) = said_by(sources), listed_in(page)
    for name, content in sorted(sources.items()):
        # The runtime layer is where reports are written.
        if not name.startswith("platformDependant."):
            bad += [f"{name}: says something past the reports: {match[0]}" for match in ELSEWHERE.findall(content)]
    bad += [f"not on the page: {entry}" for entry in sorted(said - listed)]
    bad += [f"on the page, but nowhere said: {entry}" for entry in sorted(listed - said)]
    return len(said), bad


def main(arguments):
    (top,) = arguments
    sources = {}
    for room in ("Sources", "PlatformDependant"):
        for name in sorted(os.listdir(os.path.join(top, room))):
            if name.endswith((".h", ".cpp")):
                with open(os.path.join(top, room, name), encoding="utf-8") as source:
                    sources[name] = source.read()
    with open(os.path.join(top, "docs", "messages.md"), encoding="utf-8") as page:
        count, bad = differences(sources, page.read())
    for line in bad:
        print(line)
    print(f"{count} messages, {len(bad)} differences")
    return 1 if bad or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
