"""The steps of the installer that need no hub, timed by Google Benchmark in VellicorBenchmarks. Its names are
STEP/SIZE, of which size 1 is the real one, and STEP_usual/SIZE for the same job done the usual way."""

import json
import math
import subprocess
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path

from measure import Spread, run
from report import Row, Target, compared, not_measured, size_text

REPETITIONS = 5
# Steps at 16 times the size take seconds to prepare, again for every attempt to find a number of iterations.
MINIMUM_SECONDS = 0.05
QUICK_SECONDS = 0.001
MILLISECONDS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}
# At most so many milliseconds at the real size.
LIMITS = {"planning": 100, "layout_encode": 60, "layout_decode": 60}
USUAL_WAYS = {"sha256": "EVP_Digest", "layout_encode": "nlohmann dump", "layout_decode": "nlohmann parse"}
LARGEST = 16
# Without it, glibc gives what is large back to the system after every round, and the growth is that of page faults.
KEEPS_MEMORY = {"GLIBC_TUNABLES": "glibc.malloc.mmap_max=0:glibc.malloc.trim_threshold=4000000000"}
# The copies of the real plan; 16 n log(16 n) is that much more than n log n.
REAL_COUNT = 36_000
N_LOG_N = LARGEST * math.log(LARGEST * REAL_COUNT) / math.log(REAL_COUNT)


@dataclass
class Timed:
    """Milliseconds of processor time in every repetition; the memory that the step took at most, in bytes."""

    times: list[float] = field(default_factory=list)
    peak_bytes: float = 0.0

    @property
    def median(self) -> float:
        return Spread.of(self.times).median


def in_process(binaries: Path, quick: bool) -> list[Row]:
    program = binaries / "VellicorBenchmarks"
    if not program.exists():
        return [not_measured("in process", f"{program.name} is not among the programs")]
    repetitions, seconds, chosen = (1, QUICK_SECONDS, "/1$") if quick else (REPETITIONS, MINIMUM_SECONDS, ".")
    command = [program, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}"]
    command += [f"--benchmark_min_time={seconds}", f"--benchmark_filter={chosen}"]
    # What it says of the machine goes to standard error.
    told = run(command, environment=KEEPS_MEMORY, errors=subprocess.DEVNULL).output
    timed = by_name(json.loads(told)["benchmarks"])
    steps = [name.removesuffix("/1") for name in timed if name.endswith("/1") and "_usual" not in name]
    growing = [step for step in steps if f"{step}/{LARGEST}" in timed]
    return [time_row(step, timed) for step in steps] + [growth_row(step, timed) for step in growing]


def by_name(benchmarks: Sequence[dict]) -> dict[str, Timed]:
    timed: dict[str, Timed] = {}
    for entry in benchmarks:
        if entry["run_type"] == "iteration":
            of_name = timed.setdefault(entry["run_name"], Timed())
            of_name.times.append(entry["cpu_time"] * MILLISECONDS[entry["time_unit"]])
            of_name.peak_bytes = max(of_name.peak_bytes, entry.get("peak_bytes", 0.0))
    return timed


def time_row(step: str, timed: Mapping[str, Timed]) -> Row:
    ours, theirs = timed[f"{step}/1"], timed.get(f"{step}_usual/1")
    figure = f"in process: {step}"
    target = Target("<=", LIMITS[step], "ours") if step in LIMITS else None
    note = f"takes {size_text(ours.peak_bytes)}" + (f", the other {size_text(theirs.peak_bytes)}" if theirs else "")
    if theirs:
        return compared(figure, "ms", USUAL_WAYS.get(step, "the usual way"), ours.times, theirs.times, target, note)
    return Row(figure, ours.median, "ms", target=target, note=note, rounds={"ours": ours.times})


def growth_row(step: str, timed: Mapping[str, Timed]) -> Row:
    sizes = [1, 4, LARGEST]
    medians = [timed[f"{step}/{size}"].median for size in sizes]
    note = "; ".join(f"{size} x: {median:.3g} ms" for size, median in zip(sizes, medians, strict=True))
    growth = [time / medians[0] for time in timed[f"{step}/{LARGEST}"].times]
    row = compared(f"in process: {step} at {LARGEST} x the size", "ms", "itself", medians[2:], medians[:1], note=note)
    row.ratio = Spread.of(growth)
    row.target = Target("<=", N_LOG_N)
    return row
