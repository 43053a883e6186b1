"""The code blocks of a page: found in its Markdown, and run as their tags say.

``python``         runs; the blocks of a page share one namespace in one child interpreter
``output``         what the block before has printed; "..." stands for any text
``console``        commands behind "$ ", each with the output that it shows, if any
``sh``             commands, one a line
``json ini csv``   are parsed
``text``           is left alone

Of commands, those of ``vzclient`` and ``vzsim`` run; others must be known, and are not run. A
comment ``<!-- not run: reason -->`` on the line before a block leaves it alone.
"""

import configparser
import csv
import doctest
import json
import os
import re
import select
import shlex
import subprocess
import sys
from typing import IO, Any, List, NamedTuple, Optional, Tuple

from script import ROOT, TIME_SCALE, Script, ScriptError, environment
from vzsim import SimProcess

# A page names its server by one of these, and gets the address of the simulator in its place.
HOSTS = ("plant.local:8000", "127.0.0.1:8000", "127.0.0.1:8080")

# Programs that change the machine, or what the reader does with files of his own.
NOT_RUN = {"apt", "dpkg", "env/bin/pip", "env/bin/python", "export", "meson", "ninja", "python3",
           "scp", "systemctl", "journalctl", "install", "venv"}
OURS = ("vzclient", "vzsim")

_FENCE = re.compile(r"```+(\S*)")
_NOT_RUN = re.compile(r"<!-- not run(.*)-->")

# Run in the child: a block's code, at its line of the page, so a traceback shows the page.
_CHILD = r'''
import io, traceback
page = {"__name__": "__main__"}
def run_block(code, path, line):
    sys.stdout = io.StringIO()
    try:
        exec(compile("\n" * line + code, path, "exec"), page)
    except BaseException:
        raise AssertionError(sys.stdout.getvalue() + traceback.format_exc())
    return sys.stdout.getvalue()
'''

Block = NamedTuple("Block", [
    ("tag", str), ("text", str), ("line", int), ("reason", Optional[str])])


class BlockError(Exception):
    """A block does not do what its page says; the text names page and line."""


def blocks_of(text: str) -> List[Block]:
    """The fenced blocks of a page in order; ``line`` is that of the opening fence, from 1.

    ``reason`` says why a block is not run, None for one that is.
    """
    found = []  # type: List[Block]
    lines = text.split("\n")
    start = None  # type: Optional[int]
    for number, line in enumerate(lines):
        fence = _FENCE.match(line)
        if not fence:
            continue
        if start is None:
            start, tag = number, fence.group(1)
        else:
            excuse = _NOT_RUN.match(lines[start - 1]) if start else None
            found.append(Block(tag, "\n".join(lines[start + 1:number]) + "\n", start + 1,
                               excuse.group(1).strip(": ") if excuse else None))
            start = None
    if start is not None:
        raise BlockError("line %d: a block without an end" % (start + 1))
    return found


def commands_of(block: Block) -> List[Tuple[str, str]]:
    """The commands of a block with the output shown below each, empty when none is shown."""
    found = []  # type: List[Tuple[str, str]]
    text = block.text.replace("\\\n", " ")
    for line in text.splitlines(True):
        if block.tag == "console" and not line.startswith("$ "):
            if not found:
                raise BlockError("line %d: output without a command" % block.line)
            found[-1] = (found[-1][0], found[-1][1] + line)
        elif line.strip():
            found.append((line[2:].strip() if block.tag == "console" else line.strip(), ""))
    return found


def words_of(command: str) -> List[str]:
    """The words of a command, without a comment and the "&" at its end."""
    words = shlex.split(command, comments=True)
    return words[:-1] if words[-1] == "&" else words


def program_of(command: str) -> str:
    """The program of a command; one of ours also when the interpreter runs it by ``-m``."""
    words = words_of(command)
    if os.path.basename(words[0]) != "python3":
        return words[0]
    return words[2] if words[1:2] == ["-m"] else "python3"


def fits(shown: str, printed: str) -> bool:
    """Whether the output is what is shown; "..." stands for any text."""
    return doctest.OutputChecker().check_output(shown, printed, doctest.ELLIPSIS)


class PageRun:
    """Runs the blocks of one page against one simulator; a context manager."""

    def __init__(self, path: str, simulator: SimProcess, folder: str) -> None:
        """``folder`` is empty and becomes the working folder of all that the page starts."""
        with open(path, encoding="utf-8") as stream:
            self.text = stream.read()
        self.path = path
        self._address = simulator.address
        self._shown = next((host for host in HOSTS if host in self.text), HOSTS[0])
        self._folder = folder
        self._printed = None  # type: Optional[str]
        self._servers = []  # type: List[subprocess.Popen[bytes]]
        for name in ("docs", "build", "python", "examples"):
            os.symlink(os.path.join(ROOT, name), os.path.join(folder, name))
        # As the service manager hands a service its secrets: one file for each.
        secrets = os.path.join(folder, "credentials")
        os.mkdir(secrets)
        with open(os.path.join(secrets, "password"), "w") as stream:
            stream.write("secret\n")
        self._script = Script(CREDENTIALS_DIRECTORY=secrets)
        self._script(_CHILD)
        self._script("os.chdir(%r)" % folder)

    def __enter__(self) -> "PageRun":
        return self

    def __exit__(self, *error: Any) -> None:
        try:
            self._script.__exit__(*error)
        finally:
            for server in self._servers:
                server.terminate()
                server.communicate()

    def run(self) -> None:
        """Run all blocks; BlockError names the first that fails."""
        for block in blocks_of(self.text):
            try:
                self._run_block(block)
            except (BlockError, ScriptError, ValueError, configparser.Error) as error:
                raise BlockError("%s, line %d: %s" % (self.path, block.line, error))

    def _run_block(self, block: Block) -> None:
        if block.reason is not None:
            if not block.reason:
                raise BlockError("not run, without a reason")
        elif block.tag == "python":
            self._printed = self._run_python(block)
        elif block.tag == "output":
            self._compare(block.text, self._printed)
        elif block.tag in ("console", "sh"):
            for command, shown in commands_of(block):
                self._run_command(command, shown)
        elif block.tag == "json":
            json.loads(block.text)
        elif block.tag == "ini":
            parse_ini(block.text)
        elif block.tag == "csv":
            if len({len(row) for row in csv.reader(block.text.splitlines())}) != 1:
                raise BlockError("rows of different lengths")
        elif block.tag != "text" and not block.tag.startswith("{"):
            raise BlockError("nothing is known of the tag %r" % block.tag)

    def _run_python(self, block: Block) -> str:
        code = block.text.replace(self._shown, self._address)
        printed = self._script("run_block(%r, %r, %d)" % (code, self.path, block.line))
        return str(printed).replace(self._address, self._shown)

    def _compare(self, shown: str, printed: Optional[str]) -> None:
        if printed is None:
            raise BlockError("output of nothing")
        if not fits(shown, printed):
            raise BlockError("shown is\n%s\nbut printed was\n%s" % (shown, printed))

    def _run_command(self, command: str, shown: str) -> None:
        program = program_of(command)
        if program == "./dev":
            check_verb(command)
        elif program == "vzsim" and "--port" in command:
            self._compare(shown or "...", self._serve(command))
        elif program in OURS:
            self._compare(shown or "...", self._finish(command))
        elif program not in NOT_RUN:
            raise BlockError("nothing is known of the program %r" % program)

    def _start(self, command: str) -> "subprocess.Popen[bytes]":
        """Start a command of ours; its program is that of this tree."""
        program = program_of(command)
        words = words_of(command.replace(self._shown, self._address))
        return subprocess.Popen(
            [sys.executable, "-m", program] + words[words.index(program) + 1:],
            cwd=self._folder, env=environment(), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def _finish(self, command: str) -> str:
        process = self._start(command)
        try:
            printed = process.communicate(timeout=60 * TIME_SCALE)[0].decode("utf-8")
        except subprocess.TimeoutExpired:
            process.kill()
            printed = process.communicate()[0].decode("utf-8")
            raise BlockError("%s does not end\n%s" % (command, printed))
        if process.returncode != 0:
            raise BlockError("%s ended with %d\n%s" % (command, process.returncode, printed))
        return printed.replace(self._address, self._shown)

    def _serve(self, command: str) -> str:
        """Start a simulator on a free port until the page ends; returns its first line."""
        port = command.split("--port ")[1].split()[0]
        process = self._start(command.replace("--port " + port, "--port 0"))
        self._servers.append(process)
        line = first_line(process.stdout, 20 * TIME_SCALE)
        if " listening on " not in line:
            raise BlockError("%s: %s" % (command, line))
        return re.sub(r":\d+\n", ":%s\n" % port, line)


def first_line(stream: Optional[IO[bytes]], timeout: float) -> str:
    """The first line of a process, empty when none comes in ``timeout`` seconds."""
    assert stream is not None
    return stream.readline().decode("utf-8") if select.select([stream], [], [], timeout)[0] else ""


def parse_ini(text: str) -> configparser.ConfigParser:
    """An ini text that has sections and keys; configparser.Error or ValueError otherwise."""
    parser = configparser.ConfigParser(strict=False, delimiters="=", interpolation=None)
    parser.optionxform = str  # type: ignore
    parser.read_string(text)
    if not any(parser[section] for section in parser.sections()):
        raise ValueError("no section with a key")
    return parser


def check_verb(command: str) -> None:
    """Check that a command of ./dev, with the options that it names, stands in its help."""
    text = subprocess.run([os.path.join(ROOT, "dev"), "help"], check=True,
                          stdout=subprocess.PIPE, encoding="utf-8").stdout
    told = [set(re.split(r"[\s;,]+", line)) for line in text.splitlines()]
    verb = words_of(command)[1:]
    if not verb or not any({"./dev"} | set(verb) <= line for line in told):
        raise BlockError("./dev help does not tell of %r" % command)
