"""The documentation's examples run: the ```python blocks of each page, in order, in one namespace
per page (a block whose first line is `# not run` is skipped). A print() whose source line ends in
a comment must print that comment's text, whitespace aside, so the outputs the pages show stay true."""
import io
import re
import sys
import textwrap
import tokenize
from pathlib import Path

import numpy as np
import pytest

from helpers import GPUS
from pymoira._core import moira

DOCS = Path(__file__).resolve().parents[2] / "docs"
FENCE = re.compile(r"^(?P<indent>[ \t]*)```python[^\n]*\n(?P<body>.*?)^(?P=indent)```", re.S | re.M)


def python_blocks(page):
    """(first line number, source) of each block of the page that runs."""
    text = page.read_text(encoding="utf-8")
    for m in FENCE.finditer(text):
        body = textwrap.dedent(m.group("body"))
        if not body.lstrip().startswith("# not run"):
            yield text.count("\n", 0, m.start("body")) + 1, body


def trailing_comments(source):
    """{line: comment text} for the comments that follow code on a print() line."""
    found = {}
    for tok in tokenize.generate_tokens(io.StringIO(source).readline):
        if tok.type == tokenize.COMMENT and tok.line[: tok.start[1]].strip() and "print(" in tok.line:
            found[tok.start[0]] = tok.string[1:].strip()
    return found


PAGES = [p for p in sorted(DOCS.rglob("*.md")) if any(python_blocks(p))]


@pytest.mark.skipif(GPUS > 0, reason="the pages show a process without stand-in GPUs")
@pytest.mark.parametrize("page", PAGES, ids=[str(p.relative_to(DOCS)) for p in PAGES])
def test_page_examples(page):
    printed = {}  # (page, line) -> what print() wrote there

    def recording_print(*args, **kwargs):
        caller = sys._getframe(1)
        out = io.StringIO()
        print(*args, **{**kwargs, "file": out})
        key = (caller.f_code.co_filename, caller.f_lineno)
        printed[key] = printed.get(key, "") + out.getvalue()

    namespace = {"__name__": "__doc_example__", "print": recording_print}
    name = str(page.relative_to(DOCS))
    options = np.get_printoptions()
    try:
        for first_line, source in python_blocks(page):
            # padded so that tracebacks and the checks below give the page's own line numbers
            exec(compile("\n" * (first_line - 1) + source, name, "exec"), namespace)
            for line, expected in trailing_comments(source).items():
                line += first_line - 1
                assert (name, line) in printed, f"{name} line {line}: print() did not run"
                assert " ".join(printed[(name, line)].split()) == " ".join(expected.split()), f"{name} line {line}"
    finally:
        moira.set_blas(moira.blas_available())
        np.set_printoptions(**options)
