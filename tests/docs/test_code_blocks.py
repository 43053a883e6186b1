"""Every code block of README.md and docs/ does what its page says."""

import glob
import os
import re
import shutil

import pytest

from cache import cache_folder
from pages import BlockError, PageRun, blocks_of
from script import ROOT, run as child
from vzsim import SimProcess

DOCS = os.path.join(ROOT, "docs")
PAGES = sorted(glob.glob(os.path.join(DOCS, "*.md")) + glob.glob(os.path.join(DOCS, "*", "*.md")))
PAGES.append(os.path.join(ROOT, "examples", "README.md"))
PLANT = os.path.join(DOCS, "plant.json")


def read(path):
    with open(path, encoding="utf-8") as stream:
        return stream.read()


@pytest.fixture
def run(tmp_path_factory):
    """Runs a page against a plant, by default that of the pages."""
    def run_page(path, plant=PLANT):
        with SimProcess(plant) as simulator:
            try:
                folder = str(tmp_path_factory.mktemp("page"))
                with PageRun(str(path), simulator, folder) as page:
                    page.run()
            finally:
                shutil.rmtree(cache_folder(simulator.address), True)
    return run_page


@pytest.fixture
def run_text(run, tmp_path):
    """Runs a page of the given lines."""
    def run_lines(*lines):
        page = tmp_path / "page.md"
        page.write_text("\n".join(lines) + "\n", encoding="utf-8")
        run(page)
    return run_lines


@pytest.mark.parametrize("path", PAGES, ids=lambda path: os.path.relpath(path, DOCS))
def test_the_blocks_of_a_page_run(run, path):
    run(path)


def test_the_blocks_of_the_readme_run(run):
    run(os.path.join(ROOT, "README.md"), "boiler_house")


def test_few_blocks_are_not_run():
    blocks = [block for path in PAGES for block in blocks_of(read(path))]
    assert len(blocks) > 10
    assert len([block for block in blocks if block.reason is not None]) <= 3


def test_the_reference_has_every_name_of_the_package():
    text = read(os.path.join(DOCS, "reference.md"))
    told = set(re.findall(r"\.\. auto\w+:: ([\w.]+)", text))
    names = child("import vzclient; print(*vzclient.__all__)").stdout.split()
    asynchronous = child("import vzclient.aio; print(*vzclient.aio.__all__)").stdout.split()
    assert told == set(names) - {"aio"} | set(asynchronous) | {"vzclient.aio", "vzclient.trace"}


# ---- the runner itself ----------------------------------------------------------------------


def test_names_of_a_block_are_there_in_the_next(run_text):
    run_text("```python", "level = 42", "```", "", "```python", "print(level)", "```",
             "```output", "42", "```")


def test_a_block_that_raises_fails_and_its_line_is_told(run_text):
    with pytest.raises(BlockError, match=r'(?s)line 3: .*page.md", line 5.*ZeroDivisionError'):
        run_text("# Page", "", "```python", "one = 1", "one / 0", "```")


def test_output_that_differs_fails(run_text):
    with pytest.raises(BlockError, match=r"(?s)shown is\n41\n.*printed was\n42"):
        run_text("```python", "print(42)", "```", "```output", "41", "```")


def test_three_dots_stand_for_any_text(run_text):
    run_text("```python", "print('at', 9.7, 'bar')", "```", "```output", "at ... bar", "```")


def test_output_of_nothing_fails(run_text):
    with pytest.raises(BlockError, match="output of nothing"):
        run_text("```output", "42", "```")


def test_the_host_of_a_page_is_the_simulator(run_text):
    run_text("```python", "import VzDBAccess", "db = VzDBAccess.DBCore()",
             "print(db.Connect('plant.local:8000', 'operator', 'secret'), 'plant.local:8000')",
             "del db", "```", "```output", "0 plant.local:8000", "```")


def test_a_command_of_the_simulator_serves_and_shows_its_line(run_text):
    run_text("```console", "$ vzsim docs/plant.json --port 8000",
             "vzsim: docs listening on 127.0.0.1:8000", "```")


def test_a_command_that_shows_another_line_fails(run_text):
    with pytest.raises(BlockError, match="shown is\nvzsim: other"):
        run_text("```console", "$ vzsim docs/plant.json --port 8000",
                 "vzsim: other listening on 127.0.0.1:8000", "```")


def test_a_command_that_cannot_serve_fails(run_text):
    with pytest.raises(BlockError, match="missing.json: No such file"):
        run_text("```sh", "/usr/bin/python3 -m vzsim missing.json --port 8000 &", "```")


def test_a_command_that_ends_with_an_error_fails(run_text):
    run_text("```console", "$ vzsim --help", "usage: vzsim ...", "```")
    with pytest.raises(BlockError, match="(?s)ended with 2.*missing.json"):
        run_text("```console", "$ vzsim missing.json", "```")


def test_a_program_that_is_not_known_fails(run_text):
    with pytest.raises(BlockError, match="nothing is known of the program 'rm'"):
        run_text("```sh", "apt install nothing     # known, and not run", "rm file", "```")


def test_a_verb_that_is_not_in_the_help_fails(run_text):
    with pytest.raises(BlockError, match="./dev help does not tell of './dev demolish'"):
        run_text("```sh", "./dev test --tsan", "./dev demolish", "```")


@pytest.mark.parametrize("tag, text, why", [
    ("json", '{"tick": }', "Expecting value"),
    ("ini", "User=plant", "no section headers"),
    ("ini", "[Service]", "no section with a key"),
    ("csv", "time,tag\n1", "rows of different lengths"),
    ("", "", "nothing is known of the tag ''"),
    ("pyhton", "1", "nothing is known of the tag 'pyhton'"),
    ("console", "output", "output without a command"),
])
def test_a_block_that_is_not_what_its_tag_says_fails(run_text, tag, text, why):
    with pytest.raises(BlockError, match=why):
        run_text("```" + tag, text, "```")


def test_a_block_is_left_alone_for_a_reason_only(run_text):
    run_text("<!-- not run: needs a plant -->", "```python", "1 / 0", "```")
    with pytest.raises(BlockError, match="not run, without a reason"):
        run_text("<!-- not run: -->", "```python", "1 / 0", "```")


def test_a_block_without_an_end_fails(run_text):
    with pytest.raises(BlockError, match="line 2: a block without an end"):
        run_text("", "```python", "1")
