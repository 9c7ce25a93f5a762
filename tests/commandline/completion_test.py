#!/usr/bin/env python3
"""Types words and tabs into a shell, and sees what the programs would get.

completion_test.py bash|fish|zsh COMPLETION_DIRECTORY
"""
import os
import pty
import re
import select
import sys
import tempfile
import time

PROGRAMS = ["kvx", "modeld", "rva", "rvbridge", "rvd"]
PROMPT = "READY> "
# How each shell is started, and set up: a program prints its words, and the prompt tells that it waits.
# No text that is awaited is in what is typed.
SHELLS = {
    "bash": (
        ["bash", "--norc", "--noprofile", "-i"],
        "bind 'set enable-bracketed-paste off'; for one in {programs}; do . {directory}/$one; "
        """eval "$one() {{ printf '<%s>' \\"\\$@\\"; echo; }}"; done; PS1='REA''DY> '""",
    ),
    "zsh": (
        ["zsh", "-f", "-i"],
        "unset zle_bracketed_paste; unsetopt prompt_sp; fpath=({directory} $fpath); "
        "autoload -Uz compinit; compinit -u -D; for one in {programs}; do "
        """eval "$one() {{ printf '<%s>' \\"\\$@\\"; echo; }}"; done; PS1='REA''DY> '""",
    ),
    "fish": (
        ["fish", "--no-config", "-i"],
        "for one in {programs}; source {directory}/$one.fish; "
        """eval "function $one; printf '<%s>' \\$argv; echo; end"; end; """
        """function fish_prompt; printf 'REA%s' 'DY> '; end""",
    ),
}
# What is typed, and what the program is to get. FILE is a file, and FI the beginning of its name.
TYPED = [
    ("kvx que\tMode\t--qui\t", "<query><Model><--quiet>"),
    ("kvx --daemon tcp:7500 sno\tMode\t--tab\tx", "<--daemon><tcp:7500><snoop><Model><--table><x>"),
    ("kvx --verb\thelp why\t", "<--verbose><help><why-slow>"),
    ("kvx dump FI\t--spa\tsend", "<dump><FILE><--space><send>"),
    ("kvx record new --fr\tFI\t--dae\tx", "<record><new><--from><FILE><--daemon><x>"),
    ("kvx listen FI\t", "<listen><FI>"),
    ("rvd -recorder-f\tFI\t--recorder-b\t9", "<-recorder-file><FILE><--recorder-bytes><9>"),
    ("rvd -allow-user roo\t", "<-allow-user><root>"),
    ("rvbridge -conf\tFI\t--eng\tx", "<-config><FILE><--engine><x>"),
    ("rva -flav\t5\t--tok\tFI\t", "<-flavor><53><--token-file><FILE>"),
    ("modeld --service=Mode\t--load FI\t--thr\t2", "<--service><Model><--load><FILE><--threads><2>"),
    ("modeld --load FI\tFI\t--thr\t2", "<--load><FILE><FILE><--threads><2>"),
]


class Shell:
    def __init__(self, command, home):
        self.seen = ""
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.execvpe(command[0], command, {"PATH": os.environ["PATH"], "HOME": home, "TERM": "xterm"})

    def type(self, line, awaited):
        """The match of what is awaited; None when it does not come."""
        os.write(self.terminal, (line + "\r").encode())
        end = time.monotonic() + 30
        self.seen = ""
        while not (found := re.search(awaited, self.seen)) and time.monotonic() < end:
            if select.select([self.terminal], [], [], 0.1)[0]:
                self.seen += os.read(self.terminal, 65536).decode(errors="replace")
        return found

    def end(self):
        """Returns when the shell is gone: some write to their home at last."""
        os.write(self.terminal, b"exit\r")
        try:
            while os.read(self.terminal, 65536):
                pass
        except OSError:
            pass  # what Linux says when nobody holds the other end
        os.close(self.terminal)
        os.waitpid(self.process, 0)


def main(name, directory):
    failures = 0
    command, setup = SHELLS[name]
    with tempfile.TemporaryDirectory() as home:
        file = home + "/recording"
        open(file, "w", encoding="utf-8").close()
        shell = Shell(command, home)
        if not shell.type(setup.format(programs=" ".join(PROGRAMS), directory=directory), PROMPT):
            sys.exit(f"no prompt: {shell.seen!r}")
        for typed, expected in TYPED:
            expected = expected.replace("FILE", file).replace("FI", file[:-3])
            found = shell.type(typed.replace("FI", file[:-3]), r"(<\S*>)\s*\r?\n")
            # zsh joins an option and its value.
            if not found or re.sub(r"(<--[a-z-]+)=", r"\1><", found[1]) != expected:
                print(f"{typed!r}: {expected} was expected\n    {shell.seen!r}")
                failures += 1
        shell.end()
    sys.exit(failures != 0)


main(*sys.argv[1:])
