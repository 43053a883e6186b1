"""The command ``completion``: scripts by which shells complete the command line.

They are made from the parser's tree. An argument that is called FILE is completed as a file.
"""

import argparse
import shlex
import sys
from typing import Dict, Iterable, List, NamedTuple, Tuple

from . import options as _options
from .output import put

Parsers = Dict[str, argparse.ArgumentParser]


class Option(NamedTuple):
    """An option: its names, its help, whether a value follows, and whether that is a file."""

    names: Tuple[str, ...]
    text: str
    valued: bool
    file: bool


class Command(NamedTuple):
    """A command; that without a name is vzclient itself. ``words`` and ``files``: what its
    arguments may be."""

    name: str
    text: str
    options: List[Option]
    words: List[str]
    files: bool


def completion(options: _options.Options) -> int:
    """Print the script of a shell."""
    scripts = {"bash": bash, "zsh": zsh, "fish": fish}
    put(sys.stdout, scripts[options.shell](commands()))
    return 0


def commands() -> List[Command]:
    """All commands, first vzclient itself."""
    from vzsim import cli as simulator
    parser = _options.build()
    tree = next(action for action in parser._actions
                if isinstance(action, argparse._SubParsersAction))
    texts = {choice.dest: choice.help or "" for choice in tree._choices_actions}
    parsers = dict(tree.choices, sim=simulator.options())  # type: Parsers
    return [_command("", "", parser)] + [
        _command(name, texts[name], each) for name, each in parsers.items()]


def _command(name: str, text: str, parser: argparse.ArgumentParser) -> Command:
    options, words, files = [], [], False  # type: List[Option], List[str], bool
    for action in parser._actions:
        if action.help == argparse.SUPPRESS:
            continue
        file = action.metavar == "FILE" or action.dest == "plant"
        if action.option_strings:
            options.append(Option(tuple(action.option_strings), _text(action),
                                  action.nargs != 0, file))
        else:
            words += [str(choice) for choice in action.choices or ()]
            files = files or file
    return Command(name, text, options, words, files)


def _text(action: argparse.Action) -> str:
    return (action.help or "").replace("%(default)s", str(action.default))


def _names(options: Iterable[Option]) -> List[str]:
    return [name for option in options for name in option.names]


def _valued(command: Command) -> List[str]:
    return _names(option for option in command.options if option.valued)


# ---- bash ----------------------------------------------------------------------------------------

_BASH = r"""# Completion of vzclient for bash: source this file.

_vzclient() {
    local word=${COMP_WORDS[COMP_CWORD]} at=$((COMP_CWORD - 1)) command= i
    local options= valued= filed= words= files=
    [[ $word == "=" ]] && word= at=$COMP_CWORD
    [[ ${COMP_WORDS[at]} == "=" ]] && at=$((at - 1))
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            @VALUED@)
                i=$((i + 1))
                [[ ${COMP_WORDS[i]} == "=" ]] && i=$((i + 1)) ;;
            -*) ;;
            *) command=${COMP_WORDS[i]}; break ;;
        esac
    done
    case $command in
@COMMANDS@
    esac
    COMPREPLY=()
    if [[ " $filed " == *" ${COMP_WORDS[at]} "* ]]; then
        words= files=1
    elif [[ " $valued " == *" ${COMP_WORDS[at]} "* ]]; then
        return
    elif [[ $word == -* ]]; then
        words=$options files=
    fi
    [[ -n $words ]] && mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    if [[ -n $files ]]; then
        compopt -o filenames 2>/dev/null || :
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
    fi
}

complete -F _vzclient vzclient
"""


def bash(commands: List[Command]) -> str:
    """The script for bash."""
    lines = []
    for command in commands:
        filed = _names(option for option in command.options if option.file)
        parts = ["options=" + shlex.quote(" ".join(_names(command.options))),
                 "valued=" + shlex.quote(" ".join(_valued(command))),
                 "filed=" + shlex.quote(" ".join(filed)),
                 "words=" + shlex.quote(" ".join(command.words)),
                 "files=" + ("1" if command.files else "")]
        lines.append("        %s)\n            %s ;;" % (
            command.name or "''", "\n            ".join(parts)))
    return _BASH.replace("@COMMANDS@", "\n".join(lines)).replace(
        "@VALUED@", " | ".join(_valued(commands[0])))


# ---- zsh -----------------------------------------------------------------------------------------

_ZSH = r"""#compdef vzclient
# Completion of vzclient for zsh: put this file as _vzclient into a folder of fpath, or source it.

_vzclient() {
    local curcontext="$curcontext" state line
    local -a commands
    typeset -A opt_args
    commands=(
@DESCRIPTIONS@
    )
    _arguments -C \
@OPTIONS@
        '1:command:->command' \
        '*::argument:->argument'
    case $state in
        command) _describe command commands ;;
        argument)
            case $words[1] in
@COMMANDS@
            esac ;;
    esac
}

if [[ $funcstack[1] == _vzclient ]]; then
    _vzclient "$@"
else
    compdef _vzclient vzclient
fi
"""


def zsh(commands: List[Command]) -> str:
    """The script for zsh."""
    cases = []
    for command in commands[1:]:
        rest = ("*:argument:(%s)" % " ".join(command.words) if command.words else
                "*:file:_files" if command.files else "*:argument: ")
        cases.append("                %s)\n                    _arguments \\\n%s\n"
                     "                        %s ;;"
                     % (command.name, _zsh_options(command, 24), shlex.quote(rest)))
    return _ZSH.replace(
        "@DESCRIPTIONS@", "\n".join(" " * 8 + shlex.quote("%s:%s" % (each.name, each.text))
                                    for each in commands[1:])).replace(
        "@OPTIONS@", _zsh_options(commands[0], 8)).replace("@COMMANDS@", "\n".join(cases))


def _zsh_options(command: Command, indent: int) -> str:
    lines = []
    for option in command.options:
        text = option.text.replace("\\", r"\\").replace("[", r"\[").replace("]", r"\]")
        value = ":file:_files" if option.file else ":value: " if option.valued else ""
        lines += [" " * indent + shlex.quote("%s[%s]%s" % (name, text, value)) + " \\"
                  for name in option.names]
    return "\n".join(lines)


# ---- fish ----------------------------------------------------------------------------------------

_FISH = r"""# Completion of vzclient for fish: put this file into fish's folder completions.

function __vzclient_in --description 'whether the command is the one named'
    set -l words (commandline -opc)
    set -e words[1]
    set -l command ''
    set -l skip 0
    for word in $words
        if test $skip = 1
            set skip 0
            continue
        end
        switch $word
            case @VALUED@
                set skip 1
            case '-*'
            case '*'
                set command $word
                break
        end
    end
    test "$command" = "$argv[1]"
end

complete -c vzclient -f
"""


def fish(commands: List[Command]) -> str:
    """The script for fish."""
    lines = []
    for command in commands:
        begin = "complete -c vzclient -n %s" % shlex.quote("__vzclient_in '%s'" % command.name)
        for option in command.options:
            names = " ".join("-l " + name[2:] if name.startswith("--") else "-s " + name[1:]
                             for name in option.names)
            value = " -r -F" if option.file else " -x" if option.valued else ""
            lines.append("%s %s%s -d %s" % (begin, names, value, _fish_quote(option.text)))
        if command.files:
            lines.append(begin + " -F")
        if command.words and command.name:
            lines.append("%s -a %s" % (begin, _fish_quote(" ".join(command.words))))
    begin = "complete -c vzclient -n %s" % shlex.quote("__vzclient_in ''")
    lines += ["%s -a %s -d %s" % (begin, command.name, _fish_quote(command.text))
              for command in commands[1:]]
    return _FISH.replace("@VALUED@", " ".join(_valued(commands[0]))) + "\n".join(lines) + "\n"


def _fish_quote(text: str) -> str:
    return "'%s'" % text.replace("\\", "\\\\").replace("'", "\\'")
