#!/usr/bin/env python3
"""A small HTTP file server for the download tests: HEAD and ranged GET over a folder, a bandwidth limit
for paths under /slow/, and a log of what each request sent, so that a test can count the bytes that a
resumed download fetched again.

usage: range_server.py PORT DOCROOT LOGFILE PIDFILE
"""
import http.server
import json
import os
import re
import sys
import threading
import time

PORT, DOCROOT, LOGFILE, PIDFILE = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4]
SLOW_RATE = 16 * 1024 * 1024  # bytes per second under /slow/
CHUNK = 64 * 1024
log_lock = threading.Lock()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def _resolve(self):
        path = self.path.split("?", 1)[0]
        slow = path.startswith("/slow/")
        if slow:
            path = path[len("/slow"):]
        full = os.path.realpath(os.path.join(DOCROOT, path.lstrip("/")))
        root = os.path.realpath(DOCROOT)
        if not full.startswith(root + os.sep) or not os.path.isfile(full):
            return None, slow
        return full, slow

    def _record(self, start, sent):
        with log_lock, open(LOGFILE, "a") as log:
            log.write(json.dumps({"method": self.command, "path": self.path, "start": start, "sent": sent}) + "\n")

    def do_HEAD(self):
        full, _ = self._resolve()
        if not full:
            self.send_error(404)
            return
        self.send_response(200)
        self.send_header("Content-Length", str(os.path.getsize(full)))
        self.send_header("Accept-Ranges", "bytes")
        self.end_headers()
        self._record(0, 0)

    def do_GET(self):
        full, slow = self._resolve()
        if not full:
            self.send_error(404)
            return
        size = os.path.getsize(full)
        start, end = 0, size - 1
        match = re.match(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        if match:
            start = int(match.group(1))
            if match.group(2):
                end = min(int(match.group(2)), size - 1)
            if start >= size:
                self.send_response(416)
                self.send_header("Content-Range", "bytes */%d" % size)
                self.send_header("Content-Length", "0")
                self.end_headers()
                return
            self.send_response(206)
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end, size))
        else:
            self.send_response(200)
        length = end - start + 1
        self.send_header("Content-Length", str(length))
        self.send_header("Accept-Ranges", "bytes")
        self.end_headers()
        sent = 0
        began = time.monotonic()
        try:
            with open(full, "rb") as f:
                f.seek(start)
                while sent < length:
                    data = f.read(min(CHUNK, length - sent))
                    if not data:
                        break
                    self.wfile.write(data)
                    sent += len(data)
                    if slow:
                        ahead = sent / SLOW_RATE - (time.monotonic() - began)
                        if ahead > 0:
                            time.sleep(ahead)
        except (BrokenPipeError, ConnectionResetError):
            pass
        finally:
            self._record(start, sent)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    os.makedirs(DOCROOT, exist_ok=True)
    server = Server(("127.0.0.1", PORT), Handler)
    with open(PIDFILE, "w") as f:
        f.write(str(os.getpid()))
    server.serve_forever()


if __name__ == "__main__":
    main()
