# SPDX-License-Identifier: Apache-2.0
"""The results of bench/run as text, as a document and as a picture."""
import pathlib

# What no run finds out; it follows the results.
NOTES = pathlib.Path(__file__).with_name("notes.md")

DEVICE_COLUMNS = {"instructions": "instructions", "time": "ns a request",
                  "system calls": "system calls", "switches": "switches",
                  "allocations": "allocations", "remapped planes": "remapped planes",
                  "to callback": "ns to callback", "to last dequeue": "ns to last dequeue"}


# What the other ways are held against.
BASES = ["bare", "bare, in company", "bare, handed over"]


def ratio(value, base):
    return f"{value / base:.3f}" if base else ""


def cell(value):
    if isinstance(value, float):
        return f"{value:,.0f}" if value >= 100 else f"{value:.2f}".rstrip("0").rstrip(".")
    return str(value)


def table(heading, rows):
    """A table that reads well as it is and as a document."""
    rows = [list(map(cell, row)) for row in [heading, *rows]]
    widths = [max(map(len, column)) for column in zip(*rows)]
    lines = ["| " + " | ".join(text.rjust(width) for text, width in zip(row, widths)) + " |"
             for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 1) + ":" for width in widths) + "|")
    return "\n".join(lines) + "\n"


def library(results):
    rows = []
    before = None
    for ports, ways in results.items():
        spent = [ways[way]["instructions"] for way in ["default", "direct"]]
        steps = [(now - then) / (int(ports) - int(before[0])) for now, then in zip(spent, before[1])
                 ] if before else ["", ""]
        rows.append([ports, spent[0], steps[0], spent[1], steps[1], ways["default"]["harness"],
                     max(way["allocations"] for way in ways.values())])
        before = ports, spent
    return "Instructions a request, the library alone:\n\n" + table(
        ["ports", "default", "a further port", "direct", "a further port", "harness, taken off",
         "allocations"], rows)


def growth(results):
    texts = {"scenes": ("scenes", "instructions a request (2 ports)"),
             "requests": ("after requests", "instructions a request (1 port, of the next 10,000)"),
             "entities": ("entities", "instructions an entity, at the search")}
    return "\n".join(table(texts[name], results[name].items()) for name in texts)


def device(results):
    parts = []
    for delay in sorted({entry["delay"] for entry in results}):
        for in_flight in sorted({entry["in flight"] for entry in results}):
            chosen = [entry for entry in results
                      if (entry["delay"], entry["in flight"]) == (delay, in_flight)]
            spent = {(entry["ports"], entry["way"]): entry["instructions"] for entry in chosen}
            rate = {entry["ports"]: 1 / entry["time"] for entry in chosen
                    if entry["way"] == BASES[0]}
            rows = [[entry["ports"], entry["way"],
                     *(ratio(entry["instructions"], spent.get((entry["ports"], base)))
                       for base in BASES),
                     ratio(1 / entry["time"], rate.get(entry["ports"])),
                     *(entry.get(name, "") for name in DEVICE_COLUMNS)] for entry in chosen]
            parts.append(f"Driver's delay {delay} us, {in_flight} in flight:\n\n" + table(
                ["ports", "way", *(f"of {base}" for base in BASES), "rate, of bare",
                 *DEVICE_COLUMNS.values()],
                rows))
    return "\n".join(parts)


def profile(results):
    objects = ["kernel", "[vdso]", "libc", "libcorvane_platform", "libcorvane_v4l2_linux",
               "libcorvane_client", "corvane-bench-device"]
    rows = []
    for entry in results:
        spent = entry["objects"]
        other = sum(spent.values()) - sum(spent.get(name, 0) for name in objects)
        rows.append([entry["ports"], entry["way"], entry["instructions"],
                     *(round(spent.get(name, 0)) for name in objects), round(other)])
    return "Instructions a request by the object that they are in:\n\n" + table(
        ["ports", "way", "all", *(name.removeprefix("libcorvane_").removeprefix("corvane-")
                                  for name in objects), "other"], rows)


def looking(results):
    plain = {entry["ports"]: entry["instructions"] for entry in results
             if entry["looking"] == "nothing"}
    return "What a request costs more on the driver, one in flight, dequeued directly:\n\n" + table(
        ["looked at by", "ports", "instructions", "more", "system calls", "allocations"],
        [[entry["looking"], entry["ports"], entry["instructions"],
          entry["instructions"] - plain[entry["ports"]], entry["system calls"],
          entry["allocations"]] for entry in results])


def watched(results):
    plain = results["nothing"]["instructions"]
    return table(
        ["what watches", "instructions", "more than without", "events", "each", "allocations"],
        [[name, entry["instructions"], entry["instructions"] - plain, entry.get("events", 0),
          (entry["instructions"] - plain) / entry["events"] if "events" in entry else 0,
          entry["allocations"]] for name, entry in results.items()])


SECTIONS = {"library": library, "growth": growth, "device": device, "profile": profile,
            "looking": looking, "watched": watched}

TEXTS = {
    "library": ("The library alone",
                "Over a kernel that does nothing, under callgrind, release build. Several ports "
                "include the hand-over\nto the buffer monitor's thread, but for direct dequeues."),
    "growth": ("Growth", "The same, by scenes, by requests, and at the search by a device's size."),
    "device": ("On a kernel driver",
               "The virtual engine's driver in a guest that counts instructions: a nanosecond is "
               "an instruction, one\nprocessor. *Bare* makes the system calls and nothing else, "
               "on the only thread of its process;\n*in company* another thread sleeps beside it, "
               "as in every process that uses the library: the kernel\nthen counts references to "
               "descriptors at each call. *Handed over* uses two threads, as the library's\n"
               "default does for several ports. *Library* is watched by the least that an event "
               "monitor can be, but\nfor one line with `EpollEventMonitor`. Instructions are the "
               "process's own, kernel included; times are\nthe whole machine's."),
    "profile": ("Profile",
                "The same driver, one in flight: a plugin of QEMU's counts each block that is "
                "executed. What is outside\nof the process's objects is the kernel's."),
    "looking": ("Looking", "A log to a file in memory, a timeline to one, the kernel's marker, or "
                           "a record of all calls."),
    "watched": ("Watched, on the request's thread",
                "One port over a kernel that does nothing, by callgrind: what the thread of the "
                "requests spends on each\nevent of a timeline, call of a record and line of a log. "
                "Another thread writes the files\nof the first two."),
}


def document(results):
    lines = ["# What a request costs", "",
             "Written by `bench/run --write`; `bench/run --help` tells more.", "",
             "![Instructions a request on a kernel driver](performance.svg)", ""]
    for part, (title, text) in TEXTS.items():
        if part in results:
            lines += [f"## {title}", "", text, f"Measured {results[part + ' measured']}.", "",
                      SECTIONS[part](results[part])]
    return "\n".join([*lines, NOTES.read_text()])


def plot(results):
    """Bars of instructions a request on the driver: zero delay, one in flight, by ports."""
    chosen = [entry for entry in results.get("device", [])
              if (entry["delay"], entry["in flight"]) == (0, 1)]
    ways = list(dict.fromkeys(entry["way"] for entry in chosen))
    ports = sorted({entry["ports"] for entry in chosen})
    colours = ["#444444", "#777777", "#aaaaaa", "#0b4f8a", "#1f7fd4", "#7fbcf0", "#d2691e",
               "#e9a66b", "#6b8e23"]
    columns = 3
    width, left, base, tall = 760, 60, 250, 220
    height = base + 40 + 18 * -(-len(ways) // columns)
    top = max((entry["instructions"] for entry in chosen), default=1)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             'font-family="sans-serif" font-size="11">',
             "<!-- SPDX-License-Identifier: Apache-2.0 -->",
             f'<rect width="{width}" height="{height}" fill="white"/>',
             f'<text x="{left}" y="16">instructions a request, one in flight, no delay</text>']
    for value in range(0, int(top) + 1, 10000):
        y = base - tall * value / top
        parts.append(f'<path d="M{left} {y:.1f}H{width - 10}" stroke="#dddddd"/>'
                     f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">'
                     f'{value // 1000} k</text>')
    group = (width - left - 20) / max(len(ports), 1)
    bar = group / (len(ways) + 1)
    for entry in chosen:
        x = left + group * ports.index(entry["ports"]) + bar * (ways.index(entry["way"]) + 0.5)
        length = tall * entry["instructions"] / top
        parts.append(f'<rect x="{x:.1f}" y="{base - length:.1f}" width="{bar * 0.9:.1f}" '
                     f'height="{length:.1f}" fill="{colours[ways.index(entry["way"])]}"/>')
    for place, count in enumerate(ports):
        parts.append(f'<text x="{left + group * (place + 0.5):.0f}" y="{base + 16}" '
                     f'text-anchor="middle">{count} port{"s" if count > 1 else ""}</text>')
    for place, way in enumerate(ways):
        x = left + place % columns * (width - left) // columns
        y = base + 30 + 18 * (place // columns)
        parts.append(f'<rect x="{x}" y="{y}" width="10" height="10" fill="{colours[place]}"/>'
                     f'<text x="{x + 14}" y="{y + 9}">{way}</text>')
    return "\n".join([*parts, "</svg>", ""])
