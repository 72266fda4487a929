"""What was measured as Markdown tables and, where gnuplot is, as plots."""

import os
import pathlib
import platform
import shutil
import subprocess

MEASURES = (  # field, title, decimals
    ("rate", "requests/s", 0), ("p50", "p50 us", 0), ("p99", "p99 us", 0), ("cpu", "CPU us", 1))
COUNTS = (("calls", "system calls", 1), ("instructions", "user instructions", 0))
STYLE = """set terminal svg size 760,340 dynamic noenhanced font "sans-serif,12" background "white"
set style fill solid 0.8 noborder
set boxwidth 0.7
set grid ytics lt 1 lw 1 lc rgb "#cccccc"
set border 3
set tics nomirror
set key top left
set format y "%.0f"
set yrange [0:*]
"""


def size_name(size):
    for unit, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if size >= unit and size % unit == 0:
            return f"{size // unit} {name}"
    return f"{size} B"


def number(value, decimals):
    return "" if value is None else f"{value:,.{decimals}f}"


def table(heads, rows):
    """Markdown: the first column is text, all others are figures."""
    lines = [heads, ["---"] + ["--:"] * (len(heads) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def machine():
    info = pathlib.Path("/proc/cpuinfo").read_text().splitlines()
    model = next((line.split(":", 1)[1].strip() for line in info if line.startswith("model name")),
                 platform.machine())
    return f"{model}, {os.cpu_count()} cores, Linux {platform.release()}"


def compared(results, size, connections):
    """One table of what was timed: rows are fronts."""
    rows = [[label, *(number(found[field], decimals) for field, _, decimals in MEASURES)]
            for label, found in results.timed[size, connections].items()]
    many = "s" if connections > 1 else ""
    return (f"### {size_name(size)}, {connections} connection{many}\n\n" +
            table(["", *(title for _, title, _ in MEASURES)], rows))


def counted(results):
    """The table of what doesn't depend on the clock."""
    sizes = list(results.counts)
    heads = [f"{title}, {size_name(size)}" for _, title, _ in COUNTS for size in sizes]
    rows = [[label, *(number(results.counts[size][label].get(field), decimals)
                      for field, _, decimals in COUNTS for size in sizes)]
            for label in results.counts[sizes[0]]]
    return "### Counted, a request\n\n" + table(["", *heads], rows)


def point_name(series, value):
    return size_name(value) if series.name == "body" else f"{value:,}"


def labels_of(points):
    return list(dict.fromkeys(label for _, found in points for label in found))


def grown(series, points):
    """The table of one series: rows are points; a front that refuses one has none there."""
    labels = labels_of(points)
    tail = ("p99", "p99 us", 0) if series.name == "idle" else ("p50", "p50 us", 0)
    fields = (("cpu", "CPU us", 1), tail)
    heads = [f"{label}: {title}" for label in labels for _, title, _ in fields]
    rows = [[point_name(series, value), *(number(found.get(label, {}).get(field), decimals)
                                          for label in labels for field, _, decimals in fields)]
            for value, found in points]
    return f"### {series.axis[0].upper()}{series.axis[1:]}\n\n" + table([series.name, *heads], rows)


def markdown(results, plan):
    timed = [compared(results, *key) for key in results.timed]
    series = [grown(*one) for one in results.series]
    return "\n\n".join([
        "## What a request costs",
        f"{machine()}, load {results.load:.1f} before the run (0 is best); medians of "
        f"{plan.rounds} interleaved rounds of {plan.seconds} s. CPU is "
        "that of the front, all its processes, a request. The client, the front and the server "
        "behind it share the cores. System calls are counted by strace with 16 connections, user "
        "instructions by callgrind with one, of the two with the connector alone.",
        *timed, counted(results), "## As work grows", *series]) + "\n"


def draw(out, name, script, rows):
    """One plot; its data stands in the script, so that nothing is left but the SVG."""
    data = "\n".join(" ".join("?" if value is None else f'"{value}"' if isinstance(value, str)
                              else f"{value:.3f}" for value in row) for row in rows)
    text = (f'{STYLE}set datafile missing "?"\nset output "{name}.svg"\n'
            f"$data << END\n{data}\nEND\n{script}\n")
    subprocess.run(["gnuplot"], input=text, text=True, cwd=out, check=True)


def bars(out, field, title, labels, columns):
    """A panel for each size, with a scale of its own, and a bar for each front."""
    rows = [[label, *(found.get(label, {}).get(field) for found in columns.values())]
            for label in labels]
    panels = "\n".join(f'set title "{size_name(size)}"\n'
                       f"plot $data using 0:{column}:xtic(1) with boxes lc {column} notitle"
                       for column, size in enumerate(columns, start=2))
    draw(out, field, f'set xtics rotate by -40\nset xrange [-0.7:{len(rows) - 0.3}]\n'
         f'set multiplot layout 1,{len(columns)} title "{title}"\n{panels}', rows)


def lines(out, series, points):
    labels = labels_of(points)
    rows = [[point_name(series, value), *(found.get(label, {}).get("cpu") for label in labels)]
            for value, found in points]
    scale = "set yrange [*:*]\nset logscale y\n" if series.name == "body" else ""
    curves = ", ".join(f'$data using 0:{column}:xtic(1) with linespoints lw 2 title "{label}"'
                       for column, label in enumerate(labels, start=2))
    draw(out, series.name, f'{scale}set title "CPU us a request: {series.axis}"\nplot {curves}',
         rows)


def plots(out, results, connections):
    """Gives whether there is a gnuplot to draw them."""
    if not shutil.which("gnuplot"):
        return False
    columns = {size: found for (size, count), found in results.timed.items()
               if count == connections}
    labels = list(next(iter(columns.values())))
    for field, title, _ in MEASURES:
        bars(out, field, f"{title}, {connections} connections", labels, columns)
    for field, title, _ in COUNTS:
        having = [label for label in labels
                  if any(found[label].get(field) for found in results.counts.values())]
        if having:
            bars(out, field, f"{title} a request", having, results.counts)
    for series, points in results.series:
        lines(out, series, points)
    return True
