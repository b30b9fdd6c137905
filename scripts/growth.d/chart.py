#!/usr/bin/env python3
"""chart.py GROWTH_JSON SVG: draws time and memory against the number of entries."""

import json
import math
import sys

WIDTH, HEIGHT, MARGIN = 360, 260, 56
COLOURS = {"processor": "#3465a4", "wall": "#cc0000", "memory": "#4e9a06"}


class Panel:
    """One chart with logarithmic axes; `left` is its place."""

    def __init__(self, left, title, points):
        self.left = left
        self.title = title
        xs = [x for x, _ in points]
        ys = [y for _, y in points]
        self.x_range = math.floor(math.log10(min(xs))), math.ceil(math.log10(max(xs)))
        self.y_range = math.floor(math.log10(min(ys))), math.ceil(math.log10(max(ys)))

    def place(self, x, y):
        def share(value, limits):
            return (math.log10(value) - limits[0]) / (limits[1] - limits[0])
        return (self.left + MARGIN + share(x, self.x_range) * (WIDTH - MARGIN - 16),
                HEIGHT - 40 - share(y, self.y_range) * (HEIGHT - 80))

    def axes(self):
        yield f'<text x="{self.left + MARGIN}" y="20" class="title">{self.title}</text>'
        for power in range(self.x_range[0], self.x_range[1] + 1):
            x, bottom = self.place(10 ** power, 10 ** self.y_range[0])
            _, top = self.place(10 ** power, 10 ** self.y_range[1])
            yield f'<path d="M{x:.1f} {bottom:.1f}V{top:.1f}" class="grid"/>'
            yield (f'<text x="{x:.1f}" y="{bottom + 16:.1f}" text-anchor="middle">'
                   f'{10 ** power:,}</text>')
        for power in range(self.y_range[0], self.y_range[1] + 1):
            left, y = self.place(10 ** self.x_range[0], 10 ** power)
            right, _ = self.place(10 ** self.x_range[1], 10 ** power)
            yield f'<path d="M{left:.1f} {y:.1f}H{right:.1f}" class="grid"/>'
            yield f'<text x="{left - 6:.1f}" y="{y + 4:.1f}" text-anchor="end">{10.0 ** power:g}</text>'
        yield (f'<text x="{self.left + (WIDTH + MARGIN) / 2:.1f}" y="{HEIGHT - 6}" '
               'text-anchor="middle">entries</text>')

    def line(self, name, label, points):
        places = [self.place(x, y) for x, y in points]
        colour = COLOURS[name]
        path = "L".join(f"{x:.1f} {y:.1f}" for x, y in places)
        yield f'<path d="M{path}" stroke="{colour}" fill="none" stroke-width="2"/>'
        for x, y in places:
            yield f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>'
        x, y = places[0]
        yield f'<text x="{x + 6:.1f}" y="{y - 8:.1f}" fill="{colour}">{label}</text>'


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        rows = [row for row in json.load(file) if row["tree"] == "kept"]
    series = {"wall": [(row["entries"], row["wall"]) for row in rows],
              "processor": [(row["entries"], row["processor"]) for row in rows],
              "memory": [(row["entries"], row["memory"] / 1024) for row in rows]}
    time = Panel(0, "Seconds", series["wall"] + series["processor"])
    memory = Panel(WIDTH, "MiB at most", series["memory"])
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {2 * WIDTH + 20} {HEIGHT}">',
             "<style>text{font:11px sans-serif}.title{font-weight:bold}"
             ".grid{stroke:#ddd;fill:none}</style>",
             f'<rect width="{2 * WIDTH + 20}" height="{HEIGHT}" fill="white"/>',
             *time.axes(), *time.line("wall", "elapsed", series["wall"]),
             *time.line("processor", "processor", series["processor"]),
             *memory.axes(), *memory.line("memory", "resident", series["memory"]), "</svg>"]
    with open(sys.argv[2], "w", encoding="utf-8") as file:
        file.write("\n".join(parts) + "\n")


main()
