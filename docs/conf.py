"""Builds the site from README.md and docs/: `./dev docs`.

The source folder is the repository, so links between pages are the same here and on the web page
of the repository. Only the pages named in ``include_patterns`` are taken.
"""

import os
import sys
from typing import Any, Optional

from pygments.lexers.special import TextLexer

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))

project = "VzDBAccess"
author = "The VzDBAccess developers"
with open(os.path.join(ROOT, "debian", "changelog"), encoding="utf-8") as changelog:
    release = changelog.readline().partition("(")[2].partition(")")[0]

root_doc = "docs/index"
include_patterns = ["README.md", "CHANGELOG.md", "docs/**.md", "examples/README.md"]
exclude_patterns = ["build", "tests", "bench", "fuzz"]
extensions = ["myst_parser", "sphinx.ext.autodoc"]
highlight_language = "none"
myst_heading_anchors = 3

# The native module is built for one interpreter.
autodoc_mock_imports = ["_vzclient"]
autodoc_member_order = "bysource"
python_use_unqualified_type_names = True
# Types of the standard library, and what annotations name that is not for scripts.
nitpick_ignore = [("py:class", "datetime.datetime"), ("py:class", "Sink"), ("py:class", "Value")]
nitpick_ignore_regex = [("py:class", r"vzclient\.\w+\.(Item|_\w+)")]

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
