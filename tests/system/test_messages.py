# SPDX-License-Identifier: MIT
"""docs/messages.md and docs/troubleshooting.md have each text of the code that people get to see, and no other one."""

import re

import pytest

from installation import TREE
from literals import defined_texts, literals

# A row of a table whose first cell is a text of the code, with its other cells.
ROW = re.compile(r"^\| `([^`]+)` \| (.*) \|$", re.MULTILINE)

CONVERSION = re.compile(r"%(?:%|[-+ #0]*\d*(?:\.\d+)?(?:hh|h|ll|l|z|j|t)?[a-zA-Z])")

PRIORITIES = {"LOG_ERR": "error", "LOG_WARNING": "warning", "LOG_INFO": "info", "LOG_DEBUG": "debug"}

# The functions that log a format, with the places of the priority and of the format among their arguments.
LOGGERS = {"syslog": (0, 1), "rate_limited_log": (1, 2)}

# What source_factory_refuse_value() adds to the problem.
VALUE = ": '%s'."

# The functions whose texts are for a terminal or for programs that inspect types, not for a log or a reply.
OTHER_FUNCTIONS = re.compile(r"g_param_spec_\w+|g_print|g_printerr|g_intern_\w+")

# What the metadata itself has: names for display, and the beginnings of XML, JSON and their continuations.
METADATA = re.compile(r'Quon \w+ motion tracker|[ <{].*|\\" UtcTime=.*')

# The files of the clients whose errors are all on the page.
CLIENT_FILES = ("client/gdpreader.cpp", "client/metadataclient.cpp", "tools/producerbus.cpp", "tools/producers.cpp")

# The function with which the metadata receiver refuses a call: an error, its kind, the text.
RECEIVER_REFUSAL, RECEIVER_TEXT = "refuse", 2

# The functions with which tessard-view refuses a request, and the file whose errors it sends.
VIEW_REFUSALS, VIEW_FILE = ("http_error", "on_done"), "switchrequest.cpp"

REPLY = "FAIL\\n"


def comparable(text):
    """A text without the kinds of its conversions and the escapes of a quotation mark."""
    return CONVERSION.sub("%s", text).replace('\\"', '"')


def sources(*folders):
    return sorted(path for folder in folders for suffix in ("cpp", "h") for path in (TREE / folder).glob(f"*.{suffix}"))


def literals_of(paths, macros):
    return [literal for path in paths for literal in literals(path.read_text(encoding="utf-8"), macros)]


def all_macros():
    macros = {}
    for path in sources("src", "common", "client", "lib", "tools", "receiver"):
        macros |= defined_texts(path.read_text(encoding="utf-8"))
    return macros


MACROS = all_macros()
DAEMON = literals_of(sources("src", "common"), MACROS)


def is_option(literal):
    return any("G_OPTION_ARG" in argument for argument in literal.arguments)


def is_message(literal):
    """Whether a literal is a text for people: words with a blank between them."""
    words = CONVERSION.sub("", literal.text)
    return (" " in literal.text and re.search(r"[A-Za-z]", words) is not None and not is_option(literal)
            and not OTHER_FUNCTIONS.fullmatch(literal.function) and not METADATA.fullmatch(literal.text))


def is_refusal(literal):
    """Whether a text of the daemon is, or is part of, a reply on the socket or an error on the bus."""
    return (literal.text.startswith(REPLY) or "G_DBUS_ERROR" in literal.arguments
            or literal.text == "No call here takes file descriptors" or literal.text.startswith("Request "))


def logged(literal):
    """The priority of a text that is the format of a line, None for other texts."""
    priority, text = LOGGERS.get(literal.function, (None, None))
    if text is None or len(literal.arguments) != text + 1 or literal.arguments[text] != "":
        return None
    return PRIORITIES.get(literal.arguments[priority])


def texts_of(page):
    rows = ROW.findall((TREE / "docs" / page).read_text(encoding="utf-8"))
    assert rows
    return [(comparable(text), cells.split(" | ")) for text, cells in rows]


MESSAGES, REFUSALS = texts_of("messages.md"), texts_of("troubleshooting.md")

LINES = {(comparable(literal.text), logged(literal)) for literal in DAEMON
         if logged(literal) is not None and re.search(r"[A-Za-z]", CONVERSION.sub("", literal.text))}
DAEMON_MESSAGES = {comparable(literal.text) for literal in DAEMON if is_message(literal) and not is_refusal(literal)}
DAEMON_REFUSALS = {comparable(literal.text) for literal in DAEMON if is_message(literal) and is_refusal(literal)}
CLIENT_ERRORS = {comparable(literal.text) for literal in literals_of([TREE / name for name in CLIENT_FILES], MACROS)
                 if is_message(literal)}
RECEIVER_ERRORS = {comparable(literal.text) for literal in literals_of(sources("receiver"), MACROS)
                   if literal.function == RECEIVER_REFUSAL and len(literal.arguments) == RECEIVER_TEXT + 1}
VIEW_ERRORS = {comparable(literal.text) for path in sources("gateways/view")
               for literal in literals(path.read_text(encoding="utf-8"), MACROS)
               if (literal.function in VIEW_REFUSALS or path.name == VIEW_FILE) and is_message(literal)
               and literal.text.endswith(".")}
ALL_REFUSALS = DAEMON_REFUSALS | CLIENT_ERRORS | RECEIVER_ERRORS | VIEW_ERRORS


def without_value(text, known):
    """The text that the code has for a text of a page."""
    problem = text.removesuffix(VALUE)
    return problem if text not in known and problem in known else text


def test_each_line_is_on_the_page_with_its_priority():
    documented = {(text, cells[0]) for text, cells in MESSAGES}

    assert LINES and LINES - documented == set()


def test_each_text_of_the_daemon_is_on_the_page():
    documented = {without_value(text, DAEMON_MESSAGES) for text, _ in MESSAGES}

    assert DAEMON_MESSAGES - documented == set()


def test_each_text_on_the_page_is_in_the_code():
    known = DAEMON_MESSAGES | {text for text, _ in LINES}

    assert {text for text, _ in MESSAGES if without_value(text, known) not in known} == set()


def test_each_refusal_is_on_the_page():
    assert DAEMON_REFUSALS and CLIENT_ERRORS and RECEIVER_ERRORS and VIEW_ERRORS
    assert ALL_REFUSALS - {text for text, _ in REFUSALS} == set()


def test_each_refusal_on_the_page_is_in_the_code():
    assert {text for text, _ in REFUSALS} - ALL_REFUSALS == set()


@pytest.mark.parametrize("rows", [MESSAGES, REFUSALS], ids=["messages", "troubleshooting"])
def test_each_text_is_on_its_page_once(rows):
    texts = [text for text, _ in rows]

    assert sorted(texts) == sorted(set(texts))


# The extraction itself


@pytest.mark.parametrize("source, expected", [
    ('syslog(LOG_INFO, "one " "text");', [("one text", "info")]),
    ('syslog(LOG_INFO,\n  "one "\n  /* a comment */ "text");', [("one text", "info")]),
    ('syslog(LOG_INFO, "with %" G_GSIZE_FORMAT " bytes");', [("with %s bytes", "info")]),
    ('rate_limited_log(find(a, b), LOG_WARNING, "left %u", 1);', [("left %s", "warning")]),
    ('rate_limited_log(&log, LOG_WARNING, "%s", "an argument");', [("%s", "warning"), ("an argument", None)]),
    ('// syslog(LOG_INFO, "a comment");\n/* syslog(LOG_INFO, "another"); */', []),
    ('fail(error, "a \\"quoted\\" text");', [('a "quoted" text', None)]),
    ("char c = '\"'; syslog(LOG_ERR, \"after a quotation mark\");", [("after a quotation mark", "error")]),
    ('fail("more than " G_STRINGIFY(MAXIMUM) " bytes");', [("more than %s bytes", None)]),
    ('#include "header.h"\nsyslog(LOG_ERR, "below " NAME);', [("below the name", "error")]),
])
def test_literals_are_found(source, expected):
    found = [(comparable(literal.text), logged(literal)) for literal in literals(source, {"NAME": "the name"})]

    assert found == expected
