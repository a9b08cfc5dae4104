"""The results as Markdown tables that can be read as they are, and as two pictures."""

import subprocess


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
    table("Signatures on one token", "One at a time", "Two at a time", "Times as fast", "Right",
          rows=[(name, amount(row["alone_s"], "s"), amount(row["two_s"], "s"),
                 f"{row['gain']:.2f}", f"{row['right']} of {row['of']}")
                for name, row in results["at_once"].items()])
    table("Calls to the token", "velmora", "Others", rows=[
        (work, counted(row["velmora"]), ", ".join(
            f"{name} {counted(calls)}" for name, calls in row.items() if name != "velmora"))
        for work, row in results["calls"].items()])
    for name, growth in results["growth"].items():
        table(name, *next(iter(growth.values())), rows=[
            (size(key) if name == "Size" else key, *(amount(value, "ms") for value in row.values()))
            for key, row in growth.items()])


def counted(calls):
    return f"{calls['all']} ({calls['logins']} logins, {calls['searches']} searches)"


def pictures(growth, folder):
    """Draws size.svg and tokens.svg: a line a program, both axes logarithmic."""
    folder.mkdir(parents=True, exist_ok=True)
    for name, unit in (("Size", "bytes"), ("Tokens", "tokens")):
        rows = growth[name]
        programs = [*next(iter(rows.values()))]
        lines = ", ".join(f"$data using 1:{i} with linespoints lw 2 title '{program}'"
                          for i, program in enumerate(programs, 2))
        points = "\n".join(" ".join("?" if value is None else f"{value}"
                                    for value in (key, *row.values())) for key, row in rows.items())
        scale = "%.0b %B" if unit == "bytes" else "%g"
        script = f"""
            set terminal svg size 640,400 font 'sans-serif,13' background 'white'
            set output '{folder}/{name.lower()}.svg'
            set datafile missing '?'
            set logscale xy 2; set logscale y 10; set grid; set key left top
            set xlabel '{unit}'; set ylabel 'milliseconds'; set format x '{scale}'
            $data << END\n{points}\nEND
            plot {lines}
            """
        subprocess.run(["gnuplot"], input=script, text=True, check=True)


def table(*headings, rows):
    rows = [headings, *([str(cell) for cell in row] for row in rows)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    rows.insert(1, ["-" * width for width in widths])
    print()
    for row in rows:
        print("|", " | ".join(cell.ljust(width) for cell, width in zip(row, widths)), "|")
