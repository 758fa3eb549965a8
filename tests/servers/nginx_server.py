#!/usr/bin/env python3
"""nginx on 127.0.0.1 with a free port, serving one folder, for tests and benchmarks.

Use from python:

    from nginx_server import NginxServer
    with NginxServer("/path/to/www") as server:
        fetch(server.url + "/file")
        server.requests()      # parsed access log: one dict per request
        server.connections()   # number of distinct connections seen

or from any other program (C++ tests start it through QProcess):

    python3 nginx_server.py --root /path/to/www

which prints "ACCESS_LOG <path>" and then "PORT <n>" once nginx listens, and stops nginx when
its standard input reaches end of file or it gets SIGTERM/SIGINT.

The configuration, pid file, logs and nginx's temporary folders all live in one private temp
folder that is removed on stop. Running as root works: the workers then run as root too, so
they can read folders that only root may enter (such as a test's private temp folder).
"""
import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

# One line per request: connection serial number, requests so far on that connection, the
# request line, status and body bytes. Fields are separated by tabs.
LOG_FORMAT = "$connection\\t$connection_requests\\t$request\\t$status\\t$body_bytes_sent"


def find_nginx():
    for d in os.environ.get("PATH", "").split(os.pathsep) + ["/usr/sbin", "/usr/local/sbin", "/sbin"]:
        p = os.path.join(d, "nginx")
        if os.path.isfile(p) and os.access(p, os.X_OK):
            return p
    raise RuntimeError("nginx not found (install nginx-light)")


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class NginxServer:
    """One nginx instance serving root on 127.0.0.1:port (a free port unless given)."""

    def __init__(self, root, port=None, keep_temp=False):
        self.root = os.path.abspath(root)
        self.port = port
        self.keep_temp = keep_temp
        self.temp = None
        self.process = None
        self.access_log = None
        self.error_log = None

    @property
    def url(self):
        return "http://127.0.0.1:%d" % self.port

    def _config(self):
        user = "user root root;\n" if os.geteuid() == 0 else ""
        t = self.temp
        return f"""{user}worker_processes 1;
daemon off;
pid {t}/nginx.pid;
error_log {t}/error.log warn;
events {{ worker_connections 1024; }}
http {{
    default_type application/octet-stream;
    log_format ks '{LOG_FORMAT}';
    access_log {t}/access.log ks;
    client_body_temp_path {t}/client_body;
    proxy_temp_path {t}/proxy;
    fastcgi_temp_path {t}/fastcgi;
    uwsgi_temp_path {t}/uwsgi;
    scgi_temp_path {t}/scgi;
    sendfile on;
    tcp_nopush on;
    keepalive_timeout 120s;
    keepalive_requests 1000000;
    server {{
        listen 127.0.0.1:{self.port};
        server_name localhost;
        root {self.root};
        autoindex off;
    }}
}}
"""

    def start(self, timeout=20.0):
        if not os.path.isdir(self.root):
            raise RuntimeError("not a folder: %s" % self.root)
        self.temp = tempfile.mkdtemp(prefix="ks-nginx-")
        self.access_log = os.path.join(self.temp, "access.log")
        self.error_log = os.path.join(self.temp, "error.log")
        # A port taken between our probe and nginx's bind is retried with another one.
        fixed = self.port is not None
        for _ in range(1 if fixed else 5):
            if not fixed:
                self.port = free_port()
            conf = os.path.join(self.temp, "nginx.conf")
            with open(conf, "w") as f:
                f.write(self._config())
            # -e: nginx would otherwise open the distribution's error log before reading ours.
            self.process = subprocess.Popen(
                [find_nginx(), "-p", self.temp, "-c", conf, "-e", self.error_log],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            deadline = time.monotonic() + timeout
            while time.monotonic() < deadline:
                if self.process.poll() is not None:
                    break
                try:
                    with socket.create_connection(("127.0.0.1", self.port), timeout=0.5):
                        return self
                except OSError:
                    time.sleep(0.02)
            err = self._drain_failure()
            if "Address already in use" not in err:
                self.stop()
                raise RuntimeError("nginx did not start: %s" % err.strip())
        self.stop()
        raise RuntimeError("nginx did not find a free port")

    def _drain_failure(self):
        if self.process.poll() is None:
            self.process.kill()
        try:
            _, err = self.process.communicate(timeout=5)
        except subprocess.TimeoutExpired:
            err = b""
        text = err.decode("latin-1")
        try:
            with open(self.error_log, encoding="latin-1") as f:
                text += f.read()
        except OSError:
            pass
        self.process = None
        return text

    def stop(self):
        if self.process is not None:
            if self.process.poll() is None:
                self.process.send_signal(signal.SIGTERM)  # fast shutdown, also of idle keep-alive connections
                try:
                    self.process.wait(timeout=10)
                except subprocess.TimeoutExpired:
                    self.process.kill()
                    self.process.wait()
            if self.process.stderr:
                self.process.stderr.close()
            self.process = None
        if self.temp and not self.keep_temp:
            shutil.rmtree(self.temp, ignore_errors=True)
            self.temp = None

    def requests(self):
        """The access log so far: dicts with connection, number, request, path, status, bytes."""
        out = []
        try:
            with open(self.access_log, encoding="latin-1") as f:
                for line in f:
                    parts = line.rstrip("\n").split("\t")
                    if len(parts) != 5:
                        continue
                    req = parts[2].split(" ")
                    out.append({"connection": int(parts[0]), "number": int(parts[1]), "request": parts[2],
                                "path": req[1] if len(req) > 1 else "", "status": int(parts[3]),
                                "bytes": int(parts[4])})
        except OSError:
            pass
        return out

    def connections(self):
        return len({r["connection"] for r in self.requests()})

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


def main():
    ap = argparse.ArgumentParser(description="Serve a folder with nginx on 127.0.0.1.")
    ap.add_argument("--root", required=True, help="folder to serve")
    ap.add_argument("--port", type=int, default=None, help="port (default: a free one)")
    ap.add_argument("--keep-temp", action="store_true", help="keep the configuration and logs")
    args = ap.parse_args()
    server = NginxServer(args.root, args.port, args.keep_temp)
    stopping = []

    def on_signal(*_):
        stopping.append(1)
        server.stop()
        sys.exit(0)

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    try:
        server.start()
    except RuntimeError as e:
        sys.stderr.write("%s\n" % e)
        return 1
    sys.stdout.write("ACCESS_LOG %s\nPORT %d\n" % (server.access_log, server.port))
    sys.stdout.flush()
    try:
        # Runs until the parent closes our standard input (or goes away).
        while sys.stdin.buffer.read(65536):
            pass
    finally:
        server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
