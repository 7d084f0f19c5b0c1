"""Makes a copy of C++ sources in which every small change that could be made to them can be switched on.

A mutant is one small step: a statement dropped, two neighbouring statements swapped, a condition negated, a number
changed, the edge of a comparison moved. The copy holds all of them at once; the environment variable KELGW_MUTANT names
the one that is on (mutants.h). The sources are read with libclang, so that what is changed is what the compiler sees.
"""

import bisect
import os
import re

from clang.cindex import CursorKind as K
from clang.cindex import Index, TranslationUnitLoadError

LOOPS = {K.FOR_STMT, K.WHILE_STMT, K.DO_STMT, K.CXX_FOR_RANGE_STMT}
JUMPS = {K.RETURN_STMT, K.BREAK_STMT, K.CONTINUE_STMT, K.GOTO_STMT, K.CXX_THROW_EXPR}
FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.CONVERSION_FUNCTION, K.FUNCTION_TEMPLATE}
COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
LOGIC = {"&&", "||"}
NUMBER = re.compile(r"(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)[uUlLzZ]*$")
GUARD = re.compile(r"(const\s+)?SmutexGuard\s+(\w+)\((.*)\);$", re.S)


def flat(text):
    """The text on one line, without comments."""
    text = re.sub(r"//[^\n]*|/\*.*?\*/", " ", text, flags=re.S)
    return " ".join(text.split())


class Mutant:
    def __init__(self, number, path, line, function, kind, change):
        self.number, self.path, self.line = number, path, line
        self.function, self.kind, self.change = function, kind, change

    @property
    def key(self):
        return f"{self.path}: {self.function}: {self.kind}: {self.change}"


class Node:
    """A piece of a file that the copy has otherwise: `wrap` gives the new text for the new text of what is inside."""

    def __init__(self, start, end, rank, wrap, numbers):
        self.start, self.end, self.rank, self.wrap, self.numbers = start, end, rank, wrap, numbers


class File:
    """One source file with the mutants found in it."""

    def __init__(self, mutator, root, path):
        self.mutator, self.path = mutator, path
        with open(os.path.join(root, path), "rb") as file:
            self.bytes = file.read()
        self.text = self.bytes.decode("latin-1")  # a character a byte, as libclang counts
        self.lines = [0] + [i + 1 for i, c in enumerate(self.text) if c == "\n"]
        self.nodes, self.copies, self.seen = [], {}, set()

    def line_of(self, offset):
        return bisect.bisect_right(self.lines, offset)

    def in_line(self, start, end, shown):
        """The line with the piece shown otherwise."""
        begin = self.lines[self.line_of(start) - 1]
        stop = self.text.find("\n", end)
        stop = len(self.text) if stop < 0 else stop
        return flat(self.text[begin:start] + "[" + shown + "]" + self.text[end:stop])

    def mutant(self, start, function, kind, change):
        return self.mutator.add(self.path, self.line_of(start), function, kind, change)

    def node(self, start, end, rank, wrap, numbers):
        self.nodes.append(Node(start, end, rank, wrap, numbers))

    def once(self, *what):
        if what in self.seen:
            return False
        self.seen.add(what)
        return True

    def render(self, left_out):
        """The copy. Comments mark where a mutant's text begins and ends, so that errors can be traced to it."""
        nodes = [n for n in self.nodes if not set(n.numbers) <= left_out]
        nodes.sort(key=lambda n: (n.start, -n.end, n.rank))
        text, _ = self._render(nodes, 0, 0, len(self.text), left_out)
        return text

    def _render(self, nodes, first, start, end, left_out):
        out, at, i = [], start, first
        while i < len(nodes) and nodes[i].start < end:
            node = nodes[i]
            if node.start < at or node.end > end:
                raise RuntimeError(f"{self.path}:{self.line_of(node.start)}: pieces overlap")
            out.append(self.text[at:node.start])
            inner, i = self._render(nodes, i + 1, node.start, node.end, left_out)
            name = "_".join(str(n) for n in node.numbers)
            out.append(f"/*<{name}*/" + node.wrap(inner, left_out) + f"/*{name}>*/")
            at = node.end
        out.append(self.text[at:end])
        return "".join(out), i


class Mutator:
    def __init__(self, root, paths, arguments):
        self.root, self.mutants = root, {}
        self.files = {path: File(self, root, path) for path in paths}
        self.arguments = arguments
        self.constants = {}  # (file, offset of the name) -> mutants of a constant's value
        self.compile_time = 0  # pieces that only the compiler ever runs
        index = Index.create()
        units = []
        for path in paths:
            if path.endswith(".cpp"):
                units.append(self._parse(index, path))
        for unit in units:
            self._walk_unit(unit, self._find_constants)
        for unit in units:
            self._walk_unit(unit, lambda file, cursor: self._visit(file, cursor, Place()))

    def _parse(self, index, path):
        try:
            unit = index.parse(os.path.join(self.root, path), args=self.arguments)
        except TranslationUnitLoadError as error:
            raise RuntimeError(f"{path}: {error}") from error
        errors = [d for d in unit.diagnostics if d.severity >= 3]
        if errors:
            raise RuntimeError(f"{path} cannot be read: {errors[0]}")
        return unit

    def _file_of(self, cursor):
        file = cursor.extent.start.file
        if file is None:
            return None
        return self.files.get(os.path.relpath(file.name, self.root))

    def _walk_unit(self, unit, action):
        for cursor in unit.cursor.get_children():
            file = self._file_of(cursor)
            if file is not None:
                action(file, cursor)

    def add(self, path, line, function, kind, change):
        number = len(self.mutants) + 1
        self.mutants[number] = Mutant(number, path, line, function, kind, change)
        return number

    # --- constants: each gets a copy a mutant, and whoever reads it at run time chooses

    @staticmethod
    def _extent(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def _find_constants(self, file, cursor):
        if cursor.kind in FUNCTIONS and self._only_compiler(file, cursor):
            return
        if cursor.kind == K.VAR_DECL:
            start, end = self._extent(cursor)
            head = file.text[start:cursor.location.offset]
            if re.search(r"\bconstexpr\b|\bconstinit\s+const\b", head) and file.once("constant", start):
                self._constant(file, cursor, start, end)
        for child in cursor.get_children():
            self._find_constants(file, child)

    def _constant(self, file, cursor, start, end):
        name_at = cursor.location.offset
        name_end = name_at + len(cursor.spelling)
        value_at = name_end
        while file.text[value_at] == "[":
            value_at = file.text.index("]", value_at) + 1
        if "lambda" in file.text[start:name_at]:
            return
        function = self._enclosing(cursor)
        numbers = []
        for literal in cursor.walk_preorder():
            if literal.kind not in (K.INTEGER_LITERAL, K.CXX_BOOL_LITERAL_EXPR):
                continue
            at, stop = self._extent(literal)
            if at < value_at or stop > end or not file.once("number", at):
                continue
            changed = self._changed_number(file.text[at:stop])
            if changed is None:
                continue
            number = file.mutant(at, function, "number", file.in_line(at, stop, f"{file.text[at:stop]} -> {changed}"))
            copy = (file.text[start:name_at] + f"{cursor.spelling}_m{number}" + file.text[name_end:at] +
                    f"({changed})" + file.text[stop:end] + ";")
            numbers.append((number, copy))
        if not numbers:
            return
        self.constants[(file.path, name_at)] = [number for number, _ in numbers]
        semicolon = file.text.index(";", end) + 1

        def wrap(inner, left_out):
            return inner + "".join(" " + copy for number, copy in numbers if number not in left_out)

        file.node(start, semicolon, 0, wrap, [number for number, _ in numbers])
        file.copies[start] = semicolon

    @staticmethod
    def _changed_number(text):
        if text in ("true", "false"):
            return "false" if text == "true" else "true"
        match = NUMBER.match(text)
        return f"{text} + 1" if match else None

    def _read_of_constant(self, file, cursor, place):
        referenced = cursor.referenced
        if referenced is None or referenced.kind != K.VAR_DECL or referenced.location.file is None:
            return
        path = os.path.relpath(referenced.location.file.name, self.root)
        numbers = self.constants.get((path, referenced.location.offset))
        if not numbers:
            return
        start, end = self._extent(cursor)
        text = file.text[start:end]
        if not re.fullmatch(r"[\w:]+", text) or not file.once("read", start):
            return

        def wrap(inner, left_out):
            chosen = "".join(f"mutants::on<{n}>() ? {text}_m{n} : " for n in numbers if n not in left_out)
            return f"({chosen}{inner})"

        file.node(start, end, 9, wrap, numbers)

    # --- everything else

    @staticmethod
    def _enclosing(cursor):
        names, at = [], cursor.semantic_parent
        while at is not None and at.kind != K.TRANSLATION_UNIT:
            if at.kind != K.NAMESPACE and at.spelling:
                names.append(at.spelling)
            at = at.semantic_parent
        return "::".join(reversed(names)) or "-"

    @staticmethod
    def _only_compiler(file, cursor):
        start = cursor.extent.start.offset
        return bool(re.search(r"\b(constexpr|consteval)\b", file.text[start:cursor.location.offset]))

    def _visit(self, file, cursor, place):
        kind = cursor.kind
        start, end = self._extent(cursor)
        if kind in FUNCTIONS:
            if self._only_compiler(file, cursor):
                if file.once("compile time", start):
                    self.compile_time += 1
                return
            place = Place((self._enclosing(cursor) + "::" if self._enclosing(cursor) != "-" else "") + cursor.spelling)
            place.void = cursor.result_type.spelling in ("void", "")
            if kind in (K.CONSTRUCTOR, K.DESTRUCTOR):
                place.void = True
        elif kind == K.LAMBDA_EXPR:
            place = Place(place.function)
            place.void = False
        elif kind == K.VAR_DECL and start in file.copies:
            return
        elif kind == K.STATIC_ASSERT:
            return

        if kind == K.COMPOUND_STMT:
            self._compound(file, cursor, place)
            return
        if kind in (K.CASE_STMT, K.DEFAULT_STMT):
            children = list(cursor.get_children())
            for child in children[:-1]:
                pass  # the label: a constant of the compiler
            self._statement(file, children[-1], place.inner(place.tail))
            return
        if kind == K.IF_STMT:
            self._if(file, cursor, place)
            return
        if kind == K.FOR_STMT:
            self._for(file, cursor, place)
            return
        if kind == K.WHILE_STMT:
            condition, body = list(cursor.get_children())[-2:]
            self._condition(file, condition, place)
            self._visit(file, condition, place)
            self._statement(file, body, place.inner(False))
            return
        if kind == K.CONDITIONAL_OPERATOR:
            condition = next(cursor.get_children())
            self._condition(file, condition, place)
        if kind == K.BINARY_OPERATOR:
            self._binary(file, cursor, place)
        if kind in (K.INTEGER_LITERAL, K.CXX_BOOL_LITERAL_EXPR):
            self._number(file, cursor, place)
        if kind in (K.DECL_REF_EXPR, K.MEMBER_REF_EXPR):
            self._read_of_constant(file, cursor, place)
        for child in cursor.get_children():
            if child.extent.start.file is None or self._file_of(child) is not file:
                continue
            if kind in LOOPS | {K.CXX_TRY_STMT, K.CXX_CATCH_STMT, K.SWITCH_STMT} and child.kind.is_statement():
                tail = place.tail and kind not in LOOPS
                self._statement(file, child, place.inner(tail))
            else:
                self._visit(file, child, place)

    def _if(self, file, cursor, place):
        start, _ = self._extent(cursor)
        children = [c for c in cursor.get_children()]
        while children and children[0].kind in (K.DECL_STMT, K.VAR_DECL):
            self._visit(file, children.pop(0), place)
        if re.match(r"if\s+constexpr\b", file.text[start:]):
            condition, bodies = None, children[1:]
        else:
            condition, bodies = children[0], children[1:]
        if condition is not None:
            self._condition(file, condition, place)
            self._visit(file, condition, place)
        for body in bodies:
            self._statement(file, body, place.inner(place.tail))

    def _for(self, file, cursor, place):
        start, _ = self._extent(cursor)
        at, depth, semicolons = file.text.index("(", start), 0, []
        while True:
            c = file.text[at]
            depth += {"(": 1, "{": 1, "[": 1, ")": -1, "}": -1, "]": -1}.get(c, 0)
            if depth == 0:
                break
            if c == ";" and depth == 1:
                semicolons.append(at)
            at += 1
        children = list(cursor.get_children())
        for child in children[:-1]:
            begin, _ = self._extent(child)
            if semicolons[0] < begin < semicolons[1]:
                self._condition(file, child, place)
            self._visit(file, child, place)
        self._statement(file, children[-1], place.inner(False))

    def _end_of_statement(self, file, cursor):
        _, end = self._extent(cursor)
        if cursor.kind in (K.COMPOUND_STMT, K.IF_STMT, K.SWITCH_STMT, K.CXX_TRY_STMT, K.DECL_STMT) or \
                cursor.kind in LOOPS or cursor.kind in (K.CASE_STMT, K.DEFAULT_STMT):
            return end
        match = re.compile(r"(\s|//[^\n]*\n|/\*.*?\*/)*;", re.S).match(file.text, end)
        return match.end() if match else end

    def _compound(self, file, cursor, place):
        children = list(cursor.get_children())
        for i, child in enumerate(children):
            last = i + 1 == len(children)
            self._statement(file, child, place.inner(place.tail and last))
        self._swaps(file, children, place)

    def _statement(self, file, cursor, place):
        kind = cursor.kind
        start = cursor.extent.start.offset
        if kind == K.DECL_STMT:
            self._guard(file, cursor, place)
        elif self._droppable(cursor, place) and file.once("drop", start):
            end = self._end_of_statement(file, cursor)
            number = file.mutant(start, place.function, "drop", flat(file.text[start:end]))
            file.node(start, end, 1, lambda inner, _: f"{{ if (!mutants::on<{number}>()) {{ {inner} }} }}", [number])
        self._visit(file, cursor, place)

    @staticmethod
    def _droppable(cursor, place):
        if cursor.kind in (K.BREAK_STMT, K.CONTINUE_STMT):
            return True
        inner = cursor
        while inner.kind == K.UNEXPOSED_EXPR and len(list(inner.get_children())) == 1:
            inner = next(inner.get_children())
        if cursor.kind == K.RETURN_STMT or inner.kind == K.CXX_THROW_EXPR:
            return not place.tail or (place.void and inner.kind == K.CXX_THROW_EXPR)
        return cursor.kind.is_expression()

    def _guard(self, file, cursor, place):
        start, end = self._extent(cursor)
        match = GUARD.match(file.text[start:end])
        if match is None or not file.once("drop", start):
            return
        number = file.mutant(start, place.function, "drop", flat(file.text[start:end]))
        name, lock = match.group(2), match.group(3)
        file.node(start, end, 1,
                  lambda inner, _: f"const mutants::Maybe<SmutexGuard> {name}(!mutants::on<{number}>(), {lock});",
                  [number])

    def _swaps(self, file, children, place):
        run = []
        for child in children + [None]:
            plain = child is not None and child.kind not in (
                K.DECL_STMT, K.NULL_STMT, K.CASE_STMT, K.DEFAULT_STMT, K.LABEL_STMT) and \
                child.kind not in JUMPS and not self._is_throw(child)
            if plain:
                run.append(child)
                continue
            if len(run) > 1:
                self._swaps_of(file, run, place)
            run = []

    @staticmethod
    def _is_throw(cursor):
        while cursor.kind == K.UNEXPOSED_EXPR and len(list(cursor.get_children())) == 1:
            cursor = next(cursor.get_children())
        return cursor.kind == K.CXX_THROW_EXPR

    def _swaps_of(self, file, run, place):
        pieces = [(c.extent.start.offset, self._end_of_statement(file, c)) for c in run]
        if not file.once("swap", pieces[0][0]):
            return
        texts = [file.text[a:b] for a, b in pieces]
        if any("//" in t and not t.endswith("}") and "\n" not in t for t in texts):
            return
        numbers, ways = [], []
        for i in range(len(texts) - 1):
            number = file.mutant(pieces[i][0], place.function, "swap",
                                 f"{shortened(texts[i])} <-> {shortened(texts[i + 1])}")
            order = texts[:i] + [texts[i + 1], texts[i]] + texts[i + 2:]
            numbers.append(number)
            ways.append((number, "\n".join(order)))

        def wrap(inner, left_out):
            out = ""
            for number, text in ways:
                if number not in left_out:
                    out += f"if (mutants::on<{number}>()) {{ /*<{number}*/{text}/*{number}>*/ }} else "
            return f"{{ {out}{{ {inner} }} }}"

        file.node(pieces[0][0], pieces[-1][1], 0, wrap, numbers)

    def _condition(self, file, cursor, place):
        start, end = self._extent(cursor)
        if cursor.kind in (K.DECL_STMT, K.VAR_DECL) or not file.once("negate", start, end):
            return
        text = file.text[start:end]
        if text in ("true", "false"):
            return
        number = file.mutant(start, place.function, "negate", file.in_line(start, end, "not: " + flat(text)))
        file.node(start, end, 3, lambda inner, _: f"(mutants::on<{number}>() != static_cast<bool>({inner}))", [number])

    def _binary(self, file, cursor, place):
        left, right = cursor.get_children()
        middle = flat(file.text[left.extent.end.offset:right.extent.start.offset])
        operator = middle.strip("() ")
        start, end = self._extent(cursor)
        if operator in LOGIC:
            self._condition(file, left, place)
            self._condition(file, right, place)
        if operator in COMPARISONS or operator in ("==", "!="):
            self._condition(file, cursor, place)
        if operator in COMPARISONS and file.once("edge", start, end):
            other = COMPARISONS[operator]
            at = file.text.index(operator, left.extent.end.offset)
            number = file.mutant(start, place.function, "edge",
                                 file.in_line(at, at + len(operator), f"{operator} -> {other}"))
            changed = file.text[start:at] + other + file.text[at + len(operator):end]
            file.node(start, end, 4, lambda inner, _: f"(mutants::on<{number}>() ? ({changed}) : ({inner}))", [number])

    def _number(self, file, cursor, place):
        start, end = self._extent(cursor)
        text = file.text[start:end]
        changed = self._changed_number(text)
        if changed is None or not file.once("number", start):
            return
        number = file.mutant(start, place.function, "number", file.in_line(start, end, f"{text} -> {changed}"))
        file.node(start, end, 9, lambda inner, _: f"(mutants::on<{number}>() ? ({changed}) : {inner})", [number])


def shortened(text):
    text = flat(text)
    return text if len(text) <= 60 else text[:57] + "..."


class Place:
    """Where in a function the walk is: its name, whether it returns nothing, whether what is here comes last in it."""

    def __init__(self, function="-"):
        self.function, self.void, self.tail = function, False, True

    def inner(self, tail):
        place = Place(self.function)
        place.void, place.tail = self.void, tail
        return place
