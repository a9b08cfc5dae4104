"""The results as Markdown tables that can be read as they are."""


def size(length):
    unit, name = next((unit, name) for unit, name in
                      ((2**30, "GiB"), (2**20, "MiB"), (2**10, "KiB")) if length >= unit)
    return f"{length / unit:g} {name}"


def time(milliseconds):
    if milliseconds is None:
        return "cannot do it"
    return f"{milliseconds:.2f} ms" if milliseconds < 100 else f"{milliseconds:,.0f} ms"


def memory(kib):
    return f"{kib / 1024:,.1f} MiB"


def millions(count):
    return f"{count / 1e6:.2f} million"


def verdict(row):
    return {True: "yes", False: "NO", None: ""}[row["met"]]


def others(values, shown, but=None):
    return ", ".join(f"{name} {shown(value)}" for name, value in values.items()
                     if name not in ("velmora", but))


def tables(results):
    table("Work", "velmora", "Measured against", "Its time", "Ratio", "CPU ratio", "To reach",
          "Met", "Others",
          rows=[(row["work"], time(row["medians_ms"]["velmora"]), row["against"],
                 time(row["medians_ms"][row["against"]]), f"{row['ratio']:.2f}",
                 f"{row['cpu_ratio']:.2f}", row["target"] or "", verdict(row),
                 others(row["medians_ms"], time, row["against"]))
                for row in results["works"]])
    table("Peak memory", "velmora", "Allowed", "Met", "Others",
          rows=[(row["work"], memory(row["peaks_kib"]["velmora"]), memory(row["allowed_kib"]),
                 verdict(row), others(row["peaks_kib"], memory)) for row in results["memory"]])
    table("Instructions", "velmora", "Others",
          rows=[(name, millions(counts["velmora"]), others(counts, millions))
                for name, counts in results["instructions"].items()])
    for name, growth in results["growth"].items():
        table(name, *next(iter(growth.values())),
              rows=[(key, *map(time, row.values())) for key, row in growth.items()])


def table(*headings, rows):
    rows = [headings, *([str(cell) for cell in row] for row in rows)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    rows.insert(1, ["-" * width for width in widths])
    print()
    for row in rows:
        print("|", " | ".join(cell.ljust(width) for cell, width in zip(row, widths)), "|")
