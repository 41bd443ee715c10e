"""An HTTPS server on loopback whose every answer is laid down beforehand.

    with HttpsServer(trusted, stranger) as server:
        server.on(places.PRIMARY_HOST, "/a/package.zip", Reply(body=package))
        url = server.url(places.PRIMARY_HOST, "/a/package.zip")

Answers are found by host and path; whatever was not laid down is a 404. The system chooses the
port unless one is asked for. Each connection has its own thread, and a stalled one waits until its
client leaves or the server closes.
"""

import select
import socket
import socketserver
import ssl
import struct
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

import places
from certificates import Authority

BLOCK = 64 * 1024


@dataclass(frozen=True)
class Reply:
    """One answer. Byte counts are counts of body bytes; what is None does not happen."""

    status: int = 200
    body: bytes | Path = b""
    headers: tuple[tuple[str, str], ...] = ()
    declared_length: int | None = -1  # -1 the true one, None no such header
    chunked: bool = False
    silent: bool = False  # takes the request and never answers
    late_by: float = 0  # seconds between the request and the answer
    pause: tuple[int, float] | None = None  # after so many bytes nothing for so many seconds
    stall_after: int | None = None  # sends so many bytes, then nothing more
    cut_after: int | None = None  # sends so many bytes, then closes the connection
    reset: bool = False  # closes it with a reset
    endless: bool = False  # sends the body again and again
    bytes_per_second: int | None = None
    block: int = BLOCK  # bytes handed to the network at a time

    def size(self) -> int:
        return len(self.body) if isinstance(self.body, bytes) else self.body.stat().st_size


def redirect(url: str, status: int = 302) -> Reply:
    return Reply(status=status, headers=(("Location", url),))


class Request(NamedTuple):
    host: str
    path: str  # with its query
    headers: dict[str, str]  # names in lower case
    secure: bool
    method: str = "GET"
    body: bytes = b""


class Connection(socketserver.StreamRequestHandler):
    """Serves the requests of one client connection."""

    server: "Listener"

    def handle(self) -> None:
        try:
            if self.server.secure:
                self.handshake()
            while self.serve_one():
                pass
        except (OSError, ValueError):
            pass  # the client left, or would not have our certificate

    def handshake(self) -> None:
        self.request = self.server.owner.tls.wrap_socket(self.request, server_side=True)
        self.rfile = self.request.makefile("rb")

    def finish(self) -> None:
        try:
            self.request.close()
        except OSError:
            pass
        super().finish()

    def serve_one(self) -> bool:
        line = self.rfile.readline(BLOCK).decode("latin-1").split()
        if len(line) != 3:
            return False
        headers = {}
        while header := self.rfile.readline(BLOCK).decode("latin-1").rstrip("\r\n"):
            name, _, value = header.partition(":")
            headers[name.strip().lower()] = value.strip()
        host = headers.get("host", "").rpartition(":")[0] or headers.get("host", "")
        body = self.rfile.read(int(headers.get("content-length", "0")))
        request = Request(host, line[1], headers, self.server.secure, line[0], body)
        return self.answer(self.server.owner.take(request))

    def answer(self, reply: Reply) -> bool:
        if reply.silent:
            self.wait_for_the_end()
            return False
        time.sleep(reply.late_by)
        length = reply.size() if reply.declared_length == -1 else reply.declared_length
        lines = [f"HTTP/1.1 {reply.status} Rehearsed", *(f"{n}: {v}" for n, v in reply.headers)]
        if reply.chunked:
            lines.append("Transfer-Encoding: chunked")
        elif length is not None:
            lines.append(f"Content-Length: {length}")
        complete = reply.chunked or length == reply.size()
        lines.append(f"Connection: {'keep-alive' if complete else 'close'}")
        self.request.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
        return self.send_body(reply) and complete

    def send_body(self, reply: Reply) -> bool:
        limit = min(n for n in (reply.size(), reply.stall_after, reply.cut_after) if n is not None)
        sent, started = 0, time.monotonic()
        for block in self.blocks(reply, limit):
            self.request.sendall(b"%x\r\n%b\r\n" % (len(block), block) if reply.chunked else block)
            sent += len(block)
            if reply.pause and sent - len(block) < reply.pause[0] <= sent:
                time.sleep(reply.pause[1])
            if reply.bytes_per_second:
                time.sleep(max(0.0, started + sent / reply.bytes_per_second - time.monotonic()))
        if reply.stall_after is not None:
            self.wait_for_the_end()
            return False
        if reply.cut_after is not None:
            if reply.reset:
                self.request.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return False
        if reply.chunked:
            self.request.sendall(b"0\r\n\r\n")
        return True

    @staticmethod
    def blocks(reply: Reply, limit: int):
        while reply.endless:
            yield reply.body
        if isinstance(reply.body, bytes):
            for start in range(0, limit, reply.block):
                yield reply.body[start:min(start + reply.block, limit)]
            return
        with reply.body.open("rb") as file:
            while limit > 0 and (block := file.read(min(reply.block, limit))):
                limit -= len(block)
                yield block

    def wait_for_the_end(self) -> None:
        while not self.server.owner.closing.wait(0.2):
            if select.select([self.request], [], [], 0)[0]:
                return


class Listener(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    block_on_close = False

    def __init__(self, owner: "HttpsServer", secure: bool, address: str, port: int):
        super().__init__((address, port), Connection)
        self.owner = owner
        self.secure = secure
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()


class HttpsServer:
    """The server, and a second listener in plain text that only notes who comes by."""

    def __init__(self, trusted: Authority, stranger: Authority, address: str = "127.0.0.1",
                 port: int = 0):
        self.lock = threading.Lock()
        self.replies: dict[tuple[str, str], Reply] = {}
        self.seen: list[Request] = []
        self.closing = threading.Event()
        self.tls = server_context(trusted)
        untrusted = server_context(stranger)

        def choose(connection: ssl.SSLSocket, name: str | None, _context: ssl.SSLContext) -> None:
            if name == places.UNTRUSTED_HOST:
                connection.context = untrusted

        self.tls.sni_callback = choose
        self.listener = Listener(self, True, address, port)
        self.plain = Listener(self, False, address, 0)

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
        """Lays down the answer for a host and path (without its query); gives its URL."""
        with self.lock:
            self.replies[host, path] = reply
        return self.url(host, path)

    def take(self, request: Request) -> Reply:
        with self.lock:
            self.seen.append(request)
            return self.replies.get((request.host, request.path.partition("?")[0]), Reply(status=404))

    def requests(self, path_start: str = "/") -> list[Request]:
        with self.lock:
            return [request for request in self.seen if request.path.startswith(path_start)]


def server_context(authority: Authority) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(authority.server, authority.server_key)
    return context
