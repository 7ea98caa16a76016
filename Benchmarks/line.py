"""The installer behind a line with a round-trip time and a rate: how much of the time the line is idle between the
ranges, and what for."""

import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType

from idle import AT_CLIENT, BELOW_RATE, DISK_PARTS, RANGE_BYTES, TRACED_CALLS, Exchange, WireTime, client_parts, traced_calls
from measure import Command, remove, run, warm
from report import Row, Target, compared, not_measured, version
from server import Hub, LogLine
from workplace import Workplace, curl_config

CLIENT, HUB, STORAGE = "10.77.0.1", "10.77.0.2", "10.77.0.3"
# The server must not be what limits the line; the client stays as the system has it.
SERVER_BUFFERS = "4096 65536 268435456"
FIGURE = "line"


@dataclass(frozen=True)
class Setting:
    round_trip_ms: int
    bytes_per_second: int
    idle_target: Target | None = None
    # One of so many ranges for curl where its shares are all that is asked for.
    curl_step: int = 1

    @property
    def name(self) -> str:
        rate = self.bytes_per_second // 1_000_000
        return f"{FIGURE} {self.round_trip_ms} ms, {f'{rate} MB/s' if rate < 1000 else f'{rate // 1000} GB/s'}"


SETTINGS = (
    Setting(20, 50_000_000, Target("<=", 10, of="ours")),
    Setting(100, 50_000_000, curl_step=3),
    Setting(20, 1_000_000_000, curl_step=3),
    Setting(100, 1_000_000_000, curl_step=3),
)


class LineRefused(Exception):
    """This system, or this user, cannot have such a line."""


class Line:
    """`VellicorLine` and the two network namespaces at its ends, which end with it. Use it with `with`."""

    def __init__(self, program: Path, setting: Setting) -> None:
        self.program = program
        self.setting = setting

    def __enter__(self) -> "Line":
        command = [
            self.program,
            f"--round-trip-ms={self.setting.round_trip_ms}",
            f"--bytes-per-second={self.setting.bytes_per_second}",
        ]
        pipe = subprocess.PIPE
        self.process = subprocess.Popen(command, stdin=pipe, stdout=pipe, stderr=pipe, text=True)
        try:
            self._set_up()
        except BaseException:
            self._stop()
            raise
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._stop()

    def at_client(self, *command: str | Path) -> list[str | Path]:
        return self._within(self.client, command)

    def at_server(self, *command: str | Path) -> list[str | Path]:
        return self._within(self.server, command)

    @staticmethod
    def _within(network: str, command: Sequence[str | Path]) -> list[str | Path]:
        """Ends when this program does, however that ends."""
        return ["setpriv", "--pdeathsig", "TERM", "nsenter", f"--net={network}", *command]

    def account(self) -> "Account":
        """Ends the line."""
        assert self.process.stdin and self.process.stdout and self.process.stderr
        self.process.stdin.close()
        told = self.process.stdout.read()
        if self.process.wait() != 0:
            raise RuntimeError(self.process.stderr.read().strip())
        return Account(json.loads(told), self.setting)

    def _set_up(self) -> None:
        assert self.process.stdout and self.process.stderr
        ready = self.process.stdout.readline()
        if not ready:
            raise LineRefused(self.process.stderr.read().strip())
        networks = json.loads(ready)
        self.client, self.server = networks["clientNetwork"], networks["serverNetwork"]
        for enter, addresses in ((self.at_client, [CLIENT]), (self.at_server, [HUB, STORAGE])):
            for address in addresses:
                run(enter("ip", "address", "add", f"{address}/24", "dev", "wire"))
            run(enter("ip", "link", "set", "wire", "txqueuelen", "10000", "up"))
        run(self.at_server("sh", "-c", f"echo {SERVER_BUFFERS} >/proc/sys/net/ipv4/tcp_wmem"))

    def _stop(self) -> None:
        with self.process:
            self.process.kill()


class Account:
    """What the line says of a run."""

    def __init__(self, told: dict[str, object], setting: Setting) -> None:
        exchanges = told["exchanges"]
        assert isinstance(exchanges, list)
        self.busy = int(str(told["busy"])) / 1e9
        self.late = int(str(told["lateOnAverage"])) / 1e9
        self.time = WireTime(list(map(Exchange.parse, exchanges)), STORAGE, setting.round_trip_ms / 1000)


@dataclass(frozen=True)
class LineRun:
    wall: float
    account: Account
    connect: float
    requests: list[LogLine]

    def share(self, seconds: float) -> float:
        """Percent of the run's time."""
        return 100 * seconds / self.wall

    @property
    def idle(self) -> float:
        return self.share(self.account.time.idle)


class LinePlace:
    """Runs clients of a hub, each behind a line of its own."""

    def __init__(self, place: Workplace, program: Path) -> None:
        self.place = place
        self.program = program
        self.folder = place.folder / FIGURE

    def install(self, setting: Setting, trace: Path | None = None) -> LineRun:
        command: list[str | Path] = [self.place.repack, "--output", self.folder / "model.morlen"]
        return self._run(setting, lambda _: [*tracer(trace), *command] if trace else command)

    def curl(self, setting: Setting, ranges: Sequence[LogLine]) -> LineRun:
        config = self.folder / "curl.conf"

        def command(hub: Hub) -> Command:
            config.write_text(curl_config(hub, ranges, self.folder / "range.bin"))
            return ["curl", "-q", "-K", config]

        return self._run(setting, command)

    def _run(self, setting: Setting, command: Callable[[Hub], Command]) -> LineRun:
        warm(self.place.source_files)
        self.folder.mkdir()
        os.sync()
        try:
            with Line(self.program, setting) as line, self._hub(line) as hub:
                connect = statistics.median(connect_seconds(line, hub) for _ in range(3))
                mark = hub.mark()
                wall = run(line.at_client(*command(hub)), environment=hub.environment()).wall
                requests = hub.requests(mark)
                return LineRun(wall, line.account(), connect, requests)
        finally:
            remove(self.folder)

    def _hub(self, line: Line) -> Hub:
        def reach(url: str) -> None:
            trust = ["--cacert", str(hub.certificate)]
            asked = subprocess.run(line.at_client("curl", "-q", "-s", "--max-time", "5", *trust, url), check=False)
            if asked.returncode != 0:
                raise OSError(f"{url} cannot be reached")

        hub = Hub(
            self.folder / "hub",
            self.place.source,
            self.place.files,
            hub_host=HUB,
            storage_host=STORAGE,
            listen=(HUB, STORAGE),
            prefix=[str(word) for word in line.at_server()],
            reach=reach,
        )
        return hub


def connect_seconds(line: Line, hub: Hub) -> float:
    """What a client sees of the line's round-trip time."""
    asked = line.at_client("curl", "-q", "-s", "--insecure", "-o", os.devnull, "-w", "%{time_connect}", hub.url)
    return float(run(asked).output)


def tracer(folder: Path) -> Command:
    """Stops a program at the traced calls alone."""
    folder.mkdir()
    return ["strace", "--seccomp-bpf", "-f", "-ff", "-y", "-ttt", "-T", "-o", folder / "thread",
            "-e", f"trace={TRACED_CALLS}"]  # fmt: skip


def large_ranges(requests: Sequence[LogLine]) -> list[LogLine]:
    """As they were asked of the hub, in their order."""
    asked = [line for line in requests if line.status == 302 and line.range.startswith("bytes=")]
    return [line for line in asked if line.range_bytes >= RANGE_BYTES]


def traced_parts(place: LinePlace, setting: Setting) -> dict[str, float]:
    """Percent of the time of an install whose system calls are traced."""
    with tempfile.TemporaryDirectory(dir=place.place.folder) as folder:
        trace = Path(folder) / "trace"
        traced = place.install(setting, trace)
        time = traced.account.time
        parts = {part: seconds for part, seconds in time.parts().items() if part != AT_CLIENT}
        parts |= client_parts(time.at_client(), traced_calls(trace))
    return shares(traced, parts)


def shares(of: LineRun, parts: Mapping[str, float]) -> dict[str, float]:
    return {part: of.share(seconds) for part, seconds in parts.items()}


def parts_text(parts: Mapping[str, float]) -> str:
    return ", ".join(f"{part} {share:.1f}" for part, share in parts.items())


def measure(place: LinePlace, setting: Setting) -> list[Row]:
    ours = place.install(setting)
    ranges = large_ranges(ours.requests)
    if ours.account.time.ranges != len(ranges):
        raise RuntimeError(f"the line saw {ours.account.time.ranges} ranges, the server {len(ranges)}")
    theirs = place.curl(setting, ranges[:: setting.curl_step])
    return [wall_row(setting, ours, theirs), *idle_rows(place, setting, ours, theirs)]


def wall_row(setting: Setting, ours: LineRun, theirs: LineRun) -> Row:
    busy, curl_busy = (run.share(run.account.busy) for run in (ours, theirs))
    note = (
        f"line busy {busy:.1f} % of the time, with curl {curl_busy:.1f} %; "
        f"a connect takes {1000 * ours.connect:.1f} ms; {congestion_control()}"
    )
    figure = f"{setting.name}: install"
    if setting.curl_step > 1:
        return Row(figure, ours.wall, "s", note=note)
    return compared(figure, "s", curl_name(), [ours.wall], [theirs.wall], note=note)


def idle_rows(place: LinePlace, setting: Setting, ours: LineRun, theirs: LineRun) -> list[Row]:
    figure = f"{setting.name}: wire idle"
    fetched = "" if setting.curl_step == 1 else f", which fetched one of {setting.curl_step} ranges"
    note = (
        f"of the wall time, within ranges too: {parts_text(shares(ours, ours.account.time.parts()))}; "
        f"{ours.idle - theirs.idle:+.1f} points against curl{fetched}"
    )
    whole = compared(figure, "%", curl_name(), [ours.idle], [theirs.idle], note=note)
    if setting.idle_target is None:
        return [whole]
    return [whole, row_between_ranges(place, setting, ours, f"{figure} between ranges, the disk's own time apart")]


def row_between_ranges(place: LinePlace, setting: Setting, ours: LineRun, figure: str) -> Row:
    if not shutil.which("strace"):
        return not_measured(figure, "strace is missing, which tells the parts")
    parts = traced_parts(place, setting)
    ramp = parts.pop(BELOW_RATE)
    disk = sum(parts[part] for part in DISK_PARTS)
    idle = ours.idle - ours.share(ours.account.time.parts()[BELOW_RATE])
    note = (
        f"a traced install was idle {sum(parts.values()):.1f} % of the time between ranges: {parts_text(parts)}; "
        f"the syncs are the disk's; {ramp:.1f} % more below the line's rate within ranges"
    )
    row = Row(figure, idle - disk, "%", target=setting.idle_target, note=note)
    row.rounds = {part: [share] for part, share in parts.items()}
    return row


def curl_name() -> str:
    return f"curl {version('curl', '--version')}"


def congestion_control() -> str:
    return Path("/proc/sys/net/ipv4/tcp_congestion_control").read_text().strip()


def refusal(program: Path) -> str | None:
    if sys.platform != "linux":
        return "it takes Linux's network namespaces"
    if os.geteuid() != 0:
        return "it takes root to make network namespaces"
    if not program.exists():
        return f"{program} is not built"
    missing = [tool for tool in ("ip", "nsenter", "setpriv", "curl") if not shutil.which(tool)]
    return f"{', '.join(missing)} missing" if missing else None


def measure_line(place: Workplace) -> list[Row]:
    """Rows for every setting; with the miniature for the first alone, which shows that all works."""
    program = place.repack.with_name("VellicorLine")
    why_not = refusal(program)
    if why_not:
        return [not_measured(FIGURE, why_not)]
    settings = SETTINGS[:1] if place.scale == "miniature" else SETTINGS
    rows: list[Row] = []
    try:
        for setting in settings:
            rows += measure(LinePlace(place, program), setting)
    except LineRefused as error:
        rows.append(not_measured(FIGURE, str(error)))
    return rows
