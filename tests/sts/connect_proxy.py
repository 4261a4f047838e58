"""A loopback HTTP CONNECT proxy: connect_proxy.py USER:PASSWORD. Opens tunnels for clients
presenting these Basic credentials (407 otherwise); counts connections and tunnels (as
"requests")."""

import base64
import socket
import socketserver
import sys
import threading

import loopback


def pump(source, target):
    try:
        while data := source.recv(65536):
            target.sendall(data)
        target.shutdown(socket.SHUT_WR)
    except OSError:
        pass


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        self.server.counters.add("connections")
        _, target, _ = self.rfile.readline().decode("latin-1").split(" ", 2)
        headers = {name.lower(): value for name, value in (
            line.decode("latin-1").strip().split(": ", 1)
            for line in iter(self.rfile.readline, b"\r\n"))}
        host, _, port = target.rpartition(":")
        if headers.get("proxy-authorization") != self.server.auth:
            self.wfile.write(b"HTTP/1.1 407 Proxy Authentication Required\r\n"
                             b"Proxy-Authenticate: Basic realm=\"test\"\r\nContent-Length: 0\r\n\r\n")
            return
        upstream = socket.create_connection((host, int(port)))
        self.server.counters.add("requests")
        self.wfile.write(b"HTTP/1.1 200 Connection established\r\n\r\n")
        threading.Thread(target=pump, args=(upstream, self.connection), daemon=True).start()
        pump(self.connection, upstream)


class Proxy(socketserver.ThreadingTCPServer):
    daemon_threads = True

    def __init__(self, credentials):
        super().__init__(("127.0.0.1", 0), Handler)
        self.port, self.counters = self.server_address[1], loopback.Counters()
        self.auth = "Basic " + base64.b64encode(credentials.encode()).decode()


if __name__ == "__main__":
    loopback.run(Proxy(sys.argv[1]))
