#!/usr/bin/env python3
"""Loopback servers of the proxy tests: proxy_servers.py <port base> <pid file> forks them off and returns once
they listen. From the base: +12 a proxy demanding Basic credentials (alice or CORP\\alice, password S3cret-pw), +13 the
origin ("/pac/<spec>" a PAC script returning <spec>, "/missing..." 404), +14 an open proxy, +15 and +16 proxies offering
Negotiate and NTLM, or Digest, never satisfied. A proxy answers itself, as the origin, and refuses CONNECT (405)."""
import base64, http.server, os, socketserver, sys, threading, urllib.parse

ACCEPTED = {"Basic " + base64.b64encode(f"{user}:S3cret-pw".encode()).decode() for user in ("alice", "CORP\\alice")}
CHALLENGES = {12: ['Basic realm="qvdlm-test"'], 15: ["Negotiate", "NTLM"], 16: ['Digest realm="qvdlm-test", nonce="abc123", qop="auth"']}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    log_message = lambda *args: None

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
        self.server_name, self.server_port, self.base = *self.server_address[:2], int(sys.argv[1])


def main():
    base = int(sys.argv[1])
    servers = [Server(("127.0.0.1", base + n), Handler) for n in (12, 13, 14, 15, 16)]  # listening now
    pid = os.fork()
    if pid:
        return open(sys.argv[2], "w").write("%d\n" % pid)
    os.setsid()
    null = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(null, fd)
    for server in servers:
        threading.Thread(target=server.serve_forever, daemon=True).start()
    threading.Event().wait()


if __name__ == "__main__":
    main()
