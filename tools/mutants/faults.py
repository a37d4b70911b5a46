"""Where a C++ source can be broken by a little: every place, and what stands there instead.

Nothing is parsed. Comments, preprocessor lines, assertions for the compiler and what is only logged are blanked out first; what
then looks like an operator, a constant or a statement by itself mostly is one, because the formatter has laid it out. What
is none does not compile, and does not count.
"""

import collections
import re

# file   below the tree
# start  where in its text, and `end`
# new    what stands there then
Fault = collections.namedtuple("Fault", "file start end new kind")

TOKENS = re.compile(r"""//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|(?<!\w)'(?:\\.|[^'\\\n])*'""",
                    re.S | re.M)
LOGGED = re.compile(r'"\[[A-Z]+\] ')  # a log line begins with its level
NOT_RUN = re.compile(r'static_assert\([^;]*;|\benum\b[^;{]*\{[^}]*\}|extern "\x01*"|\boperator\W+\(')
SWAPPED = {
    "comparison": {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"},
    "logic": {"&&": "||", "||": "&&"},
    "arithmetic": {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "<<": ">>", ">>": "<<", "+=": "-=",
                   "-=": "+=", "|=": "&=", "&=": "|="},
}
STATEMENT = re.compile(r"[*]*\w+(?:::\w+)*(?:(?:\.|->|::)\w+|\[[^\]]*\]|\([^()]*\))*\s*(?:[-+*/%|&^]?= |\(|\+\+|--)[^;{}]*;")
NO_STATEMENT = re.compile(r"(?:return|if|while|for|switch|case|delete|using|sizeof|defined)\b|.*= (?:default|delete);")
ROW = re.compile(r"(?m)^ *(?:\{.*\}|\"\x01+\"),$")
LINK = re.compile(r"(?m)^ *\.\w+\(.*\)$|(?<=\n) *\.\w+\(.*\)(?=;$)|(?<=\))\.\w+\([^()]*\)(?=\.\w+\()")  # of a chain of calls
# How often a kind is drawn. There are far more constants and literals than logic.
WEIGHTS = {"statement": 22, "comparison": 14, "constant": 12, "logic": 9, "negation": 9, "return": 8, "arithmetic": 6, "boolean": 6,
           "row": 5, "jump": 4, "key": 5}


def blanked(text):
    return re.sub(r"[^\n]", " ", text)


def call_around(code, at):
    """Where the call begins and ends whose argument stands there."""
    depth, start = 1, at
    while start > 0 and depth:
        start -= 1
        depth += {")": 1, "(": -1}.get(code[start], 0)
    end, depth = start + 1, 1
    while end < len(code) and depth:
        depth += {"(": 1, ")": -1}.get(code[end], 0)
        end += 1
    return start - len(re.search(r"[\w:.>-]*$", code[:start]).group()), end


def code_of(text):
    """The text in its length without what a fault would not change; of literals only the quotes are left."""
    filled = lambda token: (token[0] + "\x01" * (len(token) - 2) + token[-1] if token[0] in "\"'" else blanked(token))
    code = TOKENS.sub(lambda match: filled(match.group()), text)
    for match in LOGGED.finditer(text):
        if code[match.start()] == '"':
            start, end = call_around(code, match.start())
            code = code[:start] + blanked(code[start:end]) + code[end:]
    return NOT_RUN.sub(lambda match: blanked(match.group()), code)


def places(code, text):
    """Kind, start, end and the new text of each."""
    for match in re.finditer(r"(?<= )[-=!<>+*/%&|]{1,2}(?= )", code):
        for kind, swapped in SWAPPED.items():
            if match.group() in swapped:
                yield kind, *match.span(), swapped[match.group()]
    for match in re.finditer(r"(?<![\w!])!(?=[\w(:*])", code):
        yield "negation", *match.span(), ""
    for match in re.finditer(r"\b(true|false)\b", code):
        yield "boolean", *match.span(), "false" if match.group() == "true" else "true"
    for match in re.finditer(r"(?<![\w.'\x01])\d+(?![\w.'\x01])", code):
        extent = code[match.start() - 1] == "[" and re.match(r"\][;,)\[]| = ", code[match.end():])
        if not extent:
            yield "constant", *match.span(), str(int(match.group()) + 1)
            if int(match.group()) > 1:
                yield "constant", *match.span(), str(int(match.group()) - 1)
    for match in re.finditer(r"\breturn ((?!true;|false;|\d+;|\{\};)[^;{}]+);", code):
        yield "return", *match.span(1), "{}"
    for match in re.finditer(r"\b(break|continue);", code):
        yield "jump", *match.span(), ";"
    for match in ROW.finditer(code):
        yield "row", *match.span(), ""
    for match in LINK.finditer(code):
        yield "statement", *match.span(), ""
    for match in re.finditer(r"(?m)(?:[;{}):]|\belse|^)\s*\n( *)(?=[\w*])", code):
        statement = STATEMENT.match(code, match.end(1))
        if statement and not NO_STATEMENT.match(statement.group()):
            yield "statement", *statement.span(), ";"
    for match in re.finditer(r'"\x01{2,}"', code):
        if re.fullmatch(r'"[A-Za-z]\w+"', text[match.start():match.end()]):
            yield "key", match.end() - 1, match.end() - 1, "x"


def drawn(sources, random):
    """Faults of the sources, a dictionary of file and text, in an order that `random` decides; each once."""
    kinds = {kind: [] for kind in WEIGHTS}
    for file, text in sorted(sources.items()):
        for kind, start, end, new in places(code_of(text), text):
            kinds[kind].append(Fault(file, start, end, new, kind))
    for faults in kinds.values():
        random.shuffle(faults)
    while any(kinds.values()):
        left = [kind for kind in WEIGHTS if kinds[kind]]
        yield kinds[random.choices(left, [WEIGHTS[kind] for kind in left])[0]].pop()
