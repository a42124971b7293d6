# SPDX-License-Identifier: Apache-2.0
"""Runs a program under callgrind and tells what of its instructions are whose."""
import collections
import os
import re
import subprocess
import tempfile

MARK = "corvane_bench_mark"
# The library's side, by shared object; all else that the harness calls is the harness's.
LIBRARY = re.compile(r"libcorvane_")
# Functions of the program that stand for a client and for the kernel.
HARNESS = re.compile(r"NSCorvane::test::|^main$|corvane_bench")


class Profile:
    """What happened between two marks: self cost by function, and calls with inclusive cost."""

    def __init__(self, text):
        self.cost = collections.Counter()  # (object, function) -> instructions
        self.calls = {}  # (caller, callee) -> [count, instructions]
        self._read(text)

    def _read(self, text):
        names = {"ob": {}, "fn": {}}
        here = {"ob": "", "fn": ""}
        called = {"ob": "", "fn": ""}
        inclusive = None

        def name(kind, value):
            number, _, text = value.partition(" ")
            if not number.startswith("("):
                return value
            if text:
                names[kind][number] = text
            return names[kind][number]

        for line in text.splitlines():
            key, separator, value = line.partition("=")
            if separator and key in ("ob", "fn"):
                here[key] = name(key, value)
                if key == "fn":
                    function = (here["ob"], here["fn"])
                called["ob"] = here["ob"]
            elif separator and key in ("cob", "cfn"):
                called[key[1:]] = name(key[1:], value)
            elif separator and key == "calls":
                inclusive = int(value.split()[0])
            elif re.match(r"[-+*\d]", line):
                instructions = int(line.split()[1])
                if inclusive is None:
                    self.cost[function] += instructions
                else:
                    entry = self.calls.setdefault((function, (called["ob"], called["fn"])), [0, 0])
                    entry[0] += inclusive
                    entry[1] += instructions
                    inclusive = None
                    called["ob"] = here["ob"]

    def total(self):
        return sum(self.cost.values())

    def harness(self, program):
        """Instructions of the program's own functions, and of what else they call."""
        def own(function):
            return os.path.basename(function[0]) == program and HARNESS.search(function[1])

        cost = sum(spent for function, spent in self.cost.items() if own(function))
        for (caller, callee), (_, spent) in self.calls.items():
            if own(caller) and not own(callee) and not LIBRARY.search(callee[0]):
                cost += spent
        return cost

    def library(self, program):
        return self.total() - self.harness(program)

    def count(self, pattern):
        """Calls of functions whose name matches."""
        wanted = re.compile(pattern)
        return sum(count for (_, callee), (count, _) in self.calls.items()
                   if wanted.search(callee[1]))

    def functions(self, program):
        """Self cost of the library's side by function, dearest first."""
        return [(spent, name) for (where, name), spent in self.cost.most_common()
                if not (os.path.basename(where) == program and HARNESS.search(name))]


def profiles(command, environment=None, first_thread_only=False):
    """Profiles of a program between its marks, one for each pair of neighbours."""
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={folder}/part",
             f"--dump-before={MARK}", "--combine-dumps=no",
             f"--separate-threads={'yes' if first_thread_only else 'no'}", *command],
            check=True, capture_output=True, text=True, env={**os.environ, **(environment or {})})
        wanted = re.compile(r"part\.(\d+)-01" if first_thread_only else r"part\.(\d+)")
        parts = sorted(filter(wanted.fullmatch, os.listdir(folder)),
                       key=lambda name: int(wanted.fullmatch(name)[1]))
        texts = []
        for part in parts:
            with open(os.path.join(folder, part)) as file:
                texts.append(file.read())
    # The first part is the start, up to the first mark.
    return [Profile(text) for text in texts[1:]]
