#!/usr/bin/python3
"""Scaling report of the benchmark programs' JSON output.

usage: bench/report.py DIR

Reads every DIR/*.json written by a benchmark program (--benchmark_out_format=json) and
writes into DIR one PNG per benchmark family (ns per item against N, log-scale x) and
summary.md, a table of every benchmark's figures. Exit 0 on success, 2 when an input is
missing or malformed (nothing is written then), 3 when the plots cannot be drawn.

How a run's name is read (`family/arg/arg/option`):
  - the family is the name before the first `/`; one family may be registered several
    times (once per size, say): its runs are plotted together;
  - run options (`iterations:5`, `repeats:3`, `min_time:...`, `manual_time`, `real_time`,
    `process_time`) are dropped;
  - N is the first argument that is a whole number, plain (`16384`) or named
    (`groups:4096`); the other arguments (`dense:1`, a captured label such as `SparseOnly`,
    a second number) tell the series of one family apart.

Which figure is "ns per item", first that applies:
  1. a counter named as nanoseconds per something: `ns_per_<unit>` or `ns/<unit>` before
     a stage's own (`program_ns_per_<unit>`); among several, one whose unit is what a named
     N counts (`lists:` -> `ns_per_list`), then the one nearest 2. (or 3.), then by name;
  2. real time per item, where the run counts items (items_per_second);
  3. real time per iteration divided by N.
  A counter kept as a rate inverted (seconds per item, as benchmark::Counter::kInvert
  gives) is told by its size: no item takes under 1e-3 ns, so such a value is seconds.

Baselines: a family whose name contains `Baseline` or `Bare` (any case) is the baseline of
the family with the same name once that word is taken out (`BM_RemapBaseline` for
`BM_Remap`). A baseline that matches no family by name serves every other family of its
own program, which is how a program benchmarks one thing against its bare equivalent. A
baseline's series is drawn dashed on its family's plot, and the summary gives each run's
ratio to the baseline run with the same N and the same other arguments (or the baseline's
only series).
"""

import json
import math
import re
import sys
from collections import OrderedDict
from dataclasses import dataclass, field
from pathlib import Path

RUN_OPTIONS = re.compile(
    r"^(iterations|repeats|min_time|min_warmup_time|time_unit):|^(manual_time|real_time|process_time)$")
SIZE_ARG = re.compile(r"^(?:(?P<name>[A-Za-z_]\w*):)?(?P<value>\d+)$")
NS_COUNTER = re.compile(r"^(?:(?P<stage>\w+?)_)?ns(?:_per_|/)(?P<unit>\w+)$")
BASELINE_WORD = re.compile(r"baseline|bare", re.IGNORECASE)
TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
SECONDS_BELOW = 1e-3


class ReportError(Exception):
    """Bad input: the message names the file and what is wrong with it."""


@dataclass
class Run:
    program: str
    name: str          # run name without options, e.g. BM_Foo/groups:4096/dense:1
    family: str
    n: int | None
    size_name: str | None   # `groups` of `groups:4096`, None for a plain number
    series: str        # name with N written as `N`, e.g. BM_Foo/groups:N/dense:1
    ns_per_item: float | None = None
    figure: str = ""   # where ns_per_item came from
    error: str | None = None
    ratio: float | None = None
    is_baseline: bool = False


@dataclass
class Family:
    program: str
    name: str
    runs: list = field(default_factory=list)
    baselines: list = field(default_factory=list)   # families drawn beside this one
    is_baseline: bool = False


def parse_name(name):
    """(family, N, size argument's name, series label) of a run name."""
    parts = [p for p in name.split("/") if p and not RUN_OPTIONS.match(p)]
    family, args = parts[0], parts[1:]
    n = size_name = None
    label = [family]
    for arg in args:
        m = SIZE_ARG.match(arg)
        if n is None and m:
            n, size_name = int(m["value"]), m["name"]
            label.append(f"{size_name}:N" if size_name else "N")
        else:
            label.append(arg)
    return family, n, size_name, "/".join(label)


def singular(word):
    return word[:-1] if word and word.endswith("s") else word


def ns_per_item(row, n, size_name, rate_on_real_time):
    """(ns per item, where it came from)."""
    unit = row.get("time_unit", "ns")
    if unit not in TO_NS:
        raise ReportError(f"unknown time_unit '{unit}'")
    real_ns = float(row["real_time"]) * TO_NS[unit]  # per iteration, aggregates too
    per_item = None
    if row.get("items_per_second"):
        # The items rate is over CPU time unless the run is timed by hand or on the wall
        # clock: per item, it is real time over the items per iteration either way.
        basis = row["real_time"] if rate_on_real_time else row.get("cpu_time", 0)
        items = row["items_per_second"] * float(basis) * TO_NS[unit] / 1e9
        per_item = real_ns / items if items > 0 else 1e9 / row["items_per_second"]
    reference = per_item or (real_ns / n if n else None)

    candidates = []
    for key, value in row.items():
        m = NS_COUNTER.match(key)
        if not m or not isinstance(value, (int, float)) or value <= 0:
            continue
        ns = value * 1e9 if value < SECONDS_BELOW else float(value)
        unit_mismatch = not (size_name and m["unit"] == singular(size_name))
        distance = abs(math.log(ns / reference)) if reference else 0.0
        candidates.append(((m["stage"] is not None, unit_mismatch, distance, key), ns, key))
    if candidates:
        _, ns, key = min(candidates)
        return ns, key
    if per_item:
        return per_item, "real_time / items"
    if n:
        return real_ns / n, "real_time / N"
    return real_ns, "real_time (no N)"


def pick_rows(rows):
    """One row per run name: the median (else mean) aggregate when repetitions were
    aggregated, else the row itself (the median row of plain repetitions)."""
    by_run = OrderedDict()
    for row in rows:
        by_run.setdefault(row.get("run_name", row["name"]), []).append(row)
    picked = []
    for run_name, group in by_run.items():
        aggregates = {r.get("aggregate_name"): r for r in group if r.get("run_type") == "aggregate"}
        row = aggregates.get("median") or aggregates.get("mean")
        if row is None:
            plain = [r for r in group if r.get("run_type", "iteration") == "iteration"]
            if not plain:
                continue
            plain.sort(key=lambda r: float(r.get("real_time", 0)))
            row = plain[len(plain) // 2]
        picked.append((run_name, row))
    return picked


def load_program(path):
    """(context, runs) of one program's JSON; an empty file (nothing matched the filter)
    gives no runs."""
    text = path.read_text()
    if not text.strip():
        return {}, []
    try:
        doc = json.loads(text)
    except json.JSONDecodeError as e:
        raise ReportError(f"{path}: not JSON: {e}") from None
    if not isinstance(doc, dict) or not isinstance(doc.get("benchmarks"), list):
        raise ReportError(f"{path}: no 'benchmarks' list (not a benchmark program's JSON output)")
    program = path.stem
    runs = []
    for run_name, row in pick_rows(doc["benchmarks"]):
        try:
            family, n, size_name, series = parse_name(run_name)
            run = Run(program, "/".join(p for p in run_name.split("/") if not RUN_OPTIONS.match(p)),
                      family, n, size_name, series)
            if row.get("error_occurred"):
                run.error = row.get("error_message") or "error"
            else:
                options = set(run_name.split("/"))
                run.ns_per_item, run.figure = ns_per_item(
                    row, n, size_name, bool(options & {"manual_time", "real_time"}))
        except (KeyError, TypeError, ValueError, ReportError) as e:
            what = f"missing field {e}" if isinstance(e, KeyError) else str(e)
            raise ReportError(f"{path}: benchmark '{run_name}': {what}") from None
        runs.append(run)
    return doc.get("context", {}), runs


def base_name(family):
    """The family a baseline stands beside: its name without the baseline word."""
    stripped = BASELINE_WORD.sub("", family)
    return re.sub(r"_{2,}", "_", stripped).strip("_") or stripped


def group_families(runs):
    families = OrderedDict()
    for run in runs:
        key = (run.program, run.family)
        if key not in families:
            families[key] = Family(run.program, run.family,
                                   is_baseline=bool(BASELINE_WORD.search(run.family)))
        families[key].runs.append(run)
        run.is_baseline = families[key].is_baseline

    for fam in families.values():
        if not fam.is_baseline:
            continue
        target = families.get((fam.program, base_name(fam.name)))
        if target is None:
            # Matched by name outside its program too: programs may share family names.
            target = next((f for f in families.values()
                           if not f.is_baseline and f.name == base_name(fam.name)), None)
        if target is not None:
            target.baselines.append(fam)
            continue
        for other in families.values():
            if other.program == fam.program and not other.is_baseline:
                other.baselines.append(fam)

    for fam in families.values():
        for run in fam.runs:
            run.ratio = ratio_to_baseline(run, fam.baselines)
    return families


def ratio_to_baseline(run, baselines):
    if run.ns_per_item is None or run.n is None:
        return None
    for base in baselines:
        series = {r.series.split("/", 1)[-1] for r in base.runs}
        own = run.series.split("/", 1)[-1]
        for b in base.runs:
            if b.n != run.n or b.ns_per_item is None:
                continue
            if len(series) == 1 or b.series.split("/", 1)[-1] == own:
                return run.ns_per_item / b.ns_per_item
    return None


def file_stem(program, family):
    return f"{program}.{re.sub(r'[^A-Za-z0-9_.-]+', '_', family).strip('_')}"


def fmt_ns(ns):
    if ns >= 100:
        return f"{ns:,.0f}"
    if ns >= 10:
        return f"{ns:.1f}"
    return f"{ns:.2f}" if ns >= 0.01 else f"{ns:.2g}"


def size_text(n):
    for shift, suffix in ((30, "G"), (20, "M"), (10, "K")):
        if n >= 1 << shift and n % (1 << shift) == 0:
            return f"{n >> shift}{suffix}"
    return str(n)


def y_label(runs):
    units = set()
    for r in runs:
        m = NS_COUNTER.match(r.figure)
        if m:
            units.add(m["unit"])
        elif r.figure == "real_time / N":
            units.add(singular(r.size_name) or "entry")
        else:
            units.add("item")  # real time per item, or per iteration without N
    return f"ns per {units.pop()}" if len(units) == 1 else "ns per item"


def plot_family(fam, out_dir):
    """One PNG: every series of the family solid, its baselines' dashed; None if nothing
    has an N to plot against."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    import matplotlib.ticker

    drawn = [(r, False) for r in fam.runs] + [(r, True) for b in fam.baselines for r in b.runs]
    drawn = [(r, base) for r, base in drawn if r.n is not None and r.ns_per_item is not None]
    if not drawn:
        return None
    series = OrderedDict()
    for run, base in drawn:
        series.setdefault((base, run.series), []).append(run)

    fig, ax = plt.subplots(figsize=(8, 5.5), dpi=100)
    for (base, label), runs in series.items():
        runs.sort(key=lambda r: r.n)
        ax.plot([r.n for r in runs], [r.ns_per_item for r in runs], marker="o",
                linestyle="--" if base else "-", label=("baseline " if base else "") + label)
        if not base:
            for r in runs:
                if r.ratio is not None:
                    ax.annotate(f"x{r.ratio:.2f}", (r.n, r.ns_per_item), textcoords="offset points",
                                xytext=(6, 6), fontsize=8)
    ax.set_xscale("log", base=2)
    # Ticks at the measured sizes, written as people say them (16K, 1M).
    sizes_measured = sorted({r.n for r, _ in drawn})
    ax.set_xticks(sizes_measured, [size_text(n) for n in sizes_measured])
    ax.xaxis.set_minor_locator(matplotlib.ticker.NullLocator())
    ax.margins(x=0.1)
    values = [r.ns_per_item for r, _ in drawn]
    # Log y only where the series span orders of magnitude; else linear from 0 shows growth.
    if max(values) / min(values) > 20:
        ax.set_yscale("log")
    else:
        ax.set_ylim(0, max(values) * 1.15)
    sizes = {r.size_name for r, _ in drawn}
    ax.set_xlabel(f"N ({sizes.pop()})" if len(sizes) == 1 and None not in sizes else "N")
    ax.set_ylabel(y_label([r for r, _ in drawn]))
    ax.set_title(f"{fam.program}: {fam.name}", fontsize=10)
    ax.grid(True, which="both", alpha=0.3)
    # Below the axes: inside, it would hide points or ratios whatever corner it took.
    ax.legend(fontsize=8, loc="upper center", bbox_to_anchor=(0.5, -0.13), ncol=2, frameon=False)
    fig.tight_layout()
    path = out_dir / (file_stem(fam.program, fam.name) + ".png")
    fig.savefig(path)
    plt.close(fig)
    return path


def summary(families, contexts, empty, plots):
    lines = ["# Benchmark report", ""]
    for program, ctx in contexts.items():
        facts = [ctx.get("date", ""), ctx.get("host_name", ""),
                 f"{ctx['num_cpus']} CPUs" if "num_cpus" in ctx else ""]
        if ctx.get("cpu_scaling_enabled"):
            facts.append("CPU scaling on: figures are noisy")
        lines.append(f"- `{program}`: " + ", ".join(f for f in facts if f))
    for program in empty:
        lines.append(f"- `{program}`: no benchmark ran (nothing matched the filter)")
    lines += ["", "| program | benchmark | N | ns/entry | vs baseline | figure |",
              "|---|---|---:|---:|---:|---|"]
    for fam in families.values():
        for r in sorted(fam.runs, key=lambda r: (r.series, r.n or 0)):
            n = f"{r.n:,}" if r.n is not None else "-"
            if r.error:
                lines.append(f"| {r.program} | `{r.name}` | {n} | error | | {r.error} |")
                continue
            ratio = "baseline" if r.is_baseline else (f"x{r.ratio:.2f}" if r.ratio else "")
            lines.append(f"| {r.program} | `{r.name}` | {n} | {fmt_ns(r.ns_per_item)} | {ratio} "
                         f"| {r.figure} |")
    if plots:
        lines += ["", "Plots:", ""] + [f"- [{p.name}]({p.name})" for p in plots]
    return "\n".join(lines) + "\n"


def main(argv):
    if len(argv) != 2:
        print("usage: report.py DIR (a directory of benchmark programs' JSON output)",
              file=sys.stderr)
        return 2
    out_dir = Path(argv[1])
    try:
        if not out_dir.is_dir():
            raise ReportError(f"{out_dir}: not a directory")
        inputs = sorted(out_dir.glob("*.json"))
        if not inputs:
            raise ReportError(f"{out_dir}: no benchmark JSON (*.json) to report on")
        contexts, empty, runs = OrderedDict(), [], []
        for path in inputs:
            ctx, program_runs = load_program(path)
            if program_runs:
                contexts[path.stem] = ctx
                runs += program_runs
            else:
                empty.append(path.stem)
    except ReportError as e:
        print(f"report: {e}", file=sys.stderr)
        return 2

    families = group_families(runs)
    # A baseline is drawn on its family's plot; one serving no family gets its own.
    paired = {id(b) for fam in families.values() for b in fam.baselines}
    try:
        plots = []
        for fam in families.values():
            if id(fam) not in paired and (path := plot_family(fam, out_dir)):
                plots.append(path)
    except ImportError as e:
        print(f"report: cannot draw the plots ({e}); python3-matplotlib is needed (./dev setup)",
              file=sys.stderr)
        return 3
    (out_dir / "summary.md").write_text(summary(families, contexts, empty, plots))
    print(f"report: {len(plots)} plots and summary.md in {out_dir}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
