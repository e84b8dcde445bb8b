#!/usr/bin/env python3
"""The soak's file server: serves the blocks of one package (HEAD and ranged GET, rate-limited per
response) and injects the faults that the soak arms, once each, and counts what every fault cost.

usage: soak_server.py PORT DOCROOT PIDFILE BLOCK[,BLOCK...] [RATE]
  BLOCKs are the package's block files in DOCROOT, in order; together they form one logical stream
  whose offsets ("global") place the faults. RATE is bytes per second per response (0: unlimited).

With "/__reset?proxy=1" the server also plays the client's proxy: all but the control requests come in
proxy form (an absolute URL) with Basic credentials PROXY_USER:PROXY_PASSWORD; without them the answer
is 407. Direct block requests are refused (400) in that mode, so a client that bypasses the proxy fails.

Control requests (loopback only, never faulted):
  /__reset[?proxy=1]                    forget faults, cost records and the high-water mark; proxy mode
  /__arm?kind=fin|rst|stall|p407&at=G   once the stream is first served past global offset G: close
                                        (FIN), reset (RST) or hold the connection without sending; p407
                                        closes it and answers the next proxied request 407 whatever
                                        credentials it carries (the proxy's login has expired)
  /__arm?kind=http500&block=B&count=N   the next N GETs of block B (0-based) are answered 500
  /__mark?kind=K                        a fault the soak caused itself (a killed process) starts now
  /__high                               the high-water mark
  /__report                             JSON: one record per fault with the bytes served again and the
                                        seconds until a later request sent past the fault's point; faults
                                        armed but not fired; the 407 answers given and those the client
                                        answered with good credentials

The server ends with the process that started it (the soak). Served again = bytes sent below the high-water mark (the furthest global offset ever sent), charged
to the latest fault.
"""
import base64
import http.server
import json
import os
import socket
import struct
import sys
import threading
import time
import urllib.parse

PORT, DOCROOT, PIDFILE = int(sys.argv[1]), sys.argv[2], sys.argv[3]
BLOCKS = sys.argv[4].split(",")
RATE = int(sys.argv[5]) if len(sys.argv) > 5 else 0
CHUNK = 64 * 1024
PROXY_USER, PROXY_PASSWORD = "soaker", "Pr0xy-soak-pw"
PROXY_CREDENTIALS = "Basic " + base64.b64encode(("%s:%s" % (PROXY_USER, PROXY_PASSWORD)).encode()).decode()
STALL_LIMIT = 45.0  # a stalled connection is held at most this long, or until the client drops it

SIZES = [os.path.getsize(os.path.join(DOCROOT, b)) for b in BLOCKS]
OFFSETS = [sum(SIZES[:i]) for i in range(len(SIZES))]


class Ledger:
    """What was sent, which faults are armed, and what each fired fault cost."""

    def __init__(self):
        self.lock = threading.Lock()
        self.reset()

    def reset(self):
        self.high = 0
        self.requests = 0
        self.proxy = False
        self.challenges = 0      # 407 answers sent
        self.answered = 0        # 407s followed by a request with good credentials
        self.owed = 0            # challenges not answered yet
        self.expired = False     # the next proxied request gets a 407 whatever it carries
        self.armed = []      # [kind, at] waiting for the stream to pass at
        self.answers = {}    # block -> [remaining 500 answers, cost record]
        self.faults = [self._record("none", 0)]

    def _record(self, kind, at):
        # Only a request made after the fault can end it: a dying connection may still drain.
        return {"kind": kind, "at": at, "t0": time.time(), "refetched": 0, "requests": 0, "seconds": None,
                "serial": self.requests}

    def open_fault(self, kind):
        with self.lock:
            record = self._record(kind, self.high)
            self.faults.append(record)
            return record

    def fault_in(self, begin, length, serial):
        """The armed stream fault that lies in [begin, begin + length) of new ground, taken off the list.
        Only a request made after the latest fault meets one: a killed client's connection may still be
        draining, and its bytes belong to the kill."""
        with self.lock:
            if serial <= self.faults[-1]["serial"]:
                return None
            for item in self.armed:
                kind, at = item
                if begin <= at < begin + length and at >= self.high:
                    self.armed.remove(item)
                    return kind, at
        return None

    def answer_500(self, block):
        with self.lock:
            entry = self.answers.get(block)
            if not entry or entry[0] <= 0:
                return False
            if entry[1] is None:
                entry[1] = self._record("http500", self.high)
                self.faults.append(entry[1])
            entry[0] -= 1
            if entry[0] == 0:
                del self.answers[block]
            return True

    def sent(self, begin, length, serial):
        now = time.time()
        with self.lock:
            current = self.faults[-1]
            current["refetched"] += max(0, min(begin + length, self.high) - begin)
            self.high = max(self.high, begin + length)
            for record in self.faults[1:]:
                if record["seconds"] is None and serial > record["serial"] and begin + length > record["at"]:
                    record["seconds"] = round(now - record["t0"], 3)

    def new_request(self):
        with self.lock:
            self.requests += 1
            self.faults[-1]["requests"] += 1
            return self.requests

    def admit(self, authorization):
        """Whether a proxied request may pass; a refused one is answered 407."""
        with self.lock:
            good = authorization == PROXY_CREDENTIALS
            if good and not self.expired:
                self.answered += self.owed
                self.owed = 0
                return True
            self.expired = False
            self.challenges += 1
            self.owed = 1
            return False

    def report(self):
        with self.lock:
            return {
                "high": self.high,
                "requests": self.requests,
                "proxy": {"challenges": self.challenges, "answered": self.answered},
                "faults": [dict(r) for r in self.faults],
                "unfired": [list(a) for a in self.armed] + [["http500", b] for b in self.answers],
            }


ledger = Ledger()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def _block(self):
        name = urllib.parse.urlparse(self.path).path.lstrip("/")
        return BLOCKS.index(name) if name in BLOCKS else -1

    def _answer(self, code, body):
        data = body.encode()
        self.send_response(code)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def _control(self):
        url = urllib.parse.urlparse(self.path)
        query = dict(urllib.parse.parse_qsl(url.query))
        if url.path == "/__reset":
            with ledger.lock:
                ledger.reset()
                ledger.proxy = query.get("proxy") == "1"
            self._answer(200, "ok\n")
        elif url.path == "/__arm":
            with ledger.lock:
                if query["kind"] == "http500":
                    ledger.answers[int(query["block"])] = [int(query.get("count", "1")), None]
                else:
                    ledger.armed.append([query["kind"], int(query["at"])])
            self._answer(200, "ok\n")
        elif url.path == "/__mark":
            ledger.open_fault(query["kind"])
            self._answer(200, "ok\n")
        elif url.path == "/__high":
            self._answer(200, str(ledger.high))
        elif url.path == "/__report":
            self._answer(200, json.dumps(ledger.report()))
        else:
            self._answer(404, "no such control\n")

    def _admitted(self):
        """In proxy mode: every request but the controls must come through the proxy, with good credentials."""
        if not ledger.proxy:
            return True
        if not self.path.startswith("http://"):
            self._answer(400, "this server is a proxy now; direct requests are refused\n")
            return False
        if ledger.admit(self.headers.get("Proxy-Authorization", "")):
            return True
        body = b"" if self.command == "HEAD" else b"proxy authentication required\n"
        self.send_response(407)
        self.send_header("Proxy-Authenticate", 'Basic realm="qvdlm-soak"')
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
        return False

    def do_HEAD(self):
        if not self._admitted():
            return
        block = self._block()
        if block < 0:
            self.send_error(404)
            return
        self.send_response(200)
        self.send_header("Content-Length", str(SIZES[block]))
        self.send_header("Accept-Ranges", "bytes")
        self.end_headers()

    def do_GET(self):
        if self.path.startswith("/__"):
            self._control()
            return
        if not self._admitted():
            return
        block = self._block()
        if block < 0:
            self.send_error(404)
            return
        failed = ledger.answer_500(block)
        serial = ledger.new_request()
        if failed:
            self._answer(500, "scheduled failure\n")
            return
        size = SIZES[block]
        start, end = 0, size - 1
        header = self.headers.get("Range", "").replace(" ", "")
        if header.startswith("bytes="):
            first, _, last = header[len("bytes="):].partition("-")
            start = int(first or 0)
            if last:
                end = min(int(last), size - 1)
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
        self.wfile.flush()
        self._send_body(block, start, length, serial)

    def _send_body(self, block, start, length, serial):
        base = OFFSETS[block]
        sent = 0
        began = time.monotonic()
        try:
            with open(os.path.join(DOCROOT, BLOCKS[block]), "rb") as f:
                f.seek(start)
                while sent < length:
                    n = min(CHUNK, length - sent)
                    fault = ledger.fault_in(base + start + sent, n, serial)
                    if fault:
                        n = fault[1] - (base + start + sent)
                    if n > 0:
                        data = f.read(n)
                        self.wfile.write(data)
                        self.wfile.flush()
                        ledger.sent(base + start + sent, len(data), serial)
                        sent += len(data)
                    if fault:
                        ledger.open_fault(fault[0])
                        self._inject(fault[0])
                        return
                    if RATE:
                        ahead = sent / RATE - (time.monotonic() - began)
                        if ahead > 0:
                            time.sleep(ahead)
        except (BrokenPipeError, ConnectionResetError, ConnectionAbortedError):
            pass

    def _inject(self, kind):
        sock = self.connection
        self.close_connection = True
        if kind == "rst":
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            sock.close()
        elif kind == "p407":
            with ledger.lock:
                ledger.expired = True
            sock.shutdown(socket.SHUT_RDWR)
            sock.close()
        elif kind == "stall":
            # Nothing more is sent; the connection stays open until the client gives up on it.
            deadline = time.monotonic() + STALL_LIMIT
            sock.settimeout(0.5)
            while time.monotonic() < deadline:
                try:
                    if not sock.recv(4096):
                        break
                except socket.timeout:
                    continue
                except OSError:
                    break
            sock.close()
        else:
            sock.shutdown(socket.SHUT_RDWR)
            sock.close()


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def handle_error(self, request, client_address):
        pass


def watch_parent(parent):
    # Started by the soak alone: when the soak is gone (killed by a time-out), so is the server.
    while os.getppid() == parent:
        time.sleep(1)
    os._exit(0)


def main():
    threading.Thread(target=watch_parent, args=(os.getppid(),), daemon=True).start()
    server = Server(("127.0.0.1", PORT), Handler)
    with open(PIDFILE, "w") as f:
        f.write(str(os.getpid()))
    server.serve_forever()


if __name__ == "__main__":
    main()
