#!/usr/bin/env python3
"""Loopback servers of the proxy tests. proxy_servers.py <port base> <pid file> starts them in a process
of their own, writes its pid and returns once they listen (tests/fixtures/stop-pid.sh stops it).
Ports from the base:
  +12  proxy demanding Basic credentials: alice (also CORP\\alice), password S3cret-pw
  +13  origin: "/pac/<spec>" is a PAC script returning <spec>, "/missing..." is 404, the rest a page
  +14  proxy without authentication
  +15  proxy offering Negotiate and NTLM, never satisfied
  +16  proxy offering Digest, never satisfied
A proxy answers each request it lets through itself, as the origin would (so a 200 for a made-up host
proves that the proxy carried it), and refuses CONNECT with 405."""
import base64
import http.server
import os
import socketserver
import sys
import threading
import urllib.parse

ACCEPTED = {"Basic " + base64.b64encode(f"{user}:S3cret-pw".encode()).decode() for user in ("alice", "CORP\\alice")}
CHALLENGES = {12: ['Basic realm="qvdlm-test"'], 15: ["Negotiate", "NTLM"],
              16: ['Digest realm="qvdlm-test", nonce="abc123", qop="auth"']}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def reply(self, status, body=b"", headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def answer(self):
        challenges = CHALLENGES.get(self.server.server_address[1] - self.server.base, [])
        if challenges and self.headers.get("Proxy-Authorization", "") not in ACCEPTED:
            return self.reply(407, b"proxy authentication required\n", [("Proxy-Authenticate", c) for c in challenges])
        path = urllib.parse.urlsplit(self.path).path
        if self.command == "CONNECT":
            self.reply(405)
        elif path.startswith("/pac/"):
            script = 'function FindProxyForURL(url, host) { return "%s"; }\n' % urllib.parse.unquote(path[5:])
            self.reply(200, script.encode(), [("Content-Type", "application/x-ns-proxy-autoconfig")])
        elif path.startswith("/missing"):
            self.reply(404)
        else:
            self.reply(200, b"origin page\n", [("Content-Type", "text/plain")])

    do_GET = do_HEAD = do_CONNECT = answer


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def server_bind(self):  # no name lookup for loopback
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]


def main():
    base = int(sys.argv[1])
    servers = [Server(("127.0.0.1", base + n), Handler) for n in (12, 13, 14, 15, 16)]  # listening now
    pid = os.fork()
    if pid:
        with open(sys.argv[2], "w") as f:
            f.write("%d\n" % pid)
        return
    os.setsid()
    null = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(null, fd)
    for server in servers:
        server.base = base
        threading.Thread(target=server.serve_forever, daemon=True).start()
    threading.Event().wait()


if __name__ == "__main__":
    main()
