"""The instruction budget: that the module keeps to it, and that one that does not is found out."""
import json
import os
import subprocess
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BENCH = os.path.join(ROOT, "bench")
PROGRAMS = os.path.join(ROOT, "build", "release", "bench")
sys.path.insert(0, BENCH)

import budget  # noqa: E402
from budget import Profile, compare, per_run  # noqa: E402

JOBS = ("read 1 tag", "read 100 tags", "write 1 tag", "deliver 1 change")


def test_the_module_keeps_to_its_budget():
    done = subprocess.run(
        [sys.executable, os.path.join(BENCH, "budget.py"), "--programs", PROGRAMS],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8", timeout=300)
    print(done.stdout)
    assert done.returncode == 0, done.stdout
    for job in JOBS:
        assert job in done.stdout


@pytest.fixture
def counted(tmp_path, monkeypatch):
    """counted(instructions, option...) runs budget.py where a read takes so many instructions."""
    path = tmp_path / "budget.json"
    path.write_text('{"another": {"read": {"f": 1}}}')

    def run(instructions, *options):
        counts = {"read": {"f": instructions}}
        monkeypatch.setattr(budget, "count", lambda programs: ("this", counts))
        monkeypatch.setattr(sys, "argv", ["budget.py", "--programs", "-", "--budget", str(path),
                                          *options])
        budget.main()
        return json.loads(path.read_text())
    return run


def test_a_key_without_a_budget_only_reports(counted, capsys):
    assert counted(100) == {"another": {"read": {"f": 1}}}
    assert "no budget is kept under this key" in capsys.readouterr().out


def test_a_budget_that_is_renewed_is_held_to_and_others_stay(counted):
    assert counted(100, "--renew") == {"another": {"read": {"f": 1}}, "this": {"read": {"f": 100}}}
    counted(105)
    with pytest.raises(SystemExit, match="over its budget"):
        counted(106)
    assert counted(106, "--renew")["this"] == {"read": {"f": 106}}


def test_a_job_may_grow_by_five_percent():
    lines, kept = compare({"read": {"f": 105.0, "g": 0.0}}, {"read": {"f": 60.0, "g": 40.0}})
    assert kept
    assert lines == ["read                 105 instructions, budget     100: +5.0 %"]


def test_a_job_that_grows_more_fails_and_names_the_functions_that_grew():
    lines, kept = compare({"read": {"f": 30.0, "g": 40.0, "h": 36.0}, "write": {"f": 7.0}},
                          {"read": {"f": 20.0, "g": 80.0}, "write": {"f": 7.0}})
    assert not kept
    assert lines == ["read                 106 instructions, budget     100: +6.0 %",
                     "    grew: h, 36 after 0",
                     "    grew: f, 30 after 20",
                     "write                  7 instructions, budget       7: +0.0 %"]


def test_a_function_takes_the_blame_for_what_it_calls_outside_the_module(tmp_path):
    out = tmp_path / "out"
    ours = os.path.join(ROOT, "src", "nonwin", "..", "A.cpp")
    out.write_text("""events: Ir

ob=(1) /lib/module
fl=(1) %s
fn=(1) Outer()
10 7
+2 3
cfn=(2) Inner()
calls=1 50
* 25
cob=(2) /lib/libc
cfi=(2) string.c
cfn=(3) memcpy
calls=2 9
14 100

fn=(2)
50 20
cfn=(1)
calls=1 10
50 5

fl=(2)
fn=(3)
9 100

fl=(3) /usr/include/vector
fn=(4) std::vector<int>::push_back(int)
1 8
fn=(5) Inlined()
1 2
fi=(1)
4 40
fe=(3)
2 1
""" % ours)
    counts = Profile(str(out), {}).counts()
    assert counts == {"Outer()": 110, "Inner()": 20, "Inlined()": 43}
    assert per_run(counts, 40) == {"Inlined()": 1.1, "Outer()": 2.8}
