"""A short run of the bench: every row is there, and so are the results and the document."""
import json
import os
import subprocess
import sys
import xml.etree.ElementTree as ET

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BENCH = os.path.join(ROOT, "bench")
PROGRAMS = os.path.join(ROOT, "build", "release", "bench")
IMPORTED = [os.path.join(ROOT, "build", "python"), PROGRAMS]
sys.path.insert(0, BENCH)

import report  # noqa: E402

ROWS = {  # the sides of each job, besides the module
    "read 1 tag": {"floor", "plain"},
    "read 10 tags": {"floor", "plain"},
    "read 100 tags": {"floor", "kept", "plain"},
    "read 1000 tags": {"floor", "kept", "plain"},
    "read 1 subscribed tag": {"floor"},
    "read 1000 subscribed tags": {"floor"},
    "write 1 tag": {"floor", "plain"},
    "write 100 tags": {"floor", "plain"},
    "first lookup of 10,000 names": {"floor", "plain"},
    "read 1 tag, Chinese names": {"ascii"},
    "read 10 tags, Chinese names": {"ascii"},
    "read 100 tags, Chinese names": {"ascii"},
    "read 1000 tags, Chinese names": {"ascii"},
    "read 1 subscribed tag, Chinese name": {"ascii"},
    "write 1 tag, Chinese name": {"ascii"},
    "deliver a change": {"floor", "cached", "plain"},
    "deliver a change, 1000 tags in turn": {"floor"},
    "deliver a change, Chinese name": {"ascii"},
    "changes while the script is busy": {"floor", "cached"},
    "connect, beyond 18 ms of pauses": set(),
    "del db": set(),
    "import": {"floor"},
    "memory of the import": {"floor"},
    "vzclient: read 1 tag": {"older"},
    "vzclient: read 10 tags": {"older", "dict"},
    "vzclient: read 100 tags": {"older", "dict"},
    "vzclient: read 1000 tags": {"older", "dict"},
    "vzclient: changes iterated over": set(),
    "vzclient: changes to a callback": set(),
    "vzclient: import": set(),
}


@pytest.fixture(scope="module")
def run(tmp_path_factory):
    """What a run of one short round printed, and its results."""
    path = tmp_path_factory.mktemp("bench") / "results.json"
    done = subprocess.run(
        [sys.executable, os.path.join(BENCH, "bench.py"), "--programs", PROGRAMS, "--json",
         str(path), "--rounds", "1", "--seconds", "0.001", "--sizes", "1", "10"],
        env=dict(os.environ, PYTHONPATH=os.pathsep.join(IMPORTED)),
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8", timeout=300)
    assert done.returncode == 0, done.stdout
    return done.stdout, json.loads(path.read_text(encoding="utf-8"))


def test_each_job_is_measured_with_all_its_sides(run):
    jobs = run[1]["jobs"]
    assert {name: set(job["sides"]) - {"module"} for name, job in jobs.items()} == ROWS
    for job in jobs.values():
        for side in job["sides"].values():
            assert 0 < side["min"] <= side["median"] <= side["max"]
        assert set(job["ratios"]) == set(job["sides"]) - {"module"}
        assert job["aim"]["met"] in (True, False)


def test_each_job_has_its_row(run):
    lines = run[0].splitlines()
    for name, sides in ROWS.items():
        yardsticks = sides & set(report.YARDSTICKS)
        shown = [line for line in lines if line.startswith(name + "  ")]
        assert len(shown) == max(1, len(yardsticks)), name


def test_a_tag_has_its_cost_by_number_of_tags(run):
    per_tag = run[1]["per_tag"]
    assert set(per_tag) == {"resolve", "subscribe", "read", "write", "deliver"}
    for sides in per_tag.values():
        for by_size in sides.values():
            assert list(by_size) == ["1", "10"]


def test_the_document_gets_the_table_and_keeps_the_rest(run):
    before = "head\n" + report.BEGIN + "old\n" + report.END + "tail\n"
    renewed = report.document(run[1], before)
    assert renewed.startswith("head\n" + report.BEGIN)
    assert renewed.endswith(report.END + "tail\n")
    assert "old" not in renewed
    for name in ROWS:
        assert "| %s |" % name in renewed
    assert report.document(run[1], renewed) == renewed


def test_the_plot_has_a_line_for_each_operation_and_its_floor(run):
    svg = ET.fromstring(report.plot(run[1]["per_tag"]))
    lines = svg.iter("{http://www.w3.org/2000/svg}polyline")
    shown = sum(len(sides) for sides in run[1]["per_tag"].values())
    assert len(list(lines)) == shown + len(run[1]["per_tag"]) + 1  # and those of the legend


def test_numbers_have_three_figures_that_count():
    assert [report.number(figure) for figure in (0.03876, 1.254, 12.54, 125.4, 12541.2, 0)] \
        == ["0.0388", "1.25", "12.5", "125", "12,541", "0"]
