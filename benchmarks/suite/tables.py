# SPDX-License-Identifier: MIT
"""Tables in Markdown, and the goals with what was measured."""

import typing


class Table(typing.NamedTuple):
    """A title, the names of the columns, and rows of as many texts."""

    title: str
    columns: tuple
    rows: list

    def text(self):
        lines = [f"### {self.title}", "", row_text(self.columns), row_text(["---"] * len(self.columns))]
        return "\n".join([*lines, *map(row_text, self.rows)]) + "\n"


class Goal(typing.NamedTuple):
    """A figure and the most that it may be; the estimate of what it is, or None if it was not measured."""

    figure: str
    limit: float
    measured: typing.Any
    unit: str = ""
    digits: int = 2

    def is_met(self):
        return self.measured is not None and self.measured.median <= self.limit

    def row(self):
        unit = f" {self.unit}" if self.unit else ""
        limit = f"at most {self.limit:g}{unit}"
        if self.measured is None:
            return (self.figure, limit, "not measured", "", "")
        return (self.figure, limit, self.measured.text(self.digits) + unit, self.measured.interval_text(self.digits),
                "met" if self.is_met() else "**not met**")


class Fit(typing.NamedTuple):
    """Points through which a straight line is laid: what they are, over which variable, in which unit, and why they
    may lie beside the line."""

    figure: str
    variable: str
    unit: str
    points: list
    why: str


def row_text(cells):
    return "| " + " | ".join(str(cell).replace("|", "\\|") for cell in cells) + " |"


def goal_table(goals):
    return Table("Goals", ("figure", "goal", "measured", "interval", ""), [goal.row() for goal in goals])


def microseconds(seconds):
    return f"{seconds * 1e6:.1f}"


def milliseconds(seconds):
    return f"{seconds * 1e3:.2f}"


def bytes_text(size):
    """A length as people say it: 200 B, 10 KB."""
    return f"{size // 1024} KB" if size >= 1024 else f"{size} B"
