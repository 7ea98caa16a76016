"""What a line was idle for between the ranges of one run: its own account, and what the client did meanwhile as a trace
of its system calls tells."""

import re
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from itertools import pairwise
from pathlib import Path

# What is smaller belongs to the trips between the ranges.
RANGE_BYTES = 1 << 19

TRIPS = "request and redirect"
BELOW_RATE = "below the rate within ranges"
RECEIVE = "taking in the rest"
SCATTER = "scatter"
OUTPUT_SYNC = "sync of the outputs"
DIGEST = "digest"
CHECKPOINT = "checkpoint"
CHECKPOINT_SYNC = "sync of the checkpoint"
OTHER = "other"
AT_CLIENT = "at the client"
DISK_PARTS = (OUTPUT_SYNC, CHECKPOINT_SYNC)

TRACED_CALLS = "openat,fsync,fdatasync,unlink,unlinkat"


@dataclass(frozen=True)
class Span:
    """From one moment to another, in seconds since 1970, and what it was spent for."""

    start: float
    end: float
    part: str

    @property
    def seconds(self) -> float:
        return self.end - self.start

    def within(self, other: "Span") -> "Span":
        """The part of this span that lies in the other; of no length when there is none."""
        start = max(self.start, other.start)
        return Span(start, max(start, min(self.end, other.end)), self.part)


@dataclass(frozen=True)
class Exchange:
    """What one host answered to one request, as the line saw it: the answer's first and last byte leave the server at
    `answered` and `ended`, `busy` is the time that its bytes take at the line's rate."""

    host: str
    asked: float
    answered: float
    ended: float
    busy: float
    payload_bytes: int

    @staticmethod
    def parse(told: dict[str, str | int]) -> "Exchange":
        seconds = {key: int(told[key]) / 1e9 for key in ("asked", "answered", "ended", "busy")}
        return Exchange(host=str(told["host"]), payload_bytes=int(told["payloadBytes"]), **seconds)


class WireTime:
    """The time from the first range's first byte to the last range's last byte, as the line saw it."""

    def __init__(self, exchanges: Sequence[Exchange], storage: str, round_trip: float) -> None:
        self.storage = storage
        self.half_trip = round_trip / 2
        ranges = [index for index, exchange in enumerate(exchanges) if self.is_range(exchange)]
        if not ranges:
            raise RuntimeError("the line saw no range")
        self.exchanges = exchanges[ranges[0] : ranges[-1] + 1]

    def is_range(self, exchange: Exchange) -> bool:
        return exchange.host == self.storage and exchange.payload_bytes >= RANGE_BYTES

    @property
    def ranges(self) -> int:
        return sum(map(self.is_range, self.exchanges))

    @property
    def idle(self) -> float:
        whole = self.exchanges[-1].ended - self.exchanges[0].answered
        return whole - sum(exchange.busy for exchange in self.exchanges)

    def at_client(self) -> list[Span]:
        """From the arrival of an answer's last byte to the client's next request."""
        return [
            Span(min(before.ended + self.half_trip, after.asked), after.asked, AT_CLIENT)
            for before, after in pairwise(self.exchanges)
        ]

    def parts(self) -> dict[str, float]:
        """Seconds of the idle time."""
        below_rate = sum(e.ended - e.answered - e.busy for e in self.exchanges if self.is_range(e))
        at_client = sum(span.seconds for span in self.at_client())
        return {TRIPS: self.idle - below_rate - at_client, BELOW_RATE: below_rate, AT_CLIENT: at_client}


@dataclass(frozen=True)
class Call:
    start: float
    seconds: float
    text: str

    @property
    def is_sync(self) -> bool:
        return self.text.startswith(("fsync(", "fdatasync("))


CALL = re.compile(r"(?P<start>\d+\.\d+) (?P<text>\w+\(.*) <(?P<seconds>\d+\.\d+)>")


def traced_calls(folder: Path) -> list[Call]:
    """Of all threads, one file each, in the order of their start."""
    lines = [line for file in folder.iterdir() for line in file.read_text(errors="replace").splitlines()]
    found = [match for match in map(CALL.fullmatch, lines) if match]
    calls = [Call(float(match["start"]), float(match["seconds"]), match["text"]) for match in found]
    return sorted(calls, key=lambda call: call.start)


def begun_part(call: Call) -> str | None:
    """What the client turns to with this call. A range is received into a temporary file, scattered from there, read
    back for its digest, and recorded."""
    text = call.text
    if ".resume.json.tmp" in text:
        return CHECKPOINT if "O_CREAT" in text else None
    if ".range.tmp" in text:
        if text.startswith("unlink"):
            return OTHER
        return RECEIVE if "O_CREAT" in text else SCATTER
    is_output = "O_RDONLY" in text and "O_DIRECTORY" not in text and re.search(r'\.(partial|bin)', text)
    return DIGEST if is_output else None


def turns(calls: Sequence[Call]) -> list[Span]:
    """What the client did from when to when, whatever its threads synced meanwhile."""
    begun = [(call.start, part) for call in calls if (part := begun_part(call))]
    begun = [turn for before, turn in pairwise([(0.0, OTHER), *begun]) if turn[1] != before[1]]
    begun.append((calls[-1].start + calls[-1].seconds, OTHER))
    return [Span(start, end, part) for (start, part), (end, _) in pairwise(begun)]


def syncs(calls: Sequence[Call]) -> Iterator[Span]:
    """One after another: where two run at the same time, the second counts from the end of the first."""
    done = 0.0
    for call in calls:
        end = call.start + call.seconds
        if call.is_sync and end > done:
            part = OUTPUT_SYNC if ".partial" in call.text else CHECKPOINT_SYNC
            yield Span(max(call.start, done), end, part)
            done = end


def parts_within(spans: Sequence[Span], whole: Span) -> list[Span]:
    return [part for part in (span.within(whole) for span in spans) if part.seconds > 0]


def client_parts(waits: Sequence[Span], calls: Sequence[Call]) -> dict[str, float]:
    """How many seconds of the waits the client spent for what."""
    parts = dict.fromkeys((RECEIVE, SCATTER, OUTPUT_SYNC, DIGEST, CHECKPOINT, CHECKPOINT_SYNC, OTHER), 0.0)
    all_turns, all_syncs = turns(calls), list(syncs(calls))
    for wait in waits:
        synced = parts_within(all_syncs, wait)
        for sync in synced:
            parts[sync.part] += sync.seconds
        done = parts_within(all_turns, wait)
        for turn in done:
            parts[turn.part] += turn.seconds - sum(sync.seconds for sync in parts_within(synced, turn))
        parts[OTHER] += wait.seconds - sum(turn.seconds for turn in done)
    return parts
