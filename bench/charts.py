"""Turns scaling_bench's JSON (standard input) into one SVG chart a benchmark, in the given directory.

charts.py OUT_DIR < scaling.json

Both axes are logarithmic: work on the horizontal one, time of one unit on the vertical one. Flat is linear.
"""

import collections
import json
import math
import pathlib
import statistics
import sys

# From where the fixed cost of one run is no longer seen: 10^4 units, but for shards, which are files themselves.
FIXED_COST_UP_TO = {"importShards": 100}

WIDTH, HEIGHT, LEFT, RIGHT, BOTTOM, TOP = 640, 320, 70, 50, 50, 40


def si(value, unit):
    for factor, prefix in ((1, ""), (1e-3, "m"), (1e-6, "µ"), (1e-9, "n"), (1e-12, "p")):
        if value >= factor * 0.999:
            return f"{value / factor:.3g} {prefix}{unit}"
    return f"{value:.3g} {unit}"


def chart(name, points):
    xs = [math.log10(n) for n, _ in points]
    ys = [math.log10(t) for _, t in points]
    low, high = math.floor(min(ys)), max(math.ceil(max(ys)), math.floor(min(ys)) + 1)
    span = max(max(xs) - min(xs), 1e-9)

    def px(x):
        return LEFT + (x - min(xs)) / span * (WIDTH - LEFT - RIGHT)

    def py(y):
        return HEIGHT - BOTTOM - (y - low) / (high - low) * (HEIGHT - BOTTOM - TOP)

    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
        f'font-size="12">',
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
        f'<text x="{LEFT}" y="20" font-size="14">{name}: time of one unit as work grows</text>',
    ]
    for decade in range(low, high + 1):
        y = py(decade)
        out.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y:.1f}" y2="{y:.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{LEFT - 6}" y="{y + 4:.1f}" text-anchor="end">{si(10.0**decade, "s")}</text>')
    for n, t in points:
        x, y = px(math.log10(n)), py(math.log10(t))
        out.append(f'<text x="{x:.1f}" y="{HEIGHT - BOTTOM + 18}" text-anchor="middle">{n:,}</text>')
        out.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" fill="#1f6feb"/>')
        out.append(f'<text x="{x:.1f}" y="{y - 8:.1f}" text-anchor="middle">{si(t, "s")}</text>')
    path = " ".join(f"{px(x):.1f},{py(y):.1f}" for x, y in zip(xs, ys))
    out.append(f'<polyline points="{path}" fill="none" stroke="#1f6feb" stroke-width="1.5"/>')
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    directory = pathlib.Path(sys.argv[1])
    directory.mkdir(parents=True, exist_ok=True)
    series = collections.defaultdict(lambda: collections.defaultdict(list))
    for run in json.load(sys.stdin)["benchmarks"]:
        name, n = run["name"].split("/")[:2]
        if run.get("run_type") == "iteration":
            series[name][int(n)].append(run["per_unit"])
    for name, runs in series.items():
        points = sorted((n, statistics.median(times)) for n, times in runs.items())
        (directory / f"scaling-{name}.svg").write_text(chart(name, points))
        from_ = FIXED_COST_UP_TO.get(name, 10_000)
        large = [t for n, t in points if n >= from_]
        growth = max(large) / min(large)
        what = f"{name}, from {from_:,}"
        print(f"  13  {what:<62} {growth:9.3f} x   (largest / smallest time of a unit; goal 1.5) "
              f"{'reached' if growth <= 1.5 else 'MISSED'}")


if __name__ == "__main__":
    main()
