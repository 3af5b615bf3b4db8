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


def _comparisons(rows):
    cells = []
    before = None
    for row in rows:
        head = f"{row['title']}, {row['mode']}"
        cells.append([
            head if head != before else "", row["contestant"], f"{number(row['value'])} {row['unit']}",
            f"{row['ratio']:.2f}", f"{row['least']:.2f}–{row['most']:.2f}",
            number(row["cpu_us"]), f"{row['cpu_ratio']:.2f}", number(row["switches"]),
            number(max(0, row["server_growth_kib"] / 1024)), _verdict(row)])
        before = head
    header = ["case", "who", "median", "ratio", "least–most", "CPU µs", "ratio", "switches", "server MiB", "target"]
    return _table(header, cells, left=2)


def _figures(rows):
    cells = [[row["title"], f"{number(row['value'])} {row['unit']}".strip(),
              number(row["allocations"]) if "allocations" in row else "", _verdict(row)] for row in rows]
    return _table(["figure", "value", "allocations", "target"], cells)


def text(results):
    machine = ", ".join(f"{key} {value}" for key, value in results["machine"].items())
    parts = [machine]
    if results["comparisons"]:
        parts.append(_comparisons(results["comparisons"]))
    if results["figures"]:
        parts.append(_figures(results["figures"]))
    return "\n\n".join(parts)


def difference(before, after):
    """What became of what both have. A ratio to the reference says more than a time, if the machine was differently
    busy."""
    def name(row):
        return row["case"], row.get("mode"), row.get("contestant")

    def pairs(kind):
        old = {name(row): row for row in before[kind]}
        return [(old[name(row)], row) for row in after[kind] if name(row) in old]

    def lost(kind):
        names = [{name(row) for row in rows[kind]} for rows in (before, after)]
        return [(which, sorted(" ".join(part for part in found if part) for found in ours - others))
                for which, ours, others in (("before", *names), ("after", *reversed(names)))]

    def both(old, new, key):
        return f"{number(old[key])} → {number(new[key])}"

    def change(old, new):
        return f"{(new['value'] / old['value'] - 1) * 100:+.0f} %" if old["value"] else ""

    comparisons = [[f"{new['title']}, {new['mode']}", new["contestant"], f"{both(old, new, 'value')} {new['unit']}",
                    change(old, new), *(both(old, new, key) for key in ("ratio", "cpu_us", "cpu_ratio", "switches"))]
                   for old, new in pairs("comparisons")]
    figures = [[new["title"], f"{both(old, new, 'value')} {new['unit']}", change(old, new),
                both(old, new, "allocations") if "allocations" in new and "allocations" in old else ""] for old, new in pairs("figures")]
    return "\n\n".join([
        _table(["case", "who", "median", "change", "ratio", "CPU µs", "ratio", "switches"], comparisons, left=2),
        _table(["figure", "value", "change", "allocations"], figures),
        *(f"Only {which}: {', '.join(names)}" for kind in ("comparisons", "figures") for which, names in lost(kind) if names)])
