# SPDX-License-Identifier: MIT
"""A parser of OpenMetrics text for the tests, which is strict about what the format demands."""

import re
import typing

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
HEAD = re.compile(rf"# (TYPE|UNIT|HELP) ({NAME})(?: (.*))?")
SAMPLE = re.compile(rf"({NAME})(?:\{{(.*)\}})? (-?[0-9]+(?:\.[0-9]+)?)")
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\["\\n])*)"(,|$)')
ESCAPES = {"\\n": "\n", '\\"': '"', "\\\\": "\\"}

# The types that the older text format knows too, and the ends of their samples' names.
SUFFIXES = {"counter": "_total", "gauge": ""}


class Family(typing.NamedTuple):
    """A metric with its samples: values by their labels, each a name and a value."""

    kind: str
    unit: str
    help: str
    samples: dict


def unescape(text):
    return re.sub(r'\\[n"\\]', lambda match: ESCAPES[match[0]], text)


def parse_labels(text):
    labels, place = {}, 0
    while place < len(text or ""):
        match = LABEL.match(text, place)
        assert match, f"malformed labels {text!r}"
        assert match[1] not in labels, f"{match[1]} is there twice"
        labels[match[1]] = unescape(match[2])
        place = match.end()
        assert match[3] == "" or place < len(text), f"a comma ends {text!r}"
    return frozenset(labels.items())


def parse(data):
    """Returns the families of a text by their names."""
    text = data.decode("utf-8")
    assert text.endswith("\n# EOF\n") and text.count("# EOF") == 1
    families, heads, name = {}, {}, None
    for line in text.removesuffix("# EOF\n").removesuffix("\n").split("\n"):
        head = HEAD.fullmatch(line)
        if head:
            if head[2] != name:
                name = head[2]
                assert name not in families, f"{name} is there twice"
                heads, families[name] = {}, Family("", "", "", {})
            assert not families[name].samples and head[1] not in heads, line
            heads[head[1]] = head[3] or ""
            families[name] = Family(heads.get("TYPE", ""), heads.get("UNIT", ""), unescape(heads.get("HELP", "")), {})
            continue
        sample = SAMPLE.fullmatch(line)
        assert sample, f"malformed line {line!r}"
        family = families[name]
        assert sample[1] == name + SUFFIXES[family.kind], line
        labels = parse_labels(sample[2])
        assert labels not in family.samples, f"{line!r} is there twice"
        family.samples[labels] = float(sample[3])
        assert family.kind != "counter" or family.samples[labels] >= 0
    for name, family in families.items():
        assert family.kind in SUFFIXES and family.help, name
        assert family.unit == "" or name.endswith("_" + family.unit), name
        assert not name.endswith(("_total", "_info", "_created", "_bucket", "_sum", "_count")), name
    return families


def values(data):
    """The samples by the names of their families and their sorted labels, for comparisons."""
    return {name: {tuple(sorted(labels)): value for labels, value in family.samples.items()}
            for name, family in parse(data).items()}
