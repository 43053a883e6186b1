"""vzclient completion: the scripts complete commands, options, choices and files."""

import shutil
import subprocess

import pytest

from command import LIMIT
from vzclient.cli.completion import commands

COMMANDS = ["alarms", "completion", "drivers", "ping", "read", "record", "replay", "sim", "watch",
            "write"]


@pytest.fixture
def folder(tmp_path):
    """A folder with a few files."""
    for name in ("one.csv", "one more.csv", "two.db"):
        (tmp_path / name).touch()
    return str(tmp_path)


@pytest.fixture
def script(vz, tmp_path_factory):
    """Gives the path of a shell's script."""
    def make(shell):
        done = vz("completion", shell)
        assert (done.code, done.err) == (0, "")
        path = tmp_path_factory.mktemp("completion") / shell
        path.write_text(done.out, encoding="utf-8")
        return str(path)
    return make


BASH = """
source "$1"; shift
COMP_WORDS=(vzclient "$@")
COMP_CWORD=$#
_vzclient 2>&1
printf '%s\\n' "${COMPREPLY[@]}"
"""


@pytest.fixture
def complete(script, folder):
    """What bash completes the last of some words with."""
    path = script("bash")

    def call(*words):
        out = subprocess.run(["bash", "--norc", "-uec", BASH, "bash", path] + list(words),
                             cwd=folder, stdout=subprocess.PIPE, encoding="utf-8", check=True,
                             timeout=LIMIT).stdout
        return sorted(line for line in out.splitlines() if line)
    return call


FILES = ["one more.csv", "one.csv", "two.db"]


@pytest.mark.parametrize("words, found", [
    ([""], COMMANDS), (["re"], ["read", "record", "replay"]), (["x"], []),
    (["--host", "read", "re"], ["read", "record", "replay"]),
    (["--host", "=", "read", "re"], ["read", "record", "replay"]),
    (["--json", "watch", "--p"], ["--password-file", "--plot"]),
    (["read", "line1", "--no"], ["--no-reconnect"]),
    (["record", "x.csv", "--rotate"], ["--rotate-age", "--rotate-size"]),
    (["completion", ""], ["bash", "fish", "zsh"]), (["completion", "z"], ["zsh"]),
    (["sim", "--c"], ["--center", "--control"]),
    (["read", "o"], []), (["--timeout", ""], []), (["replay", "--speed", ""], []),
    (["replay", ""], FILES), (["replay", "one"], FILES[:2]), (["record", "t"], ["two.db"]),
    (["--password-file", "t"], ["two.db"]), (["read", "--trace", "t"], ["two.db"]),
    (["--trace", "="], FILES), (["read", "--trace", "=", "o"], FILES[:2]),
    (["--trace", "one.csv", "comp"], ["completion"])])
def test_bash_completes(complete, words, found):
    assert complete(*words) == found


def test_bash_knows_every_option_of_every_command(complete):
    for command in commands():
        words = [command.name] if command.name else []
        names = [name for option in command.options for name in option.names]
        assert names and complete(*(words + ["-"])) == sorted(names)


def test_bash_takes_the_script_as_it_comes(vz):
    done = subprocess.run(
        ["bash", "--norc", "-uec", 'eval "$("$@" completion bash)"; complete -p vzclient', "bash"]
        + vz.line(), env=vz.environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        encoding="utf-8", timeout=LIMIT)
    assert (done.stdout, done.stderr) == ("complete -F _vzclient vzclient\n", "")


needs_fish = pytest.mark.skipif(not shutil.which("fish"), reason="fish is not installed")
needs_zsh = pytest.mark.skipif(not shutil.which("zsh"), reason="zsh is not installed")


@needs_fish
@pytest.mark.parametrize("line, found", [
    ("", COMMANDS), ("re", ["read", "record", "replay"]),
    ("--host read re", ["read", "record", "replay"]),
    ("watch --pl", ["--plot"]), ("completion ", ["bash", "fish", "zsh"]),
    ("read o", []), ("replay one", FILES[:2]), ("--password-file t", ["two.db"]),
    ("sim --c", ["--center", "--control"])])
def test_fish_completes(script, folder, line, found):
    done = subprocess.run(
        ["fish", "--no-config", "-c", "source $argv[1]; complete -C $argv[2]", script("fish"),
         "vzclient " + line], cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        encoding="utf-8", timeout=LIMIT)
    assert done.stderr == ""
    assert sorted(line.partition("\t")[0].replace("\\ ", " ")
                  for line in done.stdout.splitlines()) == found


# What the functions of zsh's completion are called with, for the first word and for each command.
ZSH = """
autoload -U compinit
compinit -u -D
source $1; shift
print $_comps[vzclient]
_describe() { print -rl -- $commands }
_arguments() {
    [[ $1 == -C ]] && state=$wanted
    [[ $state == argument && $1 == -C ]] || print -rl -- "$@"
}
wanted=command
_vzclient
wanted=argument
for name in $@; do
    words=($name)
    print -r -- '==' $name
    _vzclient
done
"""


@needs_zsh
def test_zsh_is_given_every_option_of_every_command(script):
    done = subprocess.run(
        ["zsh", "-f", "-c", ZSH, "zsh", script("zsh")] + COMMANDS, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, encoding="utf-8", timeout=LIMIT)
    assert done.stderr == ""
    parts = done.stdout.split("\n== ")
    assert parts[0].startswith("_vzclient\n")
    assert [part.partition("\n")[0] for part in parts[1:]] == COMMANDS
    given = dict(zip([""] + COMMANDS, (part.splitlines() for part in parts)))
    for command in commands():
        for option in command.options:
            for name in option.names:
                assert any(line.startswith(name + "[") for line in given[command.name])
    assert {"read:Read tags.", "1:command:->command"} <= set(given[""])
    assert "*:file:_files" in given["replay"] and "*:file:_files" not in given["read"]
    assert "*:argument:(bash zsh fish)" in given["completion"]
    assert any(line.startswith("--trace[") and line.endswith("]:file:_files")
               for line in given["read"])
