"""What the load consists of: the kinds of publications in both directions, and what stands in each field under a number.

Besides the busy publications, which a scenario asks for, every load has some that are not busy; they come behind the busy
ones, in the order of QUIET and OUT_QUIET. load_publisher.cpp and writer.py send the same; the values are agreed upon here and
there, and what arrives is held against these."""

LIFE_NUMBERS = 100_000_000
START_MS = 1_700_000_000_000

# once: one record at the start and never again. early: five records, before anything is done to anybody. hushed: goes on
# until the first fault has begun and falls silent in it, so that its newest value is one of the fault's own.
QUIET = ("once", "once", "early", "hushed", "hushed", "typed", "large")
OUT_QUIET = ("once", "hushed", "typed", "large")

PLAIN = {"n": "int", "a": "int", "b": "int"}
TYPED = {"n": "int", "bit": "bit", "byte": "bit32", "short": "int", "long": "int", "float": "float", "double": "float",
         "text": "text", "bits": "dyn_bit", "bytes": "dyn_bit32", "shorts": "dyn_int", "ints": "dyn_int", "longs": "dyn_int",
         "floats": "dyn_float", "doubles": "dyn_float", "texts": "dyn_text"}
LARGE = {"n": "int", "text": "text", "ints": "dyn_int"}
FIELDS = {"typed": TYPED, "large": LARGE}

OUT_PLAIN = {"x": "int", "y": "int"}
OUT_TYPED = {**OUT_PLAIN, "bit": "bit", "char": "char", "uint": "uint", "bit32": "bit32", "float": "float", "text": "text",
             "bits": "dyn_bit", "ints": "dyn_int", "floats": "dyn_float", "texts": "dyn_text"}
OUT_LARGE = {**OUT_PLAIN, "text": "text"}
OUT_FIELDS = {"typed": OUT_TYPED, "large": OUT_LARGE}

LARGE_TEXT = 50_000
LARGE_INTS = 5_000
OUT_LARGE_TEXT = 70_000


def kinds(busy):
    """The kind of each publication, by its index."""
    return ["busy"] * busy + list(QUIET) if busy else []


def out_kinds(busy):
    return ["busy"] * busy + list(OUT_QUIET) if busy else []


def fields(kind):
    """tag -> type of its element"""
    return FIELDS.get(kind, PLAIN)


def out_fields(kind):
    return OUT_FIELDS.get(kind, OUT_PLAIN)


def number_of_time(time_ms):
    """The number whose record has this source time, or None: a time of the wall clock belongs to no number."""
    number = time_ms - START_MS
    return number if LIFE_NUMBERS <= number < 100 * LIFE_NUMBERS else None


def _netstrings(texts):
    return "".join(f"{len(text.encode())}:{text}" for text in texts)


def _listed(values):
    return ",".join(str(value) for value in values)


def _large_text(number, size):
    word = f"{number} "
    return (word * (size // len(word) + 1))[:size]


def _typed(number):
    near = [number, number + 1, number + 2]
    return {"n": str(number), "bit": str(number % 2), "byte": str(number % 256), "short": str(number % 30_000),
            "long": str(number), "float": f"{number % 100_000}.5", "double": f"{number}.25", "text": f"Größe {number}",
            "bits": _listed(one % 2 for one in near), "bytes": _listed(one % 256 for one in near),
            "shorts": _listed(-(one % 30_000) for one in near), "ints": _listed(-one for one in near),
            "longs": _listed(near), "floats": _listed(f"{one % 100_000}.5" for one in near),
            "doubles": _listed(f"-{one}.25" for one in near), "texts": _netstrings(["", f"ä, {number}", "7:x"])}


def texts(kind, number):
    """tag -> the text of its element in the store, when the record with this number was the last one"""
    if kind == "typed":
        return _typed(number)
    if kind == "large":
        return {"n": str(number), "text": _large_text(number, LARGE_TEXT),
                "ints": _listed(range(number, number + LARGE_INTS))}
    return dict.fromkeys(PLAIN, str(number))


def out_texts(kind, number):
    """tag -> the text that the writer gives to its element under this number"""
    plain = {"x": str(number), "y": str(number)}
    if kind == "typed":
        near = [number, number + 1]
        plain.update({"bit": str(number % 2), "char": str(65 + number % 26), "uint": str(number), "bit32": str(number),
                      "float": f"{number % 100_000}.5", "text": f"Größe {number}", "bits": _listed(one % 2 for one in near),
                      "ints": _listed(-one for one in near), "floats": _listed(f"{one % 100_000}.5" for one in near),
                      "texts": _netstrings(["", f"ä, {number}"])})
    if kind == "large":
        plain["text"] = _large_text(number, OUT_LARGE_TEXT)
    return plain


def out_values(kind, number):
    """tag -> what a reader of the publication finds in its field under this number"""
    plain = {"x": number, "y": number}
    if kind == "typed":
        near = [number, number + 1]
        plain.update({"bit": number % 2 == 1, "char": chr(65 + number % 26), "uint": number, "bit32": number,
                      "float": number % 100_000 + 0.5, "text": f"Größe {number}", "bits": [one % 2 == 1 for one in near],
                      "ints": [-one for one in near], "floats": [one % 100_000 + 0.5 for one in near],
                      "texts": ["", f"ä, {number}"]})
    if kind == "large":
        plain["text"] = _large_text(number, OUT_LARGE_TEXT)
    return plain
