"""Finds the small changes that scripts/mutate tries: in C++ by libclang, in bash by its words."""
import difflib
import hashlib
import json
import os
import pathlib
import re
import sys

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

COMPARISONS = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<"], ">=": [">", "<="],
               "==": ["!="], "!=": ["=="]}
SWAPS = {**COMPARISONS, "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"],
         "&&": ["||"], "||": ["&&"], "+=": ["-="], "-=": ["+="]}

# What makes a comparison a length check, and the functions that are one as a whole: each of these
# has to exist, so that a new name of theirs is noticed here.
LENGTH_WORDS = re.compile(
    r"size|length|count(?!\(\))|remaining|capacity|total|chunk|width|offset|used_|needed|grown|npos"
    r"|kMax|kMost|kBuffer|kLengthBytes|position_|components|\bn\b|\bmore\b|\bend\b|\bgot\b|index",
    re.IGNORECASE)
LENGTH_FUNCTIONS = {
    "net": {"Copy", "Grow", "ReceiveLine", "ReceiveRest", "UnPack", "remaining"},
    "relay": {"MakeRoom", "Room", "UnPack", "UnPackGroups", "UnPackNumbers", "UnPackTexts"},
    "vk_ec": {"RecvMessage", "check_count", "check_length", "finalize", "receive_chunk",
              "remaining", "take"},
}

# Nobody can see room that is made ahead of time.
UNSEEN_CALLS = re.compile(r"(\.|->)reserve\(")


class Mutant:
    def __init__(self, root, file, begin, end, kind, replacement, length_check):
        self.root, self.file = root, file
        self.begin, self.end = begin, end
        self.kind = kind
        self.replacement = replacement
        self.length_check = length_check
        source = (root / file).read_bytes()
        self.original = source[begin:end].decode()
        self.line = source[:begin].count(b"\n") + 1
        column = begin - source.rfind(b"\n", 0, begin)
        # Lines above may come and go: the text around tells the place.
        around = source[max(0, begin - 60):end + 60]
        self.place = f"{file}:{self.line}:{column}"
        self.id = hashlib.sha1(
            f"{file}|{kind}|{replacement}|".encode() + around).hexdigest()[:10]

    @property
    def folder(self):
        return self.file.split("/")[0]

    def changed(self):
        source = (self.root / self.file).read_bytes()
        return source[:self.begin] + self.replacement.encode() + source[self.end:]

    def diff(self):
        before = (self.root / self.file).read_text()
        lines = list(difflib.unified_diff(before.splitlines(), self.changed().decode().splitlines(),
                                          lineterm="", n=0))[2:]
        return "\n".join(f"    {line}" for line in lines)


class Finder:
    """Collects what can be changed in one file."""

    def __init__(self, root, file):
        self.root, self.file = root, file
        self.source = (root / file).read_bytes()
        self.mutants = {}
        self.functions = set()

    def add(self, begin, end, kind, replacement, length_check=False):
        mutant = Mutant(self.root, self.file, begin, end, kind, replacement, length_check)
        if mutant.original != replacement:
            self.mutants.setdefault((begin, end, replacement), mutant)


class CodeFinder(Finder):
    """Walks the syntax tree of a C++ file."""

    def __init__(self, root, file, index):
        super().__init__(root, file)
        self.index = index
        self.length_functions = LENGTH_FUNCTIONS.get(file.split("/")[0], set())

    def find(self):
        unit = self.index.parse(str(self.root / self.file),
                                args=["-x", "c++", "-std=c++20", f"-I{self.root}", "-w",
                                      "-DBOOST_ASIO_DISABLE_CO_AWAIT", '-DJOBMILL_VERSION="0"'])
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            sys.exit(f"{self.file}: {errors[0].spelling}")
        for cursor in unit.cursor.get_children():
            self.visit(cursor, [], False, "")

    def here(self, cursor):
        start = cursor.extent.start
        return start.file and os.path.samefile(start.file.name, self.root / self.file)

    def text(self, cursor):
        return self.source[cursor.extent.start.offset:cursor.extent.end.offset].decode()

    def visit(self, cursor, parents, length, function):
        if parents == [] and not self.here(cursor):
            return
        if cursor.kind in (Kind.STATIC_ASSERT, Kind.INCLUSION_DIRECTIVE):
            return
        if cursor.kind in (Kind.CXX_METHOD, Kind.FUNCTION_DECL, Kind.CONSTRUCTOR,
                           Kind.FUNCTION_TEMPLATE, Kind.DESTRUCTOR):
            function = cursor.spelling.split("<")[0]
            self.functions.add(function)
        text = self.text(cursor)
        if cursor.kind == Kind.CALL_EXPR and cursor.spelling == "reserve":
            return
        if cursor.kind == Kind.IF_STMT and re.search(r"\)\s*[\w.>-]+reserve\(.*\)$", text):
            return
        operator = self.operator(cursor)
        if operator and operator[0] in COMPARISONS and LENGTH_WORDS.search(text):
            length = True
        length = length or function in self.length_functions
        if operator:
            self.swap(operator, length)
        self.literal(cursor, text, length)
        self.negation(cursor, text, length)
        self.condition(cursor, length)
        self.statement(cursor, text, parents, length)
        self.returned(cursor, length, parents)
        for child in cursor.get_children():
            self.visit(child, parents + [cursor], length, function)

    def operator(self, cursor):
        """(operator, offset) of a binary expression, built in or overloaded."""
        children = list(cursor.get_children())
        if cursor.kind == Kind.CALL_EXPR and cursor.spelling.startswith("operator"):
            operands = [c for c in children if c.spelling != cursor.spelling]
            if len(operands) != 2:
                return None
            children = operands
        elif cursor.kind not in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR,
                                 Kind.UNEXPOSED_EXPR):
            return None
        if len(children) != 2:
            return None
        children.sort(key=lambda c: c.extent.start.offset)
        begin, end = children[0].extent.end.offset, children[1].extent.start.offset
        between = self.source[begin:end].decode()
        operator = between.strip()
        if operator not in SWAPS:
            return None
        return operator, begin + between.index(operator)

    def swap(self, operator, length):
        word, offset = operator
        kind = ("comparison" if word in COMPARISONS else
                "logic" if word in ("&&", "||") else "arithmetic")
        for other in SWAPS[word]:
            self.add(offset, offset + len(word), kind, other, length)

    def literal(self, cursor, text, length):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        if cursor.kind == Kind.INTEGER_LITERAL:
            match = re.fullmatch(r"(0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)", text)
            if match:
                value = int(match[1], 8 if re.fullmatch(r"0[0-7]+", match[1]) else 0)
                self.add(begin, end, "literal", f"{value + 1}{match[2]}", length)
                if value > 0:
                    self.add(begin, end, "literal", f"{value - 1}{match[2]}", length)
        elif cursor.kind == Kind.FLOATING_LITERAL and re.fullmatch(r"[0-9.]+", text):
            self.add(begin, end, "literal", f"{float(text) + 1}", length)
        elif cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            self.add(begin, end, "literal", "false" if text == "true" else "true", length)

    def negation(self, cursor, text, length):
        if cursor.kind == Kind.UNARY_OPERATOR:
            begin, end = cursor.extent.start.offset, cursor.extent.end.offset
            if text.startswith("!"):
                self.add(begin, begin + 1, "logic", "", length)
            for word, other in (("++", "--"), ("--", "++")):
                if text.startswith(word):
                    self.add(begin, begin + 2, "arithmetic", other, length)
                elif text.endswith(word):
                    self.add(end - 2, end, "arithmetic", other, length)

    def condition(self, cursor, length):
        """The condition of an `if` or a loop that is no comparison: its opposite."""
        if cursor.kind not in (Kind.IF_STMT, Kind.WHILE_STMT):
            return
        first = next(iter(cursor.get_children()), None)
        if first is None or not first.kind.is_expression() or self.operator(first):
            return
        text = self.text(first)
        if text in ("true", "false") or text.startswith("!"):
            return
        self.add(first.extent.start.offset, first.extent.end.offset, "logic", f"!({text})", length)

    def statement(self, cursor, text, parents, length):
        """A call or an assignment that stands alone: left out."""
        if not parents:
            return
        while cursor.kind == Kind.UNEXPOSED_EXPR and text == self.text(cursor):
            children = list(cursor.get_children())
            if len(children) != 1 or self.text(children[0]) != text:
                break
            cursor = children[0]
        alone = parents[-1].kind == Kind.COMPOUND_STMT or (
            parents[-1].kind in (Kind.IF_STMT, Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT)
            and self.source[cursor.extent.end.offset:cursor.extent.end.offset + 1] == b";"
            and self.source[:cursor.extent.start.offset].rstrip()[-1:] in (b")", b"e"))
        assignment = cursor.kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR)
        if alone and (assignment or cursor.kind in (Kind.CALL_EXPR, Kind.UNARY_OPERATOR)):
            if not UNSEEN_CALLS.search(text):
                self.add(cursor.extent.start.offset, cursor.extent.end.offset, "statement",
                         "(void)0", length)

    def returned(self, cursor, length, parents):
        if cursor.kind != Kind.RETURN_STMT:
            return
        value = next(iter(cursor.get_children()), None)
        if value is None or self.operator(value):
            return
        text = self.text(value)
        kind = value.type.get_canonical().kind
        if kind == TypeKind.BOOL and text not in ("true", "false") and not text.startswith("!"):
            other = f"!({text})"
        elif kind in (TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG,
                      TypeKind.LONGLONG) and not re.fullmatch(r"-?[0-9]+", text):
            other = f"({text}) + 1"
        elif kind == TypeKind.DOUBLE:
            other = f"({text}) + 1"
        elif kind == TypeKind.RECORD and text != "{}" and not text.startswith("*"):
            other = "{}"
        elif kind == TypeKind.POINTER and text != "nullptr":
            other = "nullptr"
        else:
            return
        self.add(value.extent.start.offset, value.extent.end.offset, "returned value", other,
                 length)


# Words of bash, looked for outside of quotes, and what each becomes.
SCRIPT_WORDS = [(kind, re.compile(pattern), other) for kind, pattern, other in (
    ("comparison", r"(?<= )(==|!=)(?= )", {"==": "!=", "!=": "=="}),
    ("comparison", r"(?<= )-[zn](?= )", {"-z": "-n", "-n": "-z"}),
    # Nothing ends by a status: after `|| true` there is only the reader.
    ("logic", r"(?<= )(&&|\|\|)(?= (?!true\b))", {"&&": "||", "||": "&&"}),
    ("logic", r"(?<![\w$!])! ", ""),
    ("flag", r"(?<= )-- ", ""),
    ("flag", r"(?<= )--?[a-zA-Z][a-zA-Z-]*(=\S+)? ", ""),
    ("redirection", r"(\d|\{\w+\}|(?<= ))(&?>>?|<)(/dev/null|&\d|&-)(?= |$|\))", ""),
    ("returned value", r"(?<=return )1", "0"),
)]
SCRIPT_QUOTES = re.compile(r'(?<=[ (])"\$[^" ]+"')
# Within (( )).
SCRIPT_ARITHMETIC = re.compile(r"<=|>=|==|!=|\+\+|--|<|>|\+|(?<=\w )-|\*|\b\d+\b")
# A line that is one statement and no part of a larger one; after the pattern of a `case`, too.
SCRIPT_STATEMENT = re.compile(
    r" *(?!(?:if|for|while|until|case|esac|fi|done|then|do|else|elif)\b|local [a-z_ ]*$|[})]|\w+\(\))"
    r"(?:[^() ]+\) )?([^ ].*?)(?: ;;)?$")


class ScriptFinder(Finder):
    """Goes through a bash script line by line."""

    def find(self):
        offset, continued = 0, False
        for line in self.source.decode().splitlines(keepends=True):
            code = re.sub(r"(^|\s)#.*", "", line.rstrip("\n"))
            if code.strip() and code.count("'") % 2 == 0:  # else a text goes on in the next line
                self.line(code, offset, continued)
            continued = code.endswith(("\\", "||", "&&"))
            offset += len(line.encode())

    def line(self, code, offset, continued):
        bare = re.sub(r"'[^']*'|\"(\\.|[^\"])*\"", lambda text: "\0" * len(text[0]), code)
        for kind, pattern, other in SCRIPT_WORDS:
            for found in pattern.finditer(bare):
                self.add(offset + found.start(), offset + found.end(), kind,
                         other[found[0]] if isinstance(other, dict) else other)
        for found in SCRIPT_QUOTES.finditer(code):
            # In a comparison nothing is split.
            if code[:found.start()].count("[[") == code[:found.start()].count("]]"):
                self.add(offset + found.start(), offset + found.end(), "quotes", found[0][1:-1])
        for expression in re.finditer(r"\(\((.*?)\)\)", bare):
            begin = offset + expression.start(1)
            for found in SCRIPT_ARITHMETIC.finditer(expression[1]):
                kind, others = self.in_arithmetic(found[0])
                for other in others:
                    self.add(begin + found.start(), begin + found.end(), kind, other)
        condition = re.match(r" *(?:if|elif|while|until) (?!! |true)", code)
        if condition:
            self.add(offset + condition.end(), offset + condition.end(), "logic", "! ")
        statement = SCRIPT_STATEMENT.match(code)
        if statement and not continued and not code.endswith(("\\", "{", "(", "||", "&&", "|")):
            self.add(offset + statement.start(1), offset + statement.end(1), "statement", ":")

    @staticmethod
    def in_arithmetic(word):
        if word.isdigit():
            return "literal", [str(int(word) + step) for step in (1, -1) if int(word) + step >= 0]
        if word in COMPARISONS:
            return "comparison", COMPARISONS[word]
        return "arithmetic", {"++": ["--"], "--": ["++"]}.get(word) or SWAPS[word]


class Found:
    """What was found in each file, by its content: reading them all takes minutes."""

    def __init__(self, path):
        self.path = path
        self.index = cindex.Index.create()
        self.own = pathlib.Path(__file__).read_bytes()
        self.known = json.loads(path.read_text()) if path.exists() else {}

    def in_file(self, root, file):
        """(mutants, functions)"""
        content = hashlib.sha1(self.own + file.encode() + (root / file).read_bytes()).hexdigest()
        if content not in self.known:
            finder = (CodeFinder(root, file, self.index) if file.endswith((".cc", ".h"))
                      else ScriptFinder(root, file))
            finder.find()
            self.known[content] = {
                "functions": sorted(finder.functions),
                "mutants": [(m.begin, m.end, m.kind, m.replacement, m.length_check)
                            for m in finder.mutants.values()]}
            self.path.write_text(json.dumps(self.known))
        known = self.known[content]
        return [Mutant(root, file, *each) for each in known["mutants"]], set(known["functions"])


def find_mutants(root, folders, cache):
    """All mutants of `folders`. Ends the program when a function that is named above is gone."""
    found = Found(cache)
    mutants = []
    for folder, looked_at in folders.items():
        functions = set()
        for file in sorted(root.joinpath(looked_at).rglob("*")):
            if file.suffix in (".cc", ".h") or (folder == "deploy" and file.is_file()):
                here, named = found.in_file(root, str(file.relative_to(root)))
                mutants += here
                functions |= named
        missing = LENGTH_FUNCTIONS.get(folder, set()) - functions
        if missing:
            sys.exit(f"{folder} has no {', '.join(sorted(missing))}: see LENGTH_FUNCTIONS")
    return mutants
