#!/usr/bin/env python3
"""Loopback servers for the proxy tests: an origin that also serves PAC scripts, and proxies that
forward every request to that origin (never anywhere else), each with its own authentication demand.

Ports, counted from the test port base given on the command line (the upper part of the range, so
that other subsystems' servers can start at the base):
  +12  proxy demanding Basic credentials (user, optionally with domain CORP, and password below)
  +13  origin: "/pac/<spec>" answers a PAC script returning "<spec>"; every other path a small page
  +14  proxy without authentication
  +15  proxy that always answers 407 offering Negotiate and NTLM
  +16  proxy that always answers 407 offering Digest
"""
import base64
import http.client
import http.server
import socketserver
import sys
import threading
import urllib.parse

USER = "alice"
PASSWORD = "S3cret-pw"
# The user may also be given with a domain, as typed into the credential dialog.
ACCEPTED = {"Basic " + base64.b64encode(f"{user}:{PASSWORD}".encode()).decode()
            for user in (USER, "CORP\\" + USER)}


class Origin(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def answer(self, with_body):
        path = urllib.parse.urlsplit(self.path).path
        if path.startswith("/pac/"):
            spec = urllib.parse.unquote(path[len("/pac/"):])
            body = ('function FindProxyForURL(url, host) { return "%s"; }\n' % spec).encode()
            kind = "application/x-ns-proxy-autoconfig"
        elif path.startswith("/missing"):
            self.send_response(404)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        else:
            body = b"origin page\n"
            kind = "text/plain"
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if with_body:
            self.wfile.write(body)

    def do_GET(self):
        self.answer(True)

    def do_HEAD(self):
        self.answer(False)


def make_proxy(origin_port, challenges, user_check):
    class Proxy(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args):
            pass

        def refuse(self):
            body = b"proxy authentication required\n"
            self.send_response(407)
            for c in challenges:
                self.send_header("Proxy-Authenticate", c)
            self.send_header("Content-Type", "text/plain")
            self.send_header("Content-Length", "0" if self.command == "HEAD" else str(len(body)))
            self.end_headers()
            if self.command != "HEAD":
                self.wfile.write(body)

        def relay(self):
            if challenges and not user_check(self.headers.get("Proxy-Authorization", "")):
                self.refuse()
                return
            if self.command == "CONNECT":
                self.send_response(405)
                self.send_header("Content-Length", "0")
                self.end_headers()
                return
            # Every request goes to the loopback origin, whatever host it names.
            parts = urllib.parse.urlsplit(self.path)
            target = parts.path or "/"
            if parts.query:
                target += "?" + parts.query
            conn = http.client.HTTPConnection("127.0.0.1", origin_port, timeout=10)
            try:
                conn.request(self.command, target)
                resp = conn.getresponse()
                body = resp.read()
                self.send_response(resp.status)
                for name, value in resp.getheaders():
                    if name.lower() not in ("connection", "transfer-encoding", "content-length"):
                        self.send_header(name, value)
                self.send_header("Content-Length", str(len(body)) if self.command != "HEAD"
                                 else resp.getheader("Content-Length", "0"))
                self.end_headers()
                if self.command != "HEAD":
                    self.wfile.write(body)
            finally:
                conn.close()

        do_GET = do_HEAD = do_CONNECT = relay

    return Proxy


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def server_bind(self):
        # HTTPServer would look its own name up; loopback needs no name service.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]


def main():
    base = int(sys.argv[1])
    origin = base + 13
    basic = ['Basic realm="qvdlm-test"']
    servers = [
        Server(("127.0.0.1", base + 12), make_proxy(origin, basic, lambda h: h in ACCEPTED)),
        Server(("127.0.0.1", origin), Origin),
        Server(("127.0.0.1", base + 14), make_proxy(origin, [], lambda h: True)),
        Server(("127.0.0.1", base + 15), make_proxy(origin, ["Negotiate", "NTLM"], lambda h: False)),
        Server(("127.0.0.1", base + 16),
               make_proxy(origin, ['Digest realm="qvdlm-test", nonce="abc123", qop="auth"'], lambda h: False)),
    ]
    threads = [threading.Thread(target=s.serve_forever, daemon=True) for s in servers]
    for t in threads:
        t.start()
    print("proxy servers listening", flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main()
