"""One checkpoint of one size: its files, the hub that serves them, the artifact installed from it, and the ways to
fetch the same bytes with other tools."""

import json
import os
import shutil
import sys
from collections.abc import Sequence
from pathlib import Path
from types import TracebackType

from measure import Run, remove, run, sha256sum, warm
from server import Hub, HubFile, LogLine

# About what a checkpoint takes. At most three copies of it lie on the disk at any time: the source, and two of an
# artifact, a download and a written copy.
SCALE_BYTES = {"miniature": 6_000_000, "medium": 2_360_000_000, "full": 14_700_000_000}
COPIES = 3
SPARE_BYTES = 3 << 29  # The installer's reserve of 1 GiB, one range, and room for small files.


def needed_bytes(scale: str) -> int:
    return COPIES * SCALE_BYTES[scale] + SPARE_BYTES


def refuse_small_disk(folder: Path, scale: str) -> None:
    free = shutil.disk_usage(folder).free
    if free < needed_bytes(scale):
        needed = needed_bytes(scale) / 1e9
        sys.exit(f"bench: the {scale} checkpoint needs {needed:.1f} GB in {folder}, {free / 1e9:.1f} GB are free")


class Workplace:
    def __init__(self, folder: Path, binaries: Path, scale: str) -> None:
        self.folder = folder
        self.scale = scale
        self.binaries = binaries
        self.repack = binaries / "VellicorRepack"
        self.lab = binaries / "VellicorLab"
        self.source = folder / "source"
        self.install_folder = folder / "install"
        self.artifact_path = self.install_folder / "model.morlen"
        self.first_install: Run | None = None
        self.requests: list[LogLine] = []

    def __enter__(self) -> "Workplace":
        refuse_small_disk(self.folder.parent, self.scale)
        self.folder.mkdir()
        self.install_folder.mkdir()
        written = run([self.lab, "write", "--scale", self.scale, "--output", self.source])
        self.files = HubFile.parse(written.output)
        self.source_files = [self.source / file.file for file in self.files]
        self.hub = Hub(self.folder / "hub", self.source, self.files)
        self.hub.__enter__()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        if hasattr(self, "hub"):
            self.hub.__exit__(kind, error, trace)
        remove(self.folder)

    def drop_artifact(self) -> None:
        remove(self.install_folder)
        self.install_folder.mkdir()

    def install(self, watch: bool = False) -> Run:
        """Afresh, from files that the server has in its page cache."""
        self.drop_artifact()
        warm(self.source_files)
        os.sync()
        command = [self.repack, "--output", self.artifact_path]
        return run(command, environment=self.hub.environment(), watch=self.install_folder if watch else None)

    def artifact(self) -> Path:
        """The installed artifact. The first one is compared with what it must be, byte for byte, and what was asked of
        the hub for it is kept."""
        if self.first_install is None:
            mark = self.hub.mark()
            self.first_install = self.install(watch=True)
            self.requests = self.hub.requests(mark)
            run([self.lab, "check", "--scale", self.scale, self.artifact_path])
        elif not self.artifact_path.exists():
            self.install()
        return self.artifact_path

    def recorded(self) -> dict[str, dict[str, str | int]]:
        """What the manifest says of every file."""
        files: dict[str, dict[str, str | int]] = json.loads((self.artifact() / "manifest.json").read_text())["files"]
        return files

    def verified_files(self) -> list[Path]:
        """What a verification hashes."""
        return [self.artifact() / name for name in ("manifest.json", *self.recorded())]

    def redirected(self) -> list[LogLine]:
        """The ranges of the first install as they were asked of the hub."""
        self.artifact()
        return [line for line in self.requests if line.method == "GET" and line.status in (302, 307)]

    def answered(self) -> list[LogLine]:
        """The same ranges where their bytes came from."""
        self.artifact()
        return [line for line in self.requests if line.method == "GET" and line.status == 206]

    def curl(self, ranges: Sequence[LogLine]) -> Run:
        """One after another over kept connections, each into the same temporary file."""
        target = self.folder / "range.bin"
        config = self.folder / "curl.conf"
        config.write_text(curl_config(self.hub, ranges, target))
        try:
            return run(["curl", "-q", "-K", config], environment=self.hub.environment())
        finally:
            target.unlink(missing_ok=True)

    def large_and_small(self) -> tuple[list[HubFile], list[HubFile]]:
        return [file for file in self.files if file.xetHash], [file for file in self.files if not file.xetHash]

    def resolve_url(self, file: HubFile) -> str:
        """As the installer asks for it."""
        asked = next(line.path for line in self.requests if "/resolve/" in line.path)
        return f"{self.hub.url}{asked[: asked.index('/resolve/')]}/resolve/{file.commit}/{file.file}"

    def fetch_whole(self, target: Path) -> list[Run]:
        """aria2c for the large files, curl for the small ones."""
        large, small = self.large_and_small()
        target.mkdir(parents=True)
        addresses = self.folder / "aria2.txt"
        addresses.write_text("".join(f"{self.resolve_url(file)}\n  out={file.file}\n" for file in large))
        aria2 = ["aria2c", "--no-conf", "--quiet", f"--dir={target}", f"--input-file={addresses}",
                 f"--ca-certificate={self.hub.certificate}", "--file-allocation=none"]  # fmt: skip
        curl = ["curl", "-q", "--silent", "--show-error", "--fail", "--location", "--cacert", str(self.hub.certificate)]
        for file in small:
            curl += ["--output", str(target / file.file), self.resolve_url(file)]
        environment = self.hub.environment()
        return [run(command, environment=environment, watch=target.parent) for command in (aria2, curl)]

    def keep_geometry(self, target: Path) -> None:
        """What tells the places of the tensors in the artifact, and nothing of their bytes."""
        target.mkdir(exist_ok=True)
        shutil.copyfile(self.artifact() / "packed_experts" / "layout.json", target / "layout.json")
        with (self.artifact() / "model_weights.bin").open("rb") as resident:
            size = int.from_bytes(resident.read(8), "little")
            resident.seek(0)
            (target / "index.bin").write_bytes(resident.read(size))

    def usual_way(self) -> list[Run]:
        """Fetch all, convert, hash. The result must be what was installed."""
        recorded = self.recorded()
        geometry, usual = self.folder / "geometry", self.folder / "usual"
        self.keep_geometry(geometry)
        self.drop_artifact()
        warm(self.source_files)
        os.sync()
        try:
            runs = self.fetch_whole(usual / "shards")
            converter = Path(__file__).with_name("usual_way.py")
            result = usual / "result"
            runs.append(run([sys.executable, "-B", converter, usual / "shards", geometry, result], watch=usual))
            made = sorted(file for file in result.rglob("*") if file.is_file())
            runs.append(run(sha256sum(made), watch=usual))
            compare_sums(runs[-1].output, result, recorded)
        finally:
            remove(usual)
        return runs


def curl_config(hub: Hub, ranges: Sequence[LogLine], target: Path) -> str:
    """For curl to fetch ranges one after another over kept connections, following redirects, into the same file."""
    return "next\n".join(
        f'url = "https://{line.host}:{hub.port}{line.path}"\nrange = "{line.range.removeprefix("bytes=")}"\n'
        f'location\nsilent\nshow-error\nfail\ncacert = "{hub.certificate}"\noutput = "{target}"\n'
        for line in ranges
    )


def compare_sums(output: str, result: Path, recorded: dict[str, dict[str, str | int]]) -> None:
    for line in output.splitlines():
        digest, path = line.split(maxsplit=1)
        name = str(Path(path).relative_to(result))
        if recorded[name]["sha256"] != digest:
            raise RuntimeError(f"the usual way made another {name}")
