# SPDX-License-Identifier: Apache-2.0
"""Tells whose instructions are whose in what the guest's profiler counted."""
import bisect
import collections
import os
import re
import subprocess


class Symbols:
    """Functions by address."""

    def __init__(self, pairs):
        self.pairs = sorted(set(pairs))
        self.addresses = [address for address, _ in self.pairs]

    def at(self, address):
        place = bisect.bisect_right(self.addresses, address) - 1
        return self.pairs[place][1] if place >= 0 else "?"


def of_object(path):
    pairs = []
    for option in ["-C", "-DC"]:
        text = subprocess.run(["nm", "--defined-only", option, path], capture_output=True,
                              text=True).stdout
        for line in text.splitlines():
            address, kind, name = line.split(maxsplit=2)
            if kind in "tTwWi":
                pairs.append((int(address, 16), name))
    return Symbols(pairs)


def of_kernel(text):
    return Symbols((int(fields[0], 16), fields[2]) for fields in map(str.split, text.splitlines())
                   if fields[1] in "tTwW")


class Guest:
    """Where the guest has its kernel's functions and a process its objects."""

    def __init__(self, kernel_symbols, maps):
        self.kernel = of_kernel(kernel_symbols)
        self.objects = []
        first = {}
        for line in maps.splitlines():
            found = re.match(r"(\w+)-(\w+) \S+ \S+ \S+ \S+ +([/\[].*)", line)
            if found:
                begin, end, path = int(found[1], 16), int(found[2], 16), found[3]
                self.objects.append((begin, end, path, first.setdefault(path, begin)))
        self.symbols = {path: of_object(path) for path in first if path.startswith("/")}

    def name(self, address):
        """Object and function."""
        if address >> 63:
            return "kernel", self.kernel.at(address)
        for begin, end, path, base in self.objects:
            if begin <= address < end:
                symbols = self.symbols.get(path)
                return (os.path.basename(path).partition(".so")[0],
                        symbols.at(address - base) if symbols else "?")
        return "other", "?"

    def profile(self, text):
        """Instructions by object and function; a block counts for where it begins."""
        spent = collections.Counter()
        for line in text.splitlines():
            address, size, times = line.split()
            spent[self.name(int(address, 16))] += int(size) * int(times)
        return spent
