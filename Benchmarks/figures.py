"""The figures. Each function measures one of them at one size and returns its rows of the table."""

import json
import os
import shutil
import subprocess
import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

from measure import (
    CommandFailed,
    Run,
    Spread,
    alternating,
    copy_synced,
    disk_usage,
    evict,
    openssl_sha256,
    remove,
    run,
    sha256sum,
    start_up_seconds,
    time_to_line,
    warm,
)
from report import Row, Target, compared, core_count, not_measured, quantity, size_text, version
from server import Hub, LogLine
from workplace import Workplace

MIB = 1 << 20
MANY_RANGES = 200
SMALL_RANGE_BYTES = {"miniature": 3 << 13, "medium": 1 << 23, "full": 1 << 23}
START_UPS = 50
POLL_SECONDS = 0.02
COPYING = '"phase":"copying"'


@dataclass(frozen=True)
class Rounds:
    """How often the long measurements are repeated, and those of seconds."""

    long: int
    short: int


def tool(name: str) -> str:
    return f"{name} {version(name, 'version' if name == 'openssl' else '--version')}"


def wire(place: Workplace, rounds: Rounds) -> list[Row]:
    place.artifact()
    written = place.folder / "written.bin"

    def curl(ranges: Sequence[LogLine]) -> float:
        warm(place.source_files)
        return place.curl(ranges).wall

    def write() -> float:
        warm(place.verified_files())
        return copy_synced(place.verified_files(), written)

    def digest() -> float:
        warm(place.verified_files())
        return run(openssl_sha256(place.verified_files())).wall

    walls = alternating(
        rounds.long,
        {
            "install": lambda: place.install().wall,
            "curl": lambda: curl(place.redirected()),
            "curl, no redirect": lambda: curl(place.answered()),
            "write": write,
            "first digest": digest,
            "second digest": digest,
        },
    )
    ours = walls["install"]
    parts = [walls[part] for part in ("curl", "write", "first digest", "second digest")]
    floor = [sum(of_round) for of_round in zip(*parts, strict=True)]
    asked = place.redirected()
    size = f"{size_text(sum(line.range_bytes for line in asked))}, {len(asked)} ranges"
    told = " + ".join(f"{Spread.of(part).median:.2f}" for part in parts)
    name = "install over the wire"
    note = f"floor = curl + write and sync + two passes of openssl sha256 = {told} s"
    floor_row = compared(f"{name}, against the floor", "s", "floor", ours, floor, Target("<=", 1.10), note)
    floor_row.rounds = walls
    return [
        floor_row,
        compared(f"{name}, against the fetch alone", "s", tool("curl"), ours, walls["curl"], note=size),
        compared(f"{name}, against a fetch without redirects", "s", tool("curl"), ours, walls["curl, no redirect"]),
    ]


def connections(place: Workplace, _: Rounds) -> list[Row]:
    place.artifact()
    target = place.folder / "small-ranges"
    target.mkdir()
    mark = place.hub.mark()
    chunk = str(SMALL_RANGE_BYTES[place.scale])
    command = [place.lab, "install", "--base-url", place.hub.url, "--ca-file", place.hub.certificate,
               "--range-chunk-bytes", chunk, "--output", target / "model.morlen"]  # fmt: skip
    try:
        run(command, environment=place.hub.environment())
    finally:
        remove(target)
    ours = place.hub.requests(mark)
    ranges = [line for line in ours if line.method == "GET" and line.status in (302, 307)]
    mark = place.hub.mark()
    place.curl(ranges)
    theirs = place.hub.requests(mark)
    figure = f"TCP connections for {len(ranges)} ranges over two hosts"
    if len(ranges) < MANY_RANGES:
        return [not_measured(figure, f"fewer than {MANY_RANGES} ranges")]
    counts = [float(len({line.connection for line in lines})) for lines in (ours, theirs)]
    note = f"{len(ours)} and {len(theirs)} requests"
    return [compared(figure, "", tool("curl"), counts[:1], counts[1:], Target("<=", 2, "ours"), note)]


def fetched_bytes(requests: Sequence[LogLine]) -> float:
    return float(sum(line.body_bytes for line in requests))


def usual(place: Workplace, rounds: Rounds) -> list[Row]:
    place.artifact()
    fetched: Mapping[str, list[float]] = {"ours": [], "theirs": []}
    disks: Mapping[str, list[float]] = {"ours": [], "theirs": []}
    steps: list[list[Run]] = []

    def account(whose: str, mark: int, runs: Sequence[Run]) -> float:
        fetched[whose].append(fetched_bytes(place.hub.requests(mark)))
        disks[whose].append(float(max(part.peak_disk for part in runs)))
        return sum(part.wall for part in runs)

    def ours() -> float:
        mark = place.hub.mark()
        return account("ours", mark, [place.install(watch=True)])

    def theirs() -> float:
        place.artifact()
        mark = place.hub.mark()
        steps.append(place.usual_way())
        return account("theirs", mark, steps[-1])

    walls = alternating(rounds.long, {"install": ours, "the usual way": theirs})
    against = f"aria2c {version('aria2c', '--version')}, script, sha256sum"
    medians = [Spread.of([of_round[i].wall for of_round in steps]).median for i in range(4)]
    parts = "large files {:.2f} + small files {:.2f} + conversion {:.2f} + sha256sum {:.2f} s".format(*medians)
    note = f"{parts}; it syncs nothing"
    return [
        compared("the whole job", "s", against, walls["install"], walls["the usual way"], note=note),
        compared("bytes fetched", "MiB", against, fetched["ours"], fetched["theirs"]),
        compared("peak disk", "MiB", against, disks["ours"], disks["theirs"]),
    ]


def verify(place: Workplace, rounds: Rounds) -> list[Row]:
    files = place.verified_files()
    if not evict(files):
        return [*verify_rows(place, rounds, files, "cached"), not_measured("verify, uncached", "no call for it here")]
    return [*verify_rows(place, rounds, files, "cached"), *verify_rows(place, rounds, files, "uncached")]


def verify_rows(place: Workplace, rounds: Rounds, files: Sequence[Path], state: str) -> list[Row]:
    prepare = warm if state == "cached" else evict

    def timed(command: Sequence[str | Path]) -> float:
        prepare(files)
        return run(command).wall

    walls = alternating(
        rounds.short,
        {
            "verify": lambda: timed([place.repack, "--verify-install", "--input-morlen", place.artifact_path]),
            "openssl": lambda: timed(openssl_sha256(files)),
            "sha256sum": lambda: timed(sha256sum(files)),
        },
    )
    size = sum(file.stat().st_size for file in files)
    speeds = {name: [size / wall / 1e9 for wall in of_rounds] for name, of_rounds in walls.items()}
    cores = core_count()
    all_cores = [cores * speed for speed in speeds["openssl"]]
    note = f"{size_text(size)}; one openssl {Spread.of(speeds['openssl']).median:.2f} GB/s, times {cores} cores"
    target = Target(">=", 0.90) if state == "cached" else None
    figure = f"verify, {state}"
    return [
        compared(figure, "GB/s", f"{tool('openssl')} x {cores}", speeds["verify"], all_cores, target, note),
        compared(figure, "GB/s", "sha256sum", speeds["verify"], speeds["sha256sum"], note="one process"),
    ]


def copied_ranges(place: Workplace) -> list[LogLine]:
    """The ranges of the copy itself, without what was asked before and after it: those that make up the bytes that the
    first install said it would download."""
    place.artifact()
    assert place.first_install is not None
    planned = next(line for line in place.first_install.output.splitlines() if '"phase":"planning"' in line)
    left = json.loads(planned.removeprefix("PROGRESS "))["downloadBytes"]
    shards = {f"/xet-bridge/{file.xetHash}" for file in place.files if file.file.endswith(".safetensors")}
    ranges: list[LogLine] = []
    for line in reversed(place.answered()):
        if line.path in shards and left > 0:
            ranges.insert(0, line)
            left -= line.range_bytes
    return ranges


class SavedDownload:
    """An install that was killed with all of its ranges finished but the last one, which its hub never ends."""

    def __init__(self, place: Workplace, hub: Hub) -> None:
        self.hub = hub
        self.command = [place.repack, "--output", place.artifact_path]
        self.partial = place.artifact_path.with_name(place.artifact_path.name + ".partial")
        self.checkpoint = place.artifact_path.with_name(place.artifact_path.name + ".resume.json")

    def make(self, finished: int) -> None:
        environment = {**os.environ, **self.hub.environment()}
        with subprocess.Popen(self.command, env=environment, stdout=subprocess.DEVNULL) as install:
            try:
                while len(self.completed()) < finished:
                    if install.poll() is not None:
                        raise CommandFailed("the install ended before it could be killed")
                    time.sleep(POLL_SECONDS)
            finally:
                install.kill()
        self.saved = self.checkpoint.read_text()

    def completed(self) -> list[dict[str, int]]:
        if not self.checkpoint.exists():
            return []
        ranges: list[dict[str, int]] = json.loads(self.checkpoint.read_text())["completedRanges"]
        return ranges

    def payload(self) -> list[Path]:
        return sorted(self.partial.rglob("*.bin"))

    def resume(self, checkpoint: str) -> float:
        """Seconds until it goes on with the copy."""
        self.checkpoint.write_text(checkpoint)
        warm(self.payload())
        return time_to_line([*self.command, "--resume"], COPYING, self.hub.environment())


def resume(place: Workplace, rounds: Rounds) -> list[Row]:
    ranges = copied_ranges(place)
    place.drop_artifact()
    with Hub(place.folder / "slow-hub", place.source, place.files, slow=ranges[-1]) as hub:
        download = SavedDownload(place, hub)
        download.make(len(ranges) - 1)
        finished = sum(done["destinationBytes"] for done in download.completed())
        empty = json.dumps({**json.loads(download.saved), "completedRanges": []})

        def digest() -> float:
            warm(download.payload())
            return run(openssl_sha256(download.payload())).wall

        walls = alternating(
            rounds.short,
            {
                "resume": lambda: download.resume(download.saved),
                "nothing finished": lambda: download.resume(empty),
                "openssl": digest,
            },
        )
        share = finished / sum(file.stat().st_size for file in download.payload())
    place.drop_artifact()
    ours = [full - none for full, none in zip(walls["resume"], walls["nothing finished"], strict=True)]
    theirs = [wall * share for wall in walls["openssl"]]
    none = Spread.of(walls["nothing finished"]).median
    note = (
        f"{size_text(finished)} in {len(ranges) - 1} ranges, cached; from the start to the copying, less the same "
        f"with nothing finished ({none:.2f} s); openssl's time for the files times {share:.3f}, their finished part"
    )
    row = compared("resume, digesting what is finished", "s", tool("openssl"), ours, theirs, Target("<=", 1.15), note)
    row.rounds = walls
    return [row]


def weight(place: Workplace, _: Rounds) -> list[Row]:
    installed = disk_usage(place.artifact())
    assert place.first_install is not None
    largest = max(line.range_bytes for line in place.answered())
    curl = place.curl(place.redirected())
    warm(place.verified_files())
    artifact = place.artifact_path
    verification = run([place.repack, "--verify-install", "--input-morlen", artifact], watch=artifact)
    digest = run(openssl_sha256(place.verified_files()))
    small = Target("<=", 64 * MIB, "ours")
    disk = Target("<=", installed + largest + MIB, "ours")
    note = f"installed {quantity(installed, 'MiB')} + one range {quantity(largest, 'MiB')} + 1 MiB"
    memories = [float(each.peak_memory) for each in (place.first_install, curl, verification, digest)]
    grown = float(max(0, verification.peak_disk - installed))
    return [
        compared("install, peak memory", "MiB", tool("curl"), memories[:1], memories[1:2], small),
        Row("install, peak disk", float(place.first_install.peak_disk), "MiB", target=disk, note=note),
        compared("verify, peak memory", "MiB", tool("openssl"), memories[2:3], memories[3:], small),
        Row("verify, disk beside the artifact", grown, "MiB", target=Target("<=", MIB, "ours")),
        start_up(place),
        binary_size(place),
    ]


def start_up(place: Workplace) -> Row:
    curl = shutil.which("curl") or "curl"
    commands = [[str(place.repack), "--help"], [curl, "--help"]]
    pairs = [[1e3 * start_up_seconds(command) for command in commands] for _ in range(START_UPS)]
    # Of single starts the extremes say nothing.
    ours, theirs = (Spread.of(times).median for times in zip(*pairs, strict=True))
    note = f"median of {START_UPS}"
    return compared("start-up, --help", "ms", tool("curl"), [ours], [theirs], Target("<=", 10, "ours"), note)


def binary_size(place: Workplace) -> Row:
    sizes = []
    for program in (place.repack, Path(shutil.which("openssl") or "openssl")):
        stripped = place.folder / "stripped"
        run(["strip", "-o", stripped, program])
        sizes.append(float(stripped.stat().st_size))
    figure = "size of the stripped program"
    return compared(figure, "MiB", tool("openssl"), sizes[:1], sizes[1:], note="libraries apart")
