#!/usr/bin/env python3
"""A scripted HTTP server on 127.0.0.1 that serves a folder and misbehaves on request.

Every path is served from the root folder (200 with Content-Length and keep-alive, 404 when
missing) unless a rule names it. A rule is "PATTERN=FAULT", PATTERN an fnmatch pattern of the
URL path ("/0123...", "*.lzma"), FAULT one of:

    status:N         answer with HTTP status N and a short body (e.g. status:404, status:500)
    truncate[:N]     announce the full Content-Length, send N bytes (default: half), close
    wrong            the right length, but the bytes differ (each byte inverted)
    corrupt-lzma     a ".lzma" stream whose data cannot be decoded: the file itself when it
                     exists, else the lzma copy of the path without ".lzma", damaged after the
                     13-byte header (a decoder reports corrupt data)
    lzma-of-wrong    a valid ".lzma" stream that decodes to other bytes than the plain file
    stall[:N]        announce the full Content-Length, send N bytes (default: half), then hold
                     the connection open without sending more until the server stops
    stall-complete   send the whole file without a length ("read until close"), then hold the
                     connection open: the client has every byte but never sees the end

The first matching rule wins. Each handled request is recorded (see requests).

Use from python:

    from fault_server import FaultServer
    with FaultServer(root, {"*.lzma": "status:404", "/abc": "stall"}) as server:
        fetch(server.url + "/abc")
        server.requests   # list of (method, path, status, fault)
"""
import fnmatch
import http.server
import lzma
import os
import socketserver
import sys
import threading

FAULTS = ("status", "truncate", "wrong", "corrupt-lzma", "lzma-of-wrong", "stall", "stall-complete", "endless",
          "overlong", "endless-lzma", "long-lzma", "lzma-bomb", "slow")

ENDLESS_CHUNK = bytes(range(256)) * 256  # 64 KiB, never all zeros


def parse_fault(text):
    name, _, arg = text.partition(":")
    if name not in FAULTS:
        raise ValueError("unknown fault '%s' (known: %s)" % (text, ", ".join(FAULTS)))
    if name == "status" and not arg.isdigit():
        raise ValueError("status needs a number: status:404")
    if arg and not arg.isdigit():
        raise ValueError("fault argument must be a number: '%s'" % text)
    return name, (int(arg) if arg else None)


def lzma_alone(data):
    return lzma.compress(data, format=lzma.FORMAT_ALONE, preset=6)


def lzma_header(size):
    """The 13-byte header of a ".lzma" stream (lc=3 lp=0 pb=2, 8 MiB dictionary); None: unknown size."""
    return b"\x5d\x00\x00\x80\x00" + (b"\xff" * 8 if size is None else size.to_bytes(8, "little"))


_BOMB = {}


def lzma_bomb(claimed):
    if claimed not in _BOMB:
        stream = lzma.compress(b"\0" * (64 << 20), format=lzma.FORMAT_ALONE, preset=6)
        _BOMB[claimed] = lzma_header(claimed)[:5] + claimed.to_bytes(8, "little") + stream[13:]
    return _BOMB[claimed]


def corrupt_lzma(stream):
    # The range coder's first byte must be zero: making it non-zero is a sure decode failure;
    # the bytes after it are scrambled as well so it is no mere one-bit flip.
    b = bytearray(stream)
    if len(b) > 13:
        b[13] = 0xFF
        for i in range(14, min(len(b), 64)):
            b[i] ^= 0xA5
    else:
        b = bytearray(b"\x5d\x00\x00\x80\x00" + b"\xff" * 8 + b"\xff" * 8)
    return bytes(b)


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # headers and body go out as separate writes
    server_version = "KsFaultServer/1"

    def log_message(self, *_):
        pass

    def _record(self, status, fault):
        self.server.owner._record(self.command, self.path, status, fault)

    def _read(self, path):
        full = os.path.join(self.server.owner.root, path.lstrip("/"))
        if not os.path.isfile(full):
            return None
        with open(full, "rb") as f:
            return f.read()

    def _send(self, status, body, length=None, close=False):
        self.send_response(status)
        self.send_header("Content-Type", "application/octet-stream")
        if length is not False:
            self.send_header("Content-Length", str(len(body) if length is None else length))
        if close:
            self.send_header("Connection", "close")
            self.close_connection = True
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)
            self.wfile.flush()

    def _stall(self):
        # Hold the connection until the server stops.
        self.server.owner._stop_event.wait()
        self.close_connection = True

    def _endless(self):
        # Bytes until the client closes the connection or the server stops.
        try:
            while not self.server.owner._stop_event.is_set():
                self.wfile.write(ENDLESS_CHUNK)
        except OSError:
            pass
        self.close_connection = True

    def _head(self, length=None):
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        if length is None:
            self.send_header("Connection", "close")
            self.close_connection = True
        else:
            self.send_header("Content-Length", str(length))
        self.end_headers()

    def do_HEAD(self):
        self.do_GET()

    def do_GET(self):
        path = self.path.split("?", 1)[0]
        fault = self.server.owner.fault_for(path)
        if fault is None:
            body = self._read(path)
            if body is None:
                self._record(404, "-")
                self._send(404, b"not found\n")
            else:
                self._record(200, "-")
                self._send(200, body)
            return
        name, arg = fault
        label = name if arg is None else "%s:%d" % (name, arg)
        if name == "status":
            self._record(arg, label)
            self._send(arg, ("status %d\n" % arg).encode())
            return
        if name in ("corrupt-lzma", "lzma-of-wrong"):
            plain_path = path[:-5] if path.endswith(".lzma") else path
            if name == "corrupt-lzma":
                body = self._read(path)
                if body is None:
                    plain = self._read(plain_path)
                    body = lzma_alone(plain) if plain is not None else b""
                body = corrupt_lzma(body)
            else:
                plain = self._read(plain_path) or b""
                body = lzma_alone(bytes(x ^ 0xFF for x in plain) + b"?")
            self._record(200, label)
            self._send(200, body)
            return
        if name in ("endless", "endless-lzma"):
            self._record(200, label)
            self._head()
            if name == "endless":
                self.wfile.write(self._read(path) or b"")
            else:
                self.wfile.write(lzma_header(arg) + b"\0")
            self._endless()
            return
        if name == "long-lzma":
            self._record(200, label)
            self._head()
            try:
                self.wfile.write(lzma_header(None) + b"\0")
                for _ in range(16 * (64 if arg is None else arg)):
                    self.wfile.write(ENDLESS_CHUNK)
            except OSError:
                pass
            return
        if name == "lzma-bomb":
            body = lzma_bomb(1000 if arg is None else arg)
            self._record(200, label)
            self._send(200, body)
            return
        body = self._read(path)
        if body is None:
            self._record(404, label)
            self._send(404, b"not found\n")
            return
        if name == "wrong":
            self._record(200, label)
            self._send(200, bytes(x ^ 0xFF for x in body) if body else b"?")
            return
        if name in ("truncate", "stall"):
            n = len(body) // 2 if arg is None else min(arg, len(body))
            self._record(200, label)
            self.send_response(200)
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body[:n])
            self.wfile.flush()
            if name == "stall":
                self._stall()
            self.close_connection = True
            return
        if name == "overlong":
            self._record(200, label)
            self._head(len(body))
            self.wfile.write(body)
            self._endless()
            return
        if name == "slow":
            self._record(200, label)
            self._head(len(body))
            pause = (200 if arg is None else arg) / 1000.0
            try:
                for i in range(0, len(body), 16384):
                    self.wfile.write(body[i:i + 16384])
                    self.wfile.flush()
                    if self.server.owner._stop_event.wait(pause):
                        break
            except OSError:
                pass
            self.close_connection = True
            return
        if name == "stall-complete":
            self._record(200, label)
            self.send_response(200)
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(body)
            self.wfile.flush()
            self._stall()
            return


class _Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def handle_error(self, request, client_address):
        # A client that hangs up on a faulty answer is what the faults are for, not an error.
        if isinstance(sys.exc_info()[1], (BrokenPipeError, ConnectionResetError)):
            return
        super().handle_error(request, client_address)


class FaultServer:
    """The scripted server; rules is a dict or a list of (pattern, fault text) pairs."""

    def __init__(self, root, rules=None, port=0):
        self.root = os.path.abspath(root)
        self.port = port
        self.requests = []
        self._rules = []
        self._lock = threading.Lock()
        self._stop_event = threading.Event()
        self._server = None
        self._thread = None
        items = rules.items() if isinstance(rules, dict) else (rules or [])
        for pattern, fault in items:
            self.rule(pattern, fault)

    @property
    def url(self):
        return "http://127.0.0.1:%d" % self.port

    def rule(self, pattern, fault):
        """Adds a rule (also while running); fault None removes the pattern's rules."""
        with self._lock:
            self._rules = [r for r in self._rules if r[0] != pattern]
            if fault is not None:
                self._rules.append((pattern, parse_fault(fault)))

    def fault_for(self, path):
        with self._lock:
            for pattern, fault in self._rules:
                if fnmatch.fnmatchcase(path, pattern):
                    return fault
        return None

    def _record(self, method, path, status, fault):
        with self._lock:
            self.requests.append((method, path, status, fault))

    def start(self):
        self._stop_event.clear()
        self._server = _Server(("127.0.0.1", self.port), _Handler)
        self._server.owner = self
        self.port = self._server.server_address[1]
        self._thread = threading.Thread(target=self._server.serve_forever, kwargs={"poll_interval": 0.05},
                                        daemon=True)
        self._thread.start()
        return self

    def stop(self):
        self._stop_event.set()  # releases stalled answers
        if self._server is not None:
            self._server.shutdown()
            self._server.server_close()
            self._server = None
        if self._thread is not None:
            self._thread.join(timeout=5)
            self._thread = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()
