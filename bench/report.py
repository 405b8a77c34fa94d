"""Puts together what scripts/bench has measured: one table, the tables and the plot of the page.

  report.py PARTS [--json FILE] [--page FILE --plot FILE]

PARTS is a directory with times.json, counts.json, scale.json (of bench_whole), micro.json (of
bench_micro) and instructions.json (of counts.py); what is missing is left out.
"""
import argparse
import json
import math
import pathlib
import re
import sys

FLAT = 1.3
FLAT_FROM = 100
STAGES = ["build", "parse", "pack", "unpack names", "look up", "look up, other order"]


def short(value):
    """Three significant digits or so, without exponents."""
    if value is None:
        return ""
    if value >= 100 or value == int(value):
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}" if value >= 0.1 else f"{value:.4f}"


def quotient(value):
    """For ratios: goals are stated in hundredths, so those near 1 show thousandths."""
    if not value:
        return ""
    return f"{value:.3f}" if value < 2 else short(value)


def duration(microseconds):
    if microseconds < 1:
        return f"{1000 * microseconds:.3g} ns"
    return f"{short(microseconds)} µs"


def load(parts, name):
    file = parts / f"{name}.json"
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else []


def grouped(name):
    """Numbers in names with their thousands apart, "1 wells" as people say it."""
    name = re.sub(r"\b\d{4,}\b", lambda match: f"{int(match[0]):,}", name)
    return re.sub(r"\b1 wells", "1 well", name)


def judged(row):
    """The row's goal, and whether it is reached; empty without one."""
    if not row.get("goal"):
        return ""
    reached = row["ratio"] if row.get("ratio") else row["value"]
    return f"{short(row['goal'])} {'yes' if reached <= row['goal'] else 'NO'}"


# Micro-benchmarks

def micro_rows(data):
    """Rows as bench_whole has them; the copy of the same bytes is the floor."""
    times = {}
    for entry in data["benchmarks"] if data else []:
        if entry.get("aggregate_name") != "median":
            continue
        name, wells, items = entry["run_name"].rsplit("/", 2)
        stage, way = re.match(r"(look up, other order|[^,]*), (.*)", name).groups()
        # Nothing but names is unpacked and looked up.
        table = (f"{wells} wells" if stage.startswith(("unpack", "look")) else
                 f"{wells} wells, {items} values")
        times.setdefault((stage, table), {})[way] = entry["cpu_time"] / 1000
    rows = []

    # They were measured in a random order.
    def place(entry):
        (stage, table), _ = entry
        return STAGES.index(stage), table.startswith("1 well")

    for (stage, table), ways in sorted(times.items(), key=place):
        copy = ways.pop("copy of the bytes")
        for way, time in sorted(ways.items(), key=lambda way: (way[0] != "jobmill", way[0])):
            rows.append({"name": f"{stage}, {table}: {way}", "stage": stage, "table": table,
                         "way": way, "unit": "us", "value": time, "floor": copy,
                         "ratio": time / copy})
    for row in rows:
        rivals = {"build": ("protobuf", "FlatBuffers", "Cap'n"), "parse": ("protobuf",)}
        others = [other["value"] for other in rows
                  if (other["stage"], other["table"]) == (row["stage"], row["table"]) and
                  other["way"].startswith(rivals.get(row["stage"], ()) or "none")]
        if row["way"] == "jobmill" and row["table"].startswith("5000 ") and others:
            row["goal"] = min(others) / row["floor"]
    return rows


# Scale

def curves(rows):
    """{flow: {wells: row}}"""
    flows = {}
    for row in rows:
        flow, wells = re.match(r"(.*), (\d+) wells", row["name"]).groups()
        flows.setdefault(flow, {})[int(wells)] = row
    return flows


def steepest(points, key):
    """How far the time per well rises above that of fewer wells, from FLAT_FROM on."""
    values = [points[wells][key] for wells in sorted(points) if wells >= FLAT_FROM]
    return max((later / min(values[:i]) for i, later in enumerate(values) if i), default=1)


def plot(rows):
    """Time per well over the number of wells, both logarithmic."""
    flows = curves(rows)
    width, height, left, top, right, bottom = 760, 420, 70, 20, 215, 50
    xs, ys = (10, 50000), (0.01, 100)
    colours = ["#0b5fa5", "#5aa0d8", "#a8420f", "#e08a4f", "#2c7a3f"]

    def x(wells):
        return left + (width - left - right) * math.log(wells / xs[0]) / math.log(xs[1] / xs[0])

    def y(time):
        return top + (height - top - bottom) * math.log(ys[1] / time) / math.log(ys[1] / ys[0])

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="#ffffff"/>']
    for time in (0.01, 0.1, 1, 10, 100):
        out.append(f'<path d="M{left} {y(time):.1f}H{width - right}" stroke="#dddddd"/>'
                   f'<text x="{left - 8}" y="{y(time) + 4:.1f}" text-anchor="end">{time:g}</text>')
    for wells in (10, 100, 1000, 5000, 50000):
        out.append(f'<path d="M{x(wells):.1f} {top}V{height - bottom}" stroke="#eeeeee"/>'
                   f'<text x="{x(wells):.1f}" y="{height - bottom + 18}" text-anchor="middle">'
                   f'{wells:,}</text>')
    out.append(f'<text x="{(left + width - right) / 2}" y="{height - 10}" text-anchor="middle">'
               'wells in the request (answer)</text>'
               f'<text transform="translate(18 {(top + height - bottom) / 2}) rotate(-90)" '
               'text-anchor="middle">time per well, µs</text>')
    # Names at the right, in the order of the curves' ends, none over another.
    ends = sorted(flows, key=lambda flow: -flows[flow][max(flows[flow])]["value"])
    label = top
    for flow, colour in zip(ends, colours):
        points = sorted(flows[flow].items())
        for key, style in (("floor", 'stroke-width="1" stroke-dasharray="4 3"'),
                           ("value", 'stroke-width="2"')):
            path = "L".join(f"{x(wells):.1f} {y(row[key]):.1f}" for wells, row in points)
            out.append(f'<path d="M{path}" fill="none" stroke="{colour}" {style}/>')
        out += [f'<circle cx="{x(wells):.1f}" cy="{y(row["value"]):.1f}" r="3" fill="{colour}"/>'
                for wells, row in points]
        last, end = points[-1]
        label = max(label + 16, y(end["value"]) + 4)
        out.append(f'<text x="{width - right + 12}" y="{label:.1f}" fill="{colour}">{flow}</text>')
    out.append(f'<text x="{width - right + 12}" y="{height - bottom}" fill="#555555">'
               'dashed: the floor</text>')
    return "\n".join(out + ["</svg>", ""])


# Tables

def terminal(sections):
    lines = [f"{'':<58} {'jobmill':>9} {'floor':>9} {'ratio':>7} {'+-':>6}  goal"]
    for title, rows in sections:
        lines.append(f"-- {title}")
        for row in rows:
            spread = row.get("spread")
            name = f"{grouped(row['name'])} [{row['unit']}]"
            lines.append(f"{name:<58} {short(row['value']):>9} {short(row.get('floor')):>9} "
                         f"{quotient(row.get('ratio')):>7} {quotient(spread):>6}  "
                         f"{judged(row)}".rstrip())
    return "\n".join(lines)


def markdown(head, rows):
    aligns = ["---"] + ["---:"] * (len(head) - 1)
    return "\n".join("| " + " | ".join(line) + " |" for line in [head, aligns, *rows])


def times_table(rows):
    return markdown(["", "jobmill", "floor", "ratio", "±", "goal"], [
        [grouped(row["name"]), f"{short(row['value'])} {row['unit']}", short(row.get("floor")),
         quotient(row.get("ratio")), quotient(row.get("spread")), judged(row)] for row in rows])


def counts_table(rows):
    """A line for each flow, "jobmill / floor" for what both have."""
    flows = {}
    for row in rows:
        flow, what = row["name"].rsplit(", ", 1)
        flows.setdefault(flow, {})[what] = row
    columns = ["system calls", "allocations", "page faults", "processor"]

    def cell(row):
        if "floor" in row:
            return f"{short(row['value'])} / {short(row['floor'])}"
        return short(row["value"])

    return markdown(["per request, jobmill / floor", "system calls", "allocations", "page faults",
                     "processor, µs"],
                    [[grouped(flow)] + [cell(found[what]) for what in columns]
                     for flow, found in flows.items()])


def stages_of(rows):
    stages = {}
    for row in rows:
        stages.setdefault((row["stage"], row["table"]), {})[row["way"]] = row
    return stages


def ways_table(rows):
    """A line for each way, a column for each stage that has several."""
    stages = {stage: found for stage, found in stages_of(rows).items()
              if stage[0] in ("build", "parse")}
    ways = list(dict.fromkeys(way for found in stages.values() for way in found))
    ways.sort(key=lambda way: (way != "jobmill", way))
    lines = [["copy of the bytes",
              *(duration(found["jobmill"]["floor"]) for found in stages.values())]]
    for way in ways:
        lines.append([way, *(duration(found[way]["value"]) if way in found else ""
                             for found in stages.values())])
    return markdown(["", *(grouped(f"{stage}, {table}") for stage, table in stages)], lines)


def stages_table(rows):
    return markdown(["", "jobmill", "copy of the bytes", "ratio"], [
        [grouped(f"{stage}, {table}"), duration(found["jobmill"]["value"]),
         duration(found["jobmill"]["floor"]), quotient(found["jobmill"]["ratio"])]
        for (stage, table), found in stages_of(rows).items() if stage not in ("build", "parse")])


def scale_table(rows):
    flows = curves(rows)
    sizes = sorted({wells for points in flows.values() for wells in points})
    lines = []
    for flow, points in flows.items():
        cells = [f"{short(points[wells]['value'])} / {short(points[wells]['floor'])}"
                 if wells in points else "" for wells in sizes]
        lines.append([flow, *cells,
                      f"{short(steepest(points, 'value'))} / {short(steepest(points, 'floor'))}"])
    return markdown(["µs per well, jobmill / floor", *(f"{wells:,} wells" for wells in sizes),
                     "steepest rise"], lines)


def rises(rows):
    """The scale as rows of the one table: the rise that is judged."""
    return [{"name": f"{flow}, steepest rise of the time per well", "unit": "times",
             "value": steepest(points, "value"), "floor": steepest(points, "floor"), "goal": FLAT}
            for flow, points in curves(rows).items()]


def fill(page, marker, text):
    """Replaces what stands between the marker and its end."""
    pattern = rf"(<!-- {marker} -->\n).*?(<!-- end -->)"
    page, count = re.subn(pattern, lambda match: match[1] + text + "\n" + match[2], page,
                          flags=re.DOTALL)
    if count != 1:
        raise SystemExit(f"no place for the {marker} on the page")
    return page


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("parts", type=pathlib.Path)
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("--page", type=pathlib.Path)
    parser.add_argument("--plot", type=pathlib.Path)
    options = parser.parse_args()
    parts = {name: load(options.parts, name) for name in ("times", "counts", "scale",
                                                          "instructions")}
    micro = micro_rows(load(options.parts, "micro"))
    sections = [("times and memory", parts["times"]), ("per request", parts["counts"]),
                ("instructions of the program's own code", parts["instructions"]),
                ("stages; the floor is a copy of the bytes", micro),
                ("times per well", parts["scale"]), ("scale", rises(parts["scale"]))]
    sections = [(title, rows) for title, rows in sections if rows]
    print(terminal(sections))
    if options.json:
        options.json.write_text(json.dumps(dict(sections), indent=2) + "\n", encoding="utf-8")
    if options.page:
        page = options.page.read_text(encoding="utf-8")
        for marker, rows, table in (("times", parts["times"], times_table),
                                    ("counts", parts["counts"], counts_table),
                                    ("ways", micro, ways_table),
                                    ("stages", micro, stages_table),
                                    ("scale", parts["scale"], scale_table)):
            if rows:
                page = fill(page, marker, table(rows))
        options.page.write_text(page, encoding="utf-8")
    if options.plot and parts["scale"]:
        options.plot.write_text(plot(parts["scale"]), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
