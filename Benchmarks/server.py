"""nginx as the model hub: its own process, folder and certificate, on loopback unless told otherwise."""

import grp
import json
import os
import pwd
import re
import shutil
import socket
import ssl
import subprocess
import time
import urllib.request
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType

START_ATTEMPTS = 5
START_SECONDS = 10.0
STOP_SECONDS = 10.0


@dataclass(frozen=True)
class HubFile:
    """What the hub says of a file besides its bytes. A small file has no xet hash."""

    file: str
    size: int
    commit: str
    contentTag: str
    xetHash: str

    @staticmethod
    def parse(lines: str) -> list["HubFile"]:
        return [HubFile(**json.loads(line)) for line in lines.splitlines()]


@dataclass(frozen=True)
class LogLine:
    connection: str
    host: str
    method: str
    status: int
    body_bytes: int
    path: str
    range: str

    @property
    def range_bytes(self) -> int:
        first, last = self.range.removeprefix("bytes=").split("-")
        return int(last) - int(first) + 1


LOG_FORMAT = "$connection $host $request_method $status $body_bytes_sent $uri $http_range"
BARRIER = "/barrier"


def parse_log_line(line: str) -> LogLine:
    connection, host, method, status, body_bytes, path, asked = line.split(" ")
    return LogLine(connection, host, method, int(status), int(body_bytes), path, asked)


class Hub:
    """Serves `folder` as the hub does: small files by a relative 307, large ones by a 302 to the storage host. Use it
    with `with`. `slow` names one range of the storage host that is served at a byte a second. The hosts are names or
    addresses that the clients can reach at `listen`; `prefix` goes before the server's command, `reach` is called with
    a URL and returns once it was answered (for a server that this process itself cannot reach)."""

    def __init__(
        self,
        work: Path,
        folder: Path,
        files: Sequence[HubFile],
        *,
        hub_host: str = "localhost",
        storage_host: str = "127.0.0.1",
        listen: Sequence[str] = ("127.0.0.1",),
        prefix: Sequence[str] = (),
        slow: LogLine | None = None,
        reach: Callable[[str], None] | None = None,
    ) -> None:
        self.work = work.resolve()
        self.folder = folder.resolve()
        self.files = files
        self.hub_host = hub_host
        self.storage_host = storage_host
        self.listen = listen
        self.prefix = prefix
        self.slow = slow
        self.reach = reach or self._ask
        self.port = 0
        self.process: subprocess.Popen[bytes] | None = None
        self.certificate = self.work / "certificate.pem"
        self.log = self.work / "access.log"

    @property
    def url(self) -> str:
        return f"https://{self.hub_host}:{self.port}"

    def environment(self) -> Mapping[str, str]:
        """What the installer must know of this hub."""
        own_hosts = f"{self.hub_host},{self.storage_host}"
        return {"HF_ENDPOINT": self.url, "SSL_CERT_FILE": str(self.certificate), "no_proxy": own_hosts}

    def __enter__(self) -> "Hub":
        self.work.mkdir(parents=True, exist_ok=True)
        make_certificate(self.certificate, [self.hub_host, self.storage_host])
        for _ in range(START_ATTEMPTS):
            self._start()
            if self._is_up():
                return self
            self._stop()
        raise RuntimeError(f"nginx did not start:\n{(self.work / 'error.log').read_text()[-2000:]}")

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._stop()

    def mark(self) -> int:
        """A place in the log, for `requests`."""
        self.reach(self.url + BARRIER)
        return self.log.stat().st_size

    def requests(self, mark: int) -> list[LogLine]:
        """What was asked since `mark`. The one worker writes a request's line before it reads the next request, so
        that one more request makes sure of all before it."""
        self.reach(self.url + BARRIER)
        with self.log.open() as log:
            log.seek(mark)
            lines = [parse_log_line(line) for line in log.read().splitlines()]
        return [line for line in lines if line.path != BARRIER]

    def _start(self) -> None:
        self.port = free_port()
        (self.work / "nginx.conf").write_text(self._configuration())
        self.log.touch()
        errors = str(self.work / "error.log")
        command = [*self.prefix, program(), "-p", str(self.work), "-c", "nginx.conf", "-e", errors]
        with (self.work / "output.log").open("wb") as output:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)

    def _stop(self) -> None:
        if self.process is not None:
            stop_process(self.process)
            self.process = None

    def _is_up(self) -> bool:
        deadline = time.monotonic() + START_SECONDS
        while self.process is not None and self.process.poll() is None and time.monotonic() < deadline:
            try:
                self.reach(self.url + BARRIER)
                return True
            except OSError:
                time.sleep(0.02)
        return False

    def _ask(self, url: str) -> None:
        trust = ssl.create_default_context(cafile=str(self.certificate))
        opener = urllib.request.build_opener(
            urllib.request.ProxyHandler({}), urllib.request.HTTPSHandler(context=trust)
        )
        opener.open(url, timeout=5).close()

    def _configuration(self) -> str:
        listen = " ".join(f"listen {address}:{self.port} ssl;" for address in self.listen)
        temporary = " ".join(
            f"{kind}_temp_path {kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        )
        hub = "\n    ".join(hub_locations(file, self.storage_host, self.port, self.folder) for file in self.files)
        storage = "\n    ".join(storage_location(file, self.folder) for file in self.files if file.xetHash)
        slow = f'"{self.slow.path} {self.slow.range}" 1;' if self.slow else ""
        return f"""daemon off;
worker_processes 1;
user {user_and_group()};
pid nginx.pid;
events {{ worker_connections 256; }}
http {{
  log_format requests '{LOG_FORMAT}';
  access_log access.log requests;
  {temporary}
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  keepalive_timeout 1h;
  absolute_redirect off;
  etag off;
  default_type application/octet-stream;
  ssl_certificate "{self.certificate}";
  ssl_certificate_key "{self.certificate.with_suffix(".key")}";
  map_hash_bucket_size 256;
  map "$uri $http_range" $pace {{ default 0; {slow} }}
  server {{
    {listen}
    server_name {self.hub_host};
    location = {BARRIER} {{ return 204; }}
    {hub}
    location / {{ add_header x-error-code EntryNotFound always; return 404 "Entry not found"; }}
  }}
  server {{
    {listen}
    server_name {self.storage_host};
    if ($http_authorization) {{ return 400 "Only one auth mechanism allowed"; }}
    {storage}
    location / {{ return 403; }}
  }}
}}
"""


def hub_locations(file: HubFile, storage_host: str, port: int, folder: Path) -> str:
    name = re.escape(file.file)
    asked = f"~ ^/(?<owner>[^/]+)/(?<name>[^/]+)/resolve/(?<revision>[^/]+)/{name}$"
    commit = f"add_header x-repo-commit {file.commit} always;"
    tag = f"""add_header x-linked-etag '"{file.contentTag}"' always;"""
    ranges = "add_header accept-ranges bytes always;"
    if file.xetHash:
        query = f"X-Amz-Expires=3600&X-Amz-SignedHeaders=host&X-Amz-Signature={file.contentTag}&Key-Pair-Id=BENCH"
        return (
            f"location {asked} {{ {commit} {tag} {ranges} add_header x-linked-size {file.size} always; "
            f"add_header x-xet-hash {file.xetHash} always; add_header cache-control no-store always; "
            f"return 302 https://{storage_host}:{port}/xet-bridge/{file.xetHash}?{query}; }}"
        )
    cached = f"/api/resolve-cache/models/$owner/$name/{file.commit}/{file.file}"
    query = f"%2F$owner%2F$name%2Fresolve%2F$revision%2F{file.file}=&etag=%22{file.contentTag}%22"
    return (
        f'location {asked} {{ {commit} {tag} {ranges} return 307 "{cached}?{query}"; }}\n'
        f"    location ~ ^/api/resolve-cache/models/[^/]+/[^/]+/{file.commit}/{name}$ {{ {commit} "
        f"""add_header ETag '"{file.contentTag}"'; alias "{folder / file.file}"; }}"""
    )


def storage_location(file: HubFile, folder: Path) -> str:
    return (
        f"location = /xet-bridge/{file.xetHash} {{ limit_rate $pace; "
        f"""add_header ETag '"{file.xetHash}"'; alias "{folder / file.file}"; }}"""
    )


def program() -> str:
    """Debian keeps it where only root's PATH looks."""
    found = shutil.which("nginx") or shutil.which("nginx", path="/usr/sbin:/usr/local/sbin")
    if not found:
        raise RuntimeError("nginx is missing")
    return found


def user_and_group() -> str:
    """This process's own, so that the server can read what it can."""
    return f"{pwd.getpwuid(os.getuid()).pw_name} {grp.getgrgid(os.getgid()).gr_name}"


def stop_process(process: subprocess.Popen[bytes]) -> None:
    process.terminate()
    try:
        process.wait(STOP_SECONDS)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def make_certificate(path: Path, hosts: Sequence[str]) -> None:
    names = ",".join(("IP:" if host[0].isdigit() else "DNS:") + host for host in hosts)
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=bench",
         "-addext", f"subjectAltName={names}", "-keyout", path.with_suffix(".key"), "-out", path],
        check=True,
        capture_output=True,
    )  # fmt: skip
