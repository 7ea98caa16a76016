"""The rows of the table, and the table as Markdown and as JSON."""

import json
import os
import platform
import re
import subprocess
from collections.abc import Sequence
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Literal

from measure import Spread

BINARY_UNITS = {"KiB": 1 << 10, "MiB": 1 << 20, "GiB": 1 << 30}


@dataclass(frozen=True)
class Target:
    comparison: Literal["<=", ">="]
    limit: float
    of: Literal["ratio", "ours"] = "ratio"

    def is_met(self, value: float) -> bool:
        return value <= self.limit if self.comparison == "<=" else value >= self.limit


@dataclass
class Row:
    """One figure. `ours` and `theirs` are medians in `unit`, `ratio` is ours / theirs round by round; `rounds` has what
    was measured."""

    figure: str
    ours: float | None
    unit: str
    against: str = ""
    theirs: float | None = None
    ratio: Spread | None = None
    target: Target | None = None
    note: str = ""
    rounds: dict[str, list[float]] = field(default_factory=dict)
    failed: bool = False

    def met(self) -> bool | None:
        if self.target is None:
            return None
        value = self.ours if self.target.of == "ours" else self.ratio and self.ratio.median
        return None if value is None else self.target.is_met(value)


def not_measured(figure: str, why: str) -> Row:
    return Row(figure, None, "", note=f"not measured: {why}")


def failed(figure: str, error: Exception) -> Row:
    said = " ".join(str(error).split())
    return Row(figure, None, "", note=f"failed: {said}", failed=True)


def compared(
    figure: str,
    unit: str,
    against: str,
    ours: Sequence[float],
    theirs: Sequence[float],
    target: Target | None = None,
    note: str = "",
) -> Row:
    """A row of medians, with the ratio taken round by round."""
    return Row(
        figure,
        Spread.of(ours).median,
        unit,
        against,
        Spread.of(theirs).median,
        Spread.of_ratios(ours, theirs),
        target,
        note,
        {"ours": list(ours), "theirs": list(theirs)},
    )


def number(value: float) -> str:
    if value == int(value) and abs(value) < 1e6:
        return f"{value:,.0f}"
    return f"{value:.3g}" if abs(value) < 100 else f"{value:,.0f}"


def quantity(value: float | None, unit: str) -> str:
    if value is None:
        return ""
    return f"{number(value / BINARY_UNITS.get(unit, 1))} {unit}".strip()


def size_text(size: float) -> str:
    return quantity(size, "GiB" if size >= 1 << 30 else "MiB" if size >= 1 << 20 else "KiB")


def ratio_text(ratio: Spread | None) -> str:
    if ratio is None:
        return ""
    if ratio.lowest == ratio.highest:
        return f"{ratio.median:.2f}"
    return f"{ratio.median:.2f} ({ratio.lowest:.2f}..{ratio.highest:.2f})"


def target_text(row: Row) -> str:
    if row.target is None:
        return ""
    unit = row.unit if row.target.of == "ours" else ""
    limit = f"{row.target.limit:.2f}" if row.target.of == "ratio" else quantity(row.target.limit, unit)
    return f"{row.target.comparison} {limit}"


def table(rows: Sequence[Row]) -> str:
    lines = ["| figure | ours | theirs | ratio | target | met | note |", "|---|---:|---:|---:|---:|---|---|"]
    for row in rows:
        theirs = f"{row.against} {quantity(row.theirs, row.unit)}".strip()
        met = {True: "yes", False: "no", None: ""}[row.met()]
        cells = [row.figure, quantity(row.ours, row.unit), theirs, ratio_text(row.ratio), target_text(row), met]
        lines.append(f"| {' | '.join(cells)} | {' '.join(row.note.split())} |")
    return "\n".join(lines)


def as_json(machine: dict[str, str], rows: Sequence[Row]) -> str:
    return json.dumps({"machine": machine, "rows": [{**asdict(row), "met": row.met()} for row in rows]}, indent=2)


def version(*command: str | Path) -> str:
    """The first number with a dot in what a program says of itself."""
    try:
        told = subprocess.run(command, capture_output=True, text=True, check=False)
    except OSError:
        return "absent"
    found = re.search(r"\d+(\.\d+)+\w*", told.stdout + told.stderr)
    return found.group() if found else "unknown"


def first_line(*command: str | Path) -> str:
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.split("\n")[0].strip()
    except OSError:
        return ""


def processor() -> str:
    if platform.system() == "Darwin":
        return first_line("sysctl", "-n", "machdep.cpu.brand_string")
    models = re.findall(r"^model name\s*:\s*(.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return models[0] if models else platform.machine()


def core_count() -> int:
    """Those that this process may use."""
    return len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1


def file_system(folder: Path) -> str:
    if platform.system() == "Darwin":
        return first_line("stat", "-f", "%Sd", folder)
    return first_line("findmnt", "--noheadings", "--output", "FSTYPE", "--target", folder)


def describe_machine(folder: Path, checkout: Path, nginx: str) -> dict[str, str]:
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES")
    return {
        "processor": f"{processor()}, {core_count()} cores",
        "memory": quantity(memory, "GiB"),
        "system": f"{platform.system()} {platform.release()}, {file_system(folder)}",
        "commit": first_line("git", "-C", checkout, "describe", "--always", "--dirty"),
        "nginx": version(nginx, "-v"),
        "curl": version("curl", "--version"),
        "aria2c": version("aria2c", "--version"),
        "openssl": version("openssl", "version"),
        "python": platform.python_version(),
    }
