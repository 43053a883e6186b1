"""The man pages of the commands tell what the commands themselves tell."""

import os
import re
import subprocess
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def options_in(text):
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", text))


def help_of(*command):
    paths = [os.path.join(ROOT, "python"), os.path.join(ROOT, "build", "python")]
    told = subprocess.run([sys.executable, "-m"] + list(command) + ["--help"], check=True,
                          stdout=subprocess.PIPE, encoding="utf-8",
                          env=dict(os.environ, PYTHONPATH=os.pathsep.join(paths))).stdout
    return options_in(told)


def page_of(name):
    with open(os.path.join(ROOT, "docs", name), encoding="ascii") as stream:
        return stream.read().replace("\\-", "-")


def section(page, title):
    return page.split(".SH %s\n" % title)[1].split(".SH")[0]


def test_the_man_page_has_the_options_of_the_simulator():
    options = help_of("vzsim")
    assert {"--host", "-v"} <= options
    assert options_in(section(page_of("vzsim.1"), "OPTIONS")) == options


def test_the_man_page_has_the_common_options_of_the_client():
    options = help_of("vzclient")
    assert {"--host", "--password-file", "--version", "-v"} <= options
    assert options_in(section(page_of("vzclient.1"), "OPTIONS")) == options


def commands():
    """The text of each command's part of the man page."""
    parts = section(page_of("vzclient.1"), "COMMANDS").split(".SS ")[1:]
    return {re.match(r"\"?(\w+)", part).group(1): part for part in parts}


def test_the_man_page_has_all_commands_of_the_client():
    from vzclient.cli.options import MODULES
    assert list(commands()) == list(MODULES)


@pytest.mark.parametrize("name", [
    "drivers", "read", "write", "watch", "alarms", "ping", "record", "replay", "completion"])
def test_the_man_page_has_the_options_of_each_command(name):
    common = options_in(section(page_of("vzclient.1"), "OPTIONS"))
    told = options_in(commands()[name])
    options = help_of("vzclient", name)
    assert told - common == options - common
    assert told <= options
