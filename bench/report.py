"""The results as Markdown tables that can be read as they are."""


def time(milliseconds):
    if milliseconds is None:
        return "cannot do it"
    return f"{milliseconds:.2f} ms" if milliseconds < 100 else f"{milliseconds:,.0f} ms"


def size(length):
    for unit, name in ((2**30, "GiB"), (2**20, "MiB"), (2**10, "KiB")):
        if length >= unit:
            return f"{length / unit:g} {name}"
    return f"{length} B"


def others(values, shown, but=()):
    return ", ".join(f"{name} {shown(value)}" for name, value in values.items()
                     if name not in ("velmora", *but))


def verdict(row):
    return "yes" if row["met"] else "NO"


def work(row):
    times, against = row["medians_ms"], row["against"]
    return [row["work"], time(times["velmora"]), against, time(times[against]),
            f"{row['ratio']:.2f}", f"{row['target']:.2f}", verdict(row),
            others(times, time, but=[against])]


def memory(row):
    mib = lambda kib: f"{kib / 1024:,.1f} MiB"
    peaks = row["peaks_kib"]
    return [row["work"], mib(peaks["velmora"]), mib(row["allowed_kib"]), verdict(row),
            others(peaks, mib)]


def growth(title, unit, rows):
    names = next(iter(rows.values()))
    table(title, [unit, *names], ([key, *map(time, row.values())] for key, row in rows.items()))


def table(title, headings, rows):
    rows = [headings, *([str(cell) for cell in row] for row in rows)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    rows.insert(1, ["-" * width for width in widths])
    print(f"\n{title}\n")
    for row in rows:
        print("|", " | ".join(cell.ljust(width) for cell, width in zip(row, widths)), "|")
