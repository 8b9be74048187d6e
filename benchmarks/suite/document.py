#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Writes the results of a run into docs/performance.md, and its plots beside it.

  document.py RESULTS"""

import json
import pathlib
import sys

sys.dont_write_bytecode = True

import bench

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
TEXT = "performance.md"
BEGIN, END = "<!-- figures -->\n", "<!-- end of figures -->\n"


def machine_text(results):
    """The machine, the versions and the effort of a run."""
    lines = [f"- {name}: {value}" for name, value in results["machine"].items() if value]
    whole = sum(results["seconds"].values()) / 60
    return "\n".join([f"{results['pairs']} pairs on {results['date']}, in {whole:.1f} minutes:", "", *lines]) + "\n"


def write(results, docs):
    """Replaces what is between the two marks of the page, and the plots."""
    head, rest = (docs / TEXT).read_text(encoding="utf-8").split(BEGIN)
    _, tail = rest.split(END)
    pictures = bench.draw_plots(results["benchmarks"])
    links = [f"![The curves of {name}](performance-{name}.svg)\n" for name in pictures]
    for name, picture in pictures.items():
        (docs / f"performance-{name}.svg").write_text(picture, encoding="utf-8")
    body = "\n".join([machine_text(results), bench.report(results["benchmarks"]), *links])
    (docs / TEXT).write_text(f"{head}{BEGIN}\n{body}\n{END}{tail}", encoding="utf-8")


def main():
    if len(sys.argv) != 2:
        return __doc__
    write(json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")), DOCS)
    return 0


if __name__ == "__main__":
    sys.exit(main())
