"""Builds the site from README.md and docs/: `./dev docs`.

The source folder is the repository, so links between pages are the same here and on the web page
of the repository. Only the pages named in ``include_patterns`` are taken.
"""

import importlib.util
import os
import sys
from typing import Any, Optional

from pygments.lexers.special import TextLexer

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [os.path.join(ROOT, "python"), os.path.join(ROOT, "build", "python")]

project = "VzDBAccess"
author = "The VzDBAccess developers"
with open(os.path.join(ROOT, "debian", "changelog"), encoding="utf-8") as changelog:
    release = changelog.readline().partition("(")[2].partition(")")[0]

root_doc = "docs/index"
include_patterns = ["README.md", "CHANGELOG.md", "docs/**.md"]
exclude_patterns = ["build", "tests", "bench", "fuzz"]
extensions = ["myst_parser", "sphinx.ext.autodoc"]
highlight_language = "none"
myst_heading_anchors = 3

# The native module is compiled for one interpreter and machine; its docstrings are in Python.
if importlib.util.find_spec("_vzclient") is None:
    autodoc_mock_imports = ["_vzclient"]
autodoc_member_order = "bysource"
autodoc_typehints = "description"

html_theme = "alabaster"
html_theme_options = {"fixed_sidebar": True, "page_width": "1060px",
                      "show_powered_by": False}
html_show_sourcelink = False
html_copy_source = False


def enter_at_the_top(app: Any, error: Optional[Exception]) -> None:
    """Write the page that leads from the site's top folder to its first page."""
    if error is None and app.builder.name == "html":
        with open(os.path.join(app.outdir, "index.html"), "w", encoding="ascii") as page:
            page.write('<!DOCTYPE html><title>%s</title><meta http-equiv="refresh" '
                       'content="0; url=%s.html">\n' % (project, root_doc))


def setup(app: Any) -> None:
    app.add_lexer("csv", TextLexer)
    app.connect("build-finished", enter_at_the_top)
