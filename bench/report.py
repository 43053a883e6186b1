"""Shows the figures of a run: as a table on the terminal, in docs/performance.md, and as a plot.

    report.py RESULTS.json      renews the table and the plot of docs/performance.md
"""
import json
import math
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DOCUMENT = os.path.join(ROOT, "docs", "performance.md")
PLOT = os.path.join(ROOT, "docs", "performance.svg")
BEGIN, END = "<!-- begin of the table -->\n", "<!-- end of the table -->\n"

OTHERS = {"plain": "plain Python", "redis": "redis-py, hiredis", "tango": "PyTango"}
YARDSTICKS = {"older": "VzDBAccess", "dict": "VzDBAccess, made a dict", "floor": "floor",
              "kept": "floor that keeps values",
              "cached": "floor, names made once", "ascii": "ASCII names"}
HEAD = ["job", "unit", "module (min-max)", "against", "(min-max)", "ratio (min-max)", "aim", "met",
        *OTHERS.values()]


# ---- Table --------------------------------------------------------------------------------------

def number(figure):
    """Three figures that count, or all before the point."""
    digits = max(0, 2 - math.floor(math.log10(abs(figure)))) if figure else 0
    return format(figure, ",.%df" % digits)


def spread(figures):
    return "%s (%s-%s)" % tuple(number(figures[name]) for name in ("median", "min", "max"))


def aim_text(job):
    aim = job["aim"]
    sign = "\u2265" if job["unit"] == "/s" else "\u2264"
    return ("%s %s" % (sign, format(aim["limit"], ",")) +
            ("" if aim["side"] else " " + job["unit"]))


def row_of(name, job, side, first):
    """The module beside one yardstick; the others only in a job's first row."""
    sides = job["sides"]
    row = [name, job["unit"], spread(sides["module"])]
    if side:
        row += [YARDSTICKS[side], spread(sides[side]), spread(job["ratios"][side])]
    else:
        row += ["", "", ""]
    aimed = first and "aim" in job
    row += [aim_text(job), "yes" if job["aim"]["met"] else "NO"] if aimed else ["", ""]
    for other in OTHERS:
        shown = first and other in sides
        row.append("%s (%s times)" % (number(sides[other]["median"]),
                                      number(1 / job["ratios"][other]["median"]))
                   if shown else "")
    return row


def rows(jobs):
    for name, job in jobs.items():
        yardsticks = [side for side in YARDSTICKS if side in job["sides"]]
        for place, side in enumerate(yardsticks or [None]):
            yield row_of(name, job, side, place == 0)


def per_tag_rows(per_tag):
    """Median microseconds of CPU for a tag, by number of tags: 1, 10, ..."""
    sizes = list(per_tag["read"]["module"])
    shown = [format(int(size), ",") for size in sizes]
    yield ["\u00b5s of CPU for a tag", *shown, "%s : %s" % (shown[-1], shown[1])]
    for operation, sides in per_tag.items():
        for side, by_size in sides.items():
            yield ([operation + ("" if side == "module" else ", " + side)]
                   + [number(by_size[size]["median"]) for size in sizes]
                   + [number(by_size[sizes[-1]]["median"] / by_size[sizes[1]]["median"])])


def aligned(table):
    widths = [max(len(row[column]) for row in table) for column in range(len(table[0]))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
                     for row in table)


def markdown(table):
    head, *body = ["| %s |" % " | ".join(row) for row in table]
    return "\n".join([head, "|" + "---|" * len(table[0]), *body]) + "\n"


def title(results):
    machine = results["machine"]
    return "%s, %d cores, %s, Linux %s, Python %s; %s; medians of %d alternating rounds" % (
        machine["cpu"], machine["cores"], machine["arch"], machine["kernel"], machine["python"],
        "client on core %d" % results["core"] if results["core"] is not None else "not pinned",
        results["rounds"])


def print_report(results):
    print(title(results))
    print()
    print(aligned([HEAD] + list(rows(results["jobs"]))))
    print()
    print(aligned(list(per_tag_rows(results["per_tag"]))))


# ---- Plot ---------------------------------------------------------------------------------------

WIDTH, HEIGHT = 760, 460
LEFT, RIGHT, TOP, BOTTOM = 60, 620, 20, 410
COLOURS = {"resolve": "#1b7837", "subscribe": "#c51b7d", "read": "#2166ac", "write": "#b2182b",
           "deliver": "#8c510a"}


class Axes:
    """Both axes are logarithmic."""

    def __init__(self, sizes, costs):
        self.x = (0, math.log10(max(sizes)))
        self.y = (math.floor(math.log10(min(costs))), math.ceil(math.log10(max(costs))))

    def at(self, size, cost):
        x, y = math.log10(size), math.log10(cost)
        return (LEFT + (RIGHT - LEFT) * (x - self.x[0]) / (self.x[1] - self.x[0]),
                BOTTOM - (BOTTOM - TOP) * (y - self.y[0]) / (self.y[1] - self.y[0]))

    def grid(self, sizes):
        for size in sizes:
            x, _ = self.at(size, 10 ** self.y[0])
            yield line(x, TOP, x, BOTTOM, "#ddd")
            yield text(x, BOTTOM + 18, format(size, ","), "middle")
        for power in range(self.y[0], self.y[1] + 1):
            _, y = self.at(1, 10 ** power)
            yield line(LEFT, y, RIGHT, y, "#ddd")
            yield text(LEFT - 6, y + 4, "%g" % 10 ** power, "end")


def line(x1, y1, x2, y2, colour):
    return '<line x1="%.1f" y1="%.1f" x2="%.1f" y2="%.1f" stroke="%s"/>' % (x1, y1, x2, y2, colour)


def text(x, y, words, anchor, colour="#222"):
    return '<text x="%.1f" y="%.1f" text-anchor="%s" fill="%s">%s</text>' % (
        x, y, anchor, colour, words)


def curve(points, colour, dashed):
    return '<polyline fill="none" stroke="%s" stroke-width="2"%s points="%s"/>' % (
        colour, ' stroke-dasharray="5 4"' if dashed else "",
        " ".join("%.1f,%.1f" % point for point in points))


def plot(per_tag):
    """An SVG document: a line for each operation, dashed for the floor."""
    costs = [figures["median"] for sides in per_tag.values() for by_size in sides.values()
             for figures in by_size.values()]
    sizes = [int(size) for size in per_tag["read"]["module"]]
    axes = Axes(sizes, costs)
    parts = list(axes.grid(sizes))
    parts.append(text((LEFT + RIGHT) / 2, BOTTOM + 40, "tags", "middle"))
    parts.append('<text transform="translate(14 %d) rotate(-90)" text-anchor="middle" fill="#222">'
                 'client CPU for a tag, \u00b5s</text>' % ((TOP + BOTTOM) / 2))
    for place, (operation, sides) in enumerate(per_tag.items()):
        colour = COLOURS[operation]
        for side, by_size in sides.items():
            points = [axes.at(int(size), figures["median"]) for size, figures in by_size.items()]
            parts.append(curve(points, colour, side == "floor"))
        y = TOP + 20 + 24 * place
        parts.append(curve([(RIGHT + 16, y - 4), (RIGHT + 44, y - 4)], colour, False))
        parts.append(text(RIGHT + 50, y, operation, "start", colour))
    y = TOP + 20 + 24 * len(per_tag)
    parts.append(curve([(RIGHT + 16, y - 4), (RIGHT + 44, y - 4)], "#555", True))
    parts.append(text(RIGHT + 50, y, "floor of each", "start", "#555"))
    return ('<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 %d %d" font-family="sans-serif" '
            'font-size="13">\n<rect width="100%%" height="100%%" fill="#fff"/>\n%s\n</svg>\n'
            % (WIDTH, HEIGHT, "\n".join(parts)))


# ---- Document -----------------------------------------------------------------------------------

def document(results, before):
    """The document with the table of these results in the place of the old one."""
    head, _, rest = before.partition(BEGIN)
    _, _, tail = rest.partition(END)
    jobs = [HEAD] + list(rows(results["jobs"]))
    return "".join([head, BEGIN, "\n", title(results), ".\n\n", markdown(jobs), "\n",
                    markdown(list(per_tag_rows(results["per_tag"]))), "\n", END, tail])


def main():
    with open(sys.argv[1], encoding="utf-8") as lines:
        results = json.load(lines)
    with open(DOCUMENT, encoding="utf-8") as lines:
        renewed = document(results, lines.read())
    with open(DOCUMENT, "w", encoding="utf-8") as out:
        out.write(renewed)
    with open(PLOT, "w", encoding="utf-8") as out:
        out.write(plot(results["per_tag"]))


if __name__ == "__main__":
    main()
