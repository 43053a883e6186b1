"""The man page of the simulator's command tells what the command itself tells."""

import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def options_in(text):
    return set(re.findall(r"(?<!\w)--?[a-z]+", text))


def test_the_man_page_has_the_options_of_the_command():
    told = subprocess.run([sys.executable, "-m", "vzsim", "--help"], check=True,
                          stdout=subprocess.PIPE, encoding="utf-8",
                          env=dict(os.environ, PYTHONPATH=os.path.join(ROOT, "python"))).stdout
    with open(os.path.join(ROOT, "docs", "vzsim.1"), encoding="ascii") as stream:
        page = stream.read().replace("\\-", "-")
    options = options_in(told)
    assert {"--host", "-v"} <= options
    assert options_in(page.split(".SH OPTIONS")[1].split(".SH")[0]) == options
