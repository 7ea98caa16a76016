"""Running commands and taking their measure: wall time, memory, disk; rounds that alternate; medians."""

import os
import resource
import shutil
import statistics
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

SAMPLE_SECONDS = 0.1
BLOCK = 1 << 20

Command = Sequence[str | Path]


@dataclass(frozen=True)
class Run:
    """One finished command. Seconds and bytes; `peak_disk` is 0 unless a folder was watched."""

    wall: float
    cpu: float
    peak_memory: int
    peak_disk: int
    output: str


class CommandFailed(Exception):
    """A command that the benchmark needs ended badly."""


class Sampler:
    """Looks ten times a second at the disk that `folder` takes and at the peak memory of a process."""

    def __init__(self, process: int, folder: Path | None) -> None:
        self.process = process
        self.folder = folder
        self.peak_disk = 0
        self.peak_memory = 0
        self.done = threading.Event()
        self.thread = threading.Thread(target=self._sample)

    def __enter__(self) -> "Sampler":
        self.thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.done.set()
        self.thread.join()

    def _sample(self) -> None:
        last_one = False
        while not last_one:
            last_one = self.done.is_set()
            if self.folder:
                self.peak_disk = max(self.peak_disk, disk_usage(self.folder))
            self.peak_memory = max(self.peak_memory, peak_memory_now(self.process))
            self.done.wait(SAMPLE_SECONDS)


def say(text: str) -> None:
    print(f"bench: {text}", file=sys.stderr, flush=True)


def run(
    command: Command,
    *,
    environment: Mapping[str, str] | None = None,
    watch: Path | None = None,
    errors: int = subprocess.STDOUT,
) -> Run:
    """Runs a command to its end. With `watch`, the disk that this folder takes is sampled meanwhile. Standard error
    goes where `errors` says, usually into the output. Raises `CommandFailed`."""
    started = time.monotonic()
    with subprocess.Popen(
        command,
        env={**os.environ, **(environment or {})},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=errors,
    ) as process:
        try:
            assert process.stdout is not None
            with Sampler(process.pid, watch) as sampler:
                output = process.stdout.read().decode(errors="replace")
                _, status, usage = os.wait4(process.pid, 0)
                wall = time.monotonic() - started
            process.returncode = os.waitstatus_to_exitcode(status)
        except BaseException:
            process.kill()
            raise
    if process.returncode != 0:
        raise CommandFailed(f"{command[0]} ended with {process.returncode}:\n{output[-2000:]}")
    memory = peak_memory_of(usage, sampler, wall)
    return Run(wall, usage.ru_utime + usage.ru_stime, memory, sampler.peak_disk, output)


def peak_memory_of(usage: resource.struct_rusage, sampler: Sampler, wall: float) -> int:
    """The system's figure is exact when it is more than this program's own peak, which a child starts from. Else what
    was sampled counts, if there was time for that."""
    unit = 1 if sys.platform == "darwin" else 1024
    own_peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    exact = usage.ru_maxrss > own_peak or sampler.peak_memory == 0 or wall < 5 * SAMPLE_SECONDS
    return usage.ru_maxrss * unit if exact else sampler.peak_memory


def peak_memory_now(process: int) -> int:
    """0 where the system does not tell."""
    try:
        for line in Path(f"/proc/{process}/status").read_text().splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    except OSError:
        pass
    return 0


def disk_usage(folder: Path) -> int:
    """What du says, with files that come and go meanwhile."""
    total = 0
    for place, _, names in os.walk(folder):
        for name in names:
            try:
                total += os.lstat(os.path.join(place, name)).st_blocks * 512
            except FileNotFoundError:
                continue
    return total


def time_to_line(command: Command, needle: str, environment: Mapping[str, str]) -> float:
    """Seconds from the start of a command to the first line of its output that holds `needle`; then kills it."""
    started = time.monotonic()
    with subprocess.Popen(
        command, env={**os.environ, **environment}, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
    ) as process:
        try:
            assert process.stdout is not None
            lines = []
            for line in process.stdout:
                if needle in line:
                    return time.monotonic() - started
                lines.append(line)
        finally:
            process.kill()
    raise CommandFailed(f"{command[0]} ended without {needle}:\n{''.join(lines)[-2000:]}")


def start_up_seconds(command: Sequence[str]) -> float:
    """Of a command that does next to nothing; its output goes nowhere."""
    nowhere = [(os.POSIX_SPAWN_OPEN, stream, os.devnull, os.O_RDWR, 0) for stream in (0, 1, 2)]
    started = time.monotonic()
    process = os.posix_spawn(command[0], command, os.environ, file_actions=nowhere)
    os.waitpid(process, 0)
    return time.monotonic() - started


def copy_synced(files: Sequence[Path], target: Path) -> float:
    """Writes the bytes of all files into one new file as `dd bs=1M conv=fsync` does; the seconds it took. The file is
    gone afterwards."""
    block = bytearray(BLOCK)
    started = time.monotonic()
    with target.open("wb", buffering=0) as output:
        for file in files:
            with file.open("rb", buffering=0) as source:
                while count := source.readinto(block):
                    output.write(memoryview(block)[:count])
        os.fsync(output.fileno())
    wall = time.monotonic() - started
    target.unlink()
    return wall


def warm(files: Sequence[Path]) -> None:
    """Brings files into the page cache, as far as they fit."""
    block = bytearray(BLOCK)
    for file in files:
        with file.open("rb", buffering=0) as source:
            while source.readinto(block):
                pass


def evict(files: Sequence[Path]) -> bool:
    """Takes files, and nothing else, out of the page cache. False where the system has no such call."""
    if not hasattr(os, "posix_fadvise"):
        return False
    for file in files:
        descriptor = os.open(file, os.O_RDONLY)
        try:
            os.fsync(descriptor)
            os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
        finally:
            os.close(descriptor)
    return True


def sha256sum(files: Sequence[Path]) -> list[str | Path]:
    tool = ["sha256sum"] if shutil.which("sha256sum") else ["shasum", "-a", "256"]
    return [*tool, *files]


def openssl_sha256(files: Sequence[Path]) -> list[str | Path]:
    return ["openssl", "dgst", "-sha256", *files]


def remove(path: Path) -> None:
    shutil.rmtree(path, ignore_errors=True)


def alternating(rounds: int, contestants: Mapping[str, Callable[[], float]]) -> dict[str, list[float]]:
    """Each contestant once a round, forwards and backwards in turn, so that none always goes first. Before each one,
    what others left to be written is written."""
    figures: dict[str, list[float]] = {name: [] for name in contestants}
    for number in range(rounds):
        order = list(contestants) if number % 2 == 0 else list(reversed(contestants))
        for name in order:
            os.sync()
            figures[name].append(contestants[name]())
            say(f"  round {number + 1} of {rounds}, {name}: {figures[name][-1]:.2f} s")
    return figures


@dataclass(frozen=True)
class Spread:
    median: float
    lowest: float
    highest: float

    @staticmethod
    def of(values: Sequence[float]) -> "Spread":
        return Spread(statistics.median(values), min(values), max(values))

    @staticmethod
    def of_ratios(ours: Sequence[float], theirs: Sequence[float]) -> "Spread":
        """Round by round."""
        return Spread.of([a / b for a, b in zip(ours, theirs, strict=True)])
