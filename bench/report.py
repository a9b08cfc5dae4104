"""The results as Markdown tables that can be read as they are."""


def size(length):
    unit, name = next((unit, name) for unit, name in
                      ((2**30, "GiB"), (2**20, "MiB"), (2**10, "KiB")) if length >= unit)
    return f"{length / unit:g} {name}"


def amount(value, unit):
    return "cannot do it" if value is None else f"{value:,.2f} {unit}"


def others(values, unit, but=None):
    return ", ".join(f"{name} {amount(value, unit)}" for name, value in values.items()
                     if name not in ("velmora", but))


def verdict(row):
    return {True: "yes", False: "NO", None: ""}[row["met"]]


def tables(results):
    table("Work", "velmora", "Measured against", "Its time", "Ratio", "CPU ratio", "To reach",
          "Met", "Others", rows=[
              (row["work"], amount(row["medians_ms"]["velmora"], "ms"), row["against"],
               amount(row["medians_ms"][row["against"]], "ms"), f"{row['ratio']:.2f}",
               f"{row['cpu_ratio']:.2f}", row["target"] or "", verdict(row),
               others(row["medians_ms"], "ms", row["against"])) for row in results["works"]])
    table("Peak memory", "velmora", "Allowed", "Met", "Others", rows=[
        (row["work"], amount(row["peaks_mib"]["velmora"], "MiB"), amount(row["allowed_mib"], "MiB"),
         verdict(row), others(row["peaks_mib"], "MiB")) for row in results["memory"]])
    table("Instructions", "velmora", "Others", rows=[
        (work, amount(millions["velmora"], "million"), others(millions, "million"))
        for work, millions in results["instructions"].items()])
    for name, growth in results["growth"].items():
        table(name, *next(iter(growth.values())), rows=[
            (key, *(amount(value, "ms") for value in row.values())) for key, row in growth.items()])


def table(*headings, rows):
    rows = [headings, *([str(cell) for cell in row] for row in rows)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    rows.insert(1, ["-" * width for width in widths])
    print()
    for row in rows:
        print("|", " | ".join(cell.ljust(width) for cell, width in zip(row, widths)), "|")
