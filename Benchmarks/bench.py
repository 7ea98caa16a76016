"""Measures the installer as a whole against named tools, in the same run, on the same bytes. Prints the table as
Markdown and writes it as JSON. See --help."""

import argparse
import contextlib
import fcntl
import os
import signal
import sys
import time
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path

import figures
from figures import Rounds
from inprocess import in_process
from line import measure_line
from measure import CommandFailed, remove, say
from report import Row, as_json, describe_machine, failed, table
from server import program
from workplace import Workplace, needed_bytes, refuse_small_disk

CHECKOUT = Path(__file__).resolve().parent.parent
BUILD = CHECKOUT / "build" / "bench"

FIGURES: dict[str, Callable[[Workplace, Rounds], list[Row]]] = {
    "wire": figures.wire,
    "connections": figures.connections,
    "verify": figures.verify,
    "weight": figures.weight,
    "resume": figures.resume,
    "usual": figures.usual,
    "line": lambda place, _: measure_line(place),
}
OF_THE_FULL_SIZE = ("wire", "verify", "weight", "usual")
NAMES = (*FIGURES, "inprocess")

DESCRIPTION = f"""\
Installs a made-up checkpoint (medium: 2.3 GB in the real one's pieces) from an nginx on a loopback port, and does the
same job with named tools, alternating, several rounds. The nginx is a process of its own with folder, port and
certificate in the work folder; the system's nginx service is neither used nor touched. Work files go away at the end.
Needs {needed_bytes("medium") / 1e9:.0f} GB of disk, with --full {needed_bytes("full") / 1e9:.0f} GB.

figures: {", ".join(NAMES)}"""


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./bench", description=DESCRIPTION, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    size = parser.add_mutually_exclusive_group()
    size.add_argument("--quick", action="store_true", help="the miniature, once: shows that it all works, no more")
    size.add_argument("--full", action="store_true", help=f"also at full size (14.6 GB): {', '.join(OF_THE_FULL_SIZE)}")
    parser.add_argument("--only", metavar="FIGURE[,FIGURE]", help="these figures alone")
    parser.add_argument("--rounds", type=int, metavar="N", help="of every measurement [3, of short ones 5]")
    parser.add_argument("--bin", type=Path, metavar="DIR", help="measure these programs, build nothing")
    parser.add_argument(
        "--work", type=Path, metavar="DIR", default=BUILD / "work", help="for the work files [build/bench/work]"
    )
    arguments = parser.parse_args()
    arguments.only = arguments.only.split(",") if arguments.only else list(NAMES)
    unknown = set(arguments.only) - set(NAMES)
    if unknown:
        parser.error(f"no such figure: {', '.join(sorted(unknown))}")
    if arguments.rounds is not None and arguments.rounds < 1:
        parser.error("--rounds takes a number of at least 1")
    return arguments


@contextlib.contextmanager
def work_folder(parent: Path) -> Iterator[Path]:
    """An empty folder that is removed at the end, and with it what a killed run left. Two runs at once would measure
    each other."""
    parent.mkdir(parents=True, exist_ok=True)
    lock = os.open(parent, os.O_RDONLY)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit(f"bench: another one is at work in {parent}")
    folder = parent.resolve() / "vellicor-bench"
    remove(folder)
    folder.mkdir()
    try:
        yield folder
    finally:
        remove(folder)
        os.close(lock)


def measured(name: str, measure: Callable[..., list[Row]], *what: object) -> list[Row]:
    """A figure that cannot be measured does not take the others with it."""
    try:
        return measure(*what)
    except (CommandFailed, OSError, RuntimeError) as error:
        say(f"{name} failed: {error}")
        return [failed(name, error)]


def measure_scale(folder: Path, binaries: Path, scale: str, names: Sequence[str], rounds: Rounds) -> list[Row]:
    if not names:
        return []
    rows: list[Row] = []
    say(f"{scale}: writing the checkpoint")
    with Workplace(folder / scale, binaries, scale) as place:
        for name in names:
            say(f"{scale}: {name}")
            rows += measured(name, FIGURES[name], place, rounds)
    for row in rows:
        row.figure += f" ({scale})"
    return rows


def rounds_of(arguments: argparse.Namespace) -> Rounds:
    if arguments.rounds or arguments.quick:
        number = arguments.rounds or 1
        return Rounds(number, number)
    return Rounds(3, 5)


def measure_all(arguments: argparse.Namespace, folder: Path) -> list[Row]:
    binaries = (arguments.bin or BUILD / "bin").resolve()
    rounds = rounds_of(arguments)
    chosen = [name for name in FIGURES if name in arguments.only]
    scale = "miniature" if arguments.quick else "medium"
    rows = measure_scale(folder, binaries, scale, chosen, rounds)
    if "inprocess" in arguments.only:
        say("inprocess")
        rows += measured("inprocess", in_process, binaries, arguments.quick)
    if arguments.full:
        rows += measure_scale(folder, binaries, "full", [name for name in chosen if name in OF_THE_FULL_SIZE], rounds)
    return rows


def main() -> None:
    arguments = parse_arguments()
    for ending in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda number, _: sys.exit(128 + number))
    # Neither a token nor a proxy of the caller belongs into a measurement.
    for name in list(os.environ):
        if name.lower() in ("hf_token", "http_proxy", "https_proxy", "all_proxy"):
            del os.environ[name]
    started = time.monotonic()
    with work_folder(arguments.work) as folder:
        if arguments.full:
            refuse_small_disk(folder, "full")
        machine = describe_machine(folder, CHECKOUT, program())
        rows = measure_all(arguments, folder)
    result = BUILD / ("quick.json" if arguments.quick else "bench.json")
    result.parent.mkdir(parents=True, exist_ok=True)
    result.write_text(as_json(machine, rows) + "\n")
    print("\n".join(f"- {name}: {value}" for name, value in machine.items()), end="\n\n")
    print(table(rows))
    say(f"done in {time.monotonic() - started:.0f} s; {os.path.relpath(result)} has every round")
    if any(row.failed for row in rows):
        sys.exit(1)


if __name__ == "__main__":
    try:
        main()
    except (CommandFailed, OSError, RuntimeError) as error:
        sys.exit(f"bench: {error}")
    except KeyboardInterrupt:
        sys.exit(130)
