# SPDX-License-Identifier: MIT
"""The string literals of C++ sources, with the call that each is an argument of."""

import re
import typing

TOKEN = re.compile(r"""
    (?P<skipped>//[^\n]*|/\*.*?\*/|^[ \t]*\#[ \t]*include[^\n]*|\s+|\\\n)
  | (?P<literal>(?:u8|[LuU])?"(?:[^"\\\n]|\\.)*")
  | (?P<character>'(?:[^'\\\n]|\\.)+')
  | (?P<name>[A-Za-z_]\w*)
  | (?P<number>\.?\d(?:'?[\w.])*)
  | (?P<other>.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

# Macros of GLib with a part of a format.
FORMATS = {"G_GUINT64_FORMAT": "lu", "G_GSIZE_FORMAT": "lu", "G_GINT64_FORMAT": "ld"}

# A number that the preprocessor makes a text.
NUMBER = re.compile(r"G_STRINGIFY\(\w+\)")

OPENING, CLOSING = "([{", ")]}"


class Literal(typing.NamedTuple):
    """A literal after concatenation, with the escapes of the source, and the innermost call around it."""

    text: str
    function: str  # its name, empty outside of a call
    arguments: tuple  # the tokens of each earlier argument


def tokens(source):
    """The tokens of a source without comments, as (kind, text). Fails at an unfinished literal."""
    for match in TOKEN.finditer(source):
        if match.lastgroup != "skipped":
            assert match.lastgroup != "other" or match[0] not in "\"'", source[match.start():match.start() + 80]
            yield match.lastgroup, match[0]


def defined_texts(source):
    """The macros of a source whose value is a single literal, with that literal."""
    return dict(re.findall(r'^#define (\w+) +"((?:[^"\\\n]|\\.)*)"$', source, re.MULTILINE))


def join(items, macros):
    """Joins literals that follow each other, also with a macro of a text between them."""
    joined = []
    for kind, text in items:
        if kind == "literal":
            kind, text = "text", text[text.index('"') + 1:-1]
        elif kind == "name" and text in macros and joined and joined[-1][0] == "text":
            kind, text = "text", macros[text]
        if kind == "text" and joined and joined[-1][0] == "text":
            joined[-1] = ("text", joined[-1][1] + text)
        else:
            joined.append((kind, text))
    return joined


def literals(source, macros):
    """All literals of a source; `macros` has texts of macros that literals are joined with."""
    found = []
    calls = [("", [[]])]
    previous = ("other", "")
    for kind, text in join(tokens(NUMBER.sub('"%u"', source)), FORMATS | macros):
        if kind == "text":
            function, arguments = calls[-1]
            found.append(Literal(text, function, tuple(" ".join(argument) for argument in arguments)))
        if text in OPENING and kind == "other":
            calls.append((previous[1] if text == "(" and previous[0] == "name" else "", [[]]))
        elif text in CLOSING and kind == "other":
            calls.pop()
            calls[-1][1][-1].append("...")
        elif text == "," and kind == "other":
            calls[-1][1].append([])
        else:
            calls[-1][1][-1].append(text)
        previous = (kind, text)
    assert len(calls) == 1, "each bracket is closed"
    return found
