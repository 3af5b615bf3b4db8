# SPDX-License-Identifier: Apache-2.0
"""Results as text: Markdown that reads well in a terminal."""


def number(value):
    """With three significant digits, and thousands separated."""
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}" if value < 10 else f"{value:.1f}"


def _table(header, rows, left=1):
    """The first `left` columns to the left, the others to the right."""
    widths = [max(len(row[i]) for row in (header, *rows)) for i in range(len(header))]

    def line(cells):
        return "| " + " | ".join(
            cell.ljust(width) if i < left else cell.rjust(width)
            for i, (cell, width) in enumerate(zip(cells, widths))) + " |"

    rule = "|" + "|".join("-" * (width + 2) if i < left else "-" * (width + 1) + ":"
                          for i, width in enumerate(widths)) + "|"
    return "\n".join([line(header), rule, *map(line, rows)])


def _verdict(row):
    return "; ".join(f"{target['text']}: {'yes' if target['reached'] else 'NO'}" for target in row["targets"])


def text(results):
    machine = ", ".join(f"{key} {value}" for key, value in results["machine"].items())
    rows = []
    before = None
    for row in results["rows"]:
        head = (row["title"], row["mode"])
        rows.append([
            f"{row['title']}, {row['mode']}" if head != before else "",
            row["contestant"], f"{number(row['value'])} {row['unit']}",
            f"{row['ratio']:.2f}", f"{row['least']:.2f}–{row['most']:.2f}",
            number(row["cpu_us"]), f"{row['cpu_ratio']:.2f}", number(row["switches"]), _verdict(row)])
        before = head
    header = ["case", "who", "median", "ratio", "least–most", "CPU µs", "ratio", "switches", "target"]
    return machine + "\n\n" + _table(header, rows, left=2)


def difference(before, after):
    """What became of each row that both have; a ratio to the reference says more than a time, if the machine was
    differently busy."""
    old = {(row["case"], row["mode"], row["contestant"]): row for row in before["rows"]}
    rows = []
    for row in after["rows"]:
        earlier = old.get((row["case"], row["mode"], row["contestant"]))
        if not earlier:
            continue
        rows.append([
            f"{row['title']}, {row['mode']}", row["contestant"],
            f"{number(earlier['value'])} → {number(row['value'])} {row['unit']}",
            f"{(row['value'] / earlier['value'] - 1) * 100:+.0f} %",
            f"{earlier['ratio']:.2f} → {row['ratio']:.2f}",
            f"{number(earlier['cpu_us'])} → {number(row['cpu_us'])}",
            f"{number(earlier['switches'])} → {number(row['switches'])}"])
    return _table(["case", "who", "median", "change", "ratio", "CPU µs", "switches"], rows, left=2)
