"""An HTTPS server on loopback that gives prepared answers.

    with HttpsServer(trusted, stranger) as server:
        server.on(places.PRIMARY_HOST, "/a/package.zip", Reply(body=package))
        url = server.url(places.PRIMARY_HOST, "/a/package.zip")

An answer is chosen by host and path; a request without a prepared answer gets 404. The system chooses
the port unless the caller names one. Each connection has its own thread. A stalled answer waits until
its client leaves or the server closes.
"""

import io
import os
import select
import socket
import ssl
import struct
import threading
import time
from collections.abc import Mapping
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler
from pathlib import Path
from socketserver import ThreadingTCPServer
from typing import NamedTuple

from rig import places
from rig.certificates import Authority


@dataclass(frozen=True)
class Reply:
    """One answer. Counts of bytes are counts of body bytes. A field that is None has no effect."""

    status: int = 200
    body: bytes | Path = b""
    headers: tuple[tuple[str, str], ...] = ()
    declared_length: int | None = -1  # -1: the true length; None: no such header
    chunked: bool = False
    silent: bool = False  # reads the request and never answers
    late_by: float = 0  # seconds between the request and the answer
    pause: tuple[int, float] | None = None  # after so many bytes wait so many seconds
    stall_after: int | None = None  # sends so many bytes and then waits
    cut_after: int | None = None  # sends so many bytes and closes the connection
    reset: bool = False  # after `cut_after`, closes with a reset
    endless: bool = False  # repeats the body without end
    bytes_per_second: int | None = None
    block: int = 64 * 1024  # bytes sent at a time

    def size(self) -> int:
        return len(self.body) if isinstance(self.body, bytes) else self.body.stat().st_size


def redirect(url: str, status: int = 302) -> Reply:
    return Reply(status=status, headers=(("Location", url),))


class Request(NamedTuple):
    host: str
    path: str  # with its query
    headers: Mapping[str, str]  # names in any case
    secure: bool
    method: str = "GET"
    body: bytes = b""


class Connection(BaseHTTPRequestHandler):
    """Serves the requests of one client connection."""

    protocol_version = "HTTP/1.1"
    server: "Listener"

    def handle(self) -> None:
        if self.server.secure:
            self.connection.do_handshake()
        super().handle()

    def do_GET(self) -> None:
        host = self.headers.get("Host", "")
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        request = Request(host.rpartition(":")[0] or host, self.path, self.headers, self.server.secure,
                          self.command, body)
        self.close_connection = not self.answer(self.server.owner.take(request))

    do_POST = do_GET

    def log_message(self, *_: object) -> None:
        pass

    def answer(self, reply: Reply) -> bool:
        """Sends the reply; true when the connection may serve another request."""
        if reply.silent:
            return self.wait_until_closed()
        time.sleep(reply.late_by)
        length = reply.size() if reply.declared_length == -1 else reply.declared_length
        self.send_response(reply.status, "Rehearsed")
        for name, value in reply.headers:
            self.send_header(name, value)
        if reply.chunked:
            self.send_header("Transfer-Encoding", "chunked")
        elif length is not None:
            self.send_header("Content-Length", str(length))
        complete = reply.chunked or length == reply.size()
        self.send_header("Connection", "keep-alive" if complete else "close")
        self.end_headers()
        return self.send_body(reply) and complete

    def send_body(self, reply: Reply) -> bool:
        sent, started = 0, time.monotonic()
        for block in self.blocks(reply):
            self.connection.sendall(b"%x\r\n%b\r\n" % (len(block), block) if reply.chunked else block)
            sent += len(block)
            if reply.pause and sent - len(block) < reply.pause[0] <= sent:
                time.sleep(reply.pause[1])
            if reply.bytes_per_second:
                time.sleep(max(0.0, started + sent / reply.bytes_per_second - time.monotonic()))
        if reply.stall_after is not None:
            return self.wait_until_closed()
        if reply.reset:
            time.sleep(1)  # a reset discards what the client has not read yet
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            os.close(self.connection.detach())
        if reply.chunked and reply.cut_after is None:
            self.connection.sendall(b"0\r\n\r\n")
        return reply.cut_after is None

    @staticmethod
    def blocks(reply: Reply):
        while reply.endless:
            yield reply.body
        left = min(n for n in (reply.size(), reply.stall_after, reply.cut_after) if n is not None)
        with io.BytesIO(reply.body) if isinstance(reply.body, bytes) else reply.body.open("rb") as source:
            while block := source.read(min(reply.block, left)):
                left -= len(block)
                yield block

    def wait_until_closed(self) -> bool:
        while not self.server.owner.closing.wait(0.2):
            if select.select([self.connection], [], [], 0)[0]:
                break
        return False


class Listener(ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    block_on_close = False

    def __init__(self, owner: "HttpsServer", context: ssl.SSLContext | None, address: str, port: int):
        super().__init__((address, port), Connection)
        self.owner = owner
        self.secure = context is not None
        if context:
            self.socket = context.wrap_socket(self.socket, server_side=True, do_handshake_on_connect=False)
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def handle_error(self, *_: object) -> None:
        pass  # the client left or refused our certificate


class HttpsServer:
    """The server, and a second listener without TLS that only records requests."""

    def __init__(self, trusted: Authority, stranger: Authority, address: str = "127.0.0.1", port: int = 0):
        self.lock = threading.Lock()
        self.replies: dict[tuple[str, str], Reply] = {}
        self.seen: list[Request] = []
        self.closing = threading.Event()
        tls, untrusted = (ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER) for _ in range(2))
        tls.load_cert_chain(*trusted.server)
        untrusted.load_cert_chain(*stranger.server)

        def choose(connection: ssl.SSLSocket, name: str | None, _context: ssl.SSLContext) -> None:
            if name == places.UNTRUSTED_HOST:
                connection.context = untrusted

        tls.sni_callback = choose
        self.listener = Listener(self, tls, address, port)
        self.plain = Listener(self, None, address, 0)

    def __enter__(self) -> "HttpsServer":
        return self

    def __exit__(self, *_: object) -> None:
        self.closing.set()
        for listener in (self.listener, self.plain):
            listener.shutdown()
            listener.server_close()

    def url(self, host: str, path: str) -> str:
        return f"https://{host}:{self.listener.server_address[1]}{path}"

    def plain_url(self, host: str, path: str) -> str:
        return f"http://{host}:{self.plain.server_address[1]}{path}"

    def on(self, host: str, path: str, reply: Reply) -> str:
        """Sets the answer for a host and a path without query. Returns the URL."""
        with self.lock:
            self.replies[host, path] = reply
        return self.url(host, path)

    def take(self, request: Request) -> Reply:
        with self.lock:
            self.seen.append(request)
            return self.replies.get((request.host, request.path.partition("?")[0]), Reply(status=404))

    def requests(self, path_start: str = "/") -> list[Request]:
        """The requests so far whose path begins with `path_start`, in the order of their arrival."""
        with self.lock:
            return [request for request in self.seen if request.path.startswith(path_start)]
