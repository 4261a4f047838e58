"""HTTP/TLS plumbing of the loopback test servers (see README.md, "Loopback HTTP test server")."""

import http.server
import os
import socket
import socketserver
import ssl
import struct
import sys
import threading
import urllib.parse


class Request:
    def __init__(self, handler, body):
        parsed = urllib.parse.urlsplit(handler.path)
        self.path, self.headers, self.body = parsed.path, handler.headers, body
        self.query = dict(urllib.parse.parse_qsl(parsed.query))


class Response:
    def __init__(self, status=200, reason=None, headers=(), body=b""):
        self.status, self.reason, self.headers = status, reason, list(headers)
        self.body = body if isinstance(body, bytes) else body.encode()


class Counters(dict):
    """connections, handshakes, resumed (TLS sessions) and requests."""

    def __init__(self):
        super().__init__()
        self._lock = threading.Lock()
        self.reset()

    def reset(self):
        self.update(dict.fromkeys(("connections", "handshakes", "resumed", "requests"), 0))
        return "OK"

    def add(self, name):
        with self._lock:
            self[name] += 1


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def _dispatch(self):
        self.server.counters.add("requests")
        length = int(self.headers.get("Content-Length") or 0)
        request = Request(self, self.rfile.read(length))
        fault = FAULTS.get(request.path)
        if fault:
            self.close_connection = True
            return fault(self)
        route = self.server.routes.get(request.path) or self.server.routes.get(None)
        response = route(request) if route else Response(404, body="no route\n")
        self.send_response_only(response.status, response.reason)
        for name, value in response.headers + [("Content-Length", str(len(response.body)))]:
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(response.body)

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_OPTIONS = do_PATCH = _dispatch


def _fault_reset(handler):
    # A reply promising more than it sends, then RST (SO_LINGER 0) instead of FIN.
    handler.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\npartial")
    handler.wfile.flush()
    handler.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    handler.connection.close()


FAULTS = {"/_fault/reset": _fault_reset, "/_fault/hang": lambda h: threading.Event().wait()}


class LoopbackServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    request_queue_size = 128

    def __init__(self, tls_context=None, routes=None):
        super().__init__(("127.0.0.1", 0), _Handler)
        self.tls_context, self.routes, self.counters = tls_context, routes or {}, Counters()
        self.port = self.server_address[1]

    def finish_request(self, request, client_address):
        # On the connection's own thread, so a slow or refused handshake blocks nobody.
        self.counters.add("connections")
        # Headers and body go out in separate writes: without this, Nagle's algorithm and a
        # delayed ACK add 40 ms to every reply on a kept-alive connection.
        request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self.tls_context:
            try:
                request = self.tls_context.wrap_socket(request, server_side=True)
            except (ssl.SSLError, OSError):
                return
            self.counters.add("handshakes")
            if request.session_reused:
                self.counters.add("resumed")
        super().finish_request(request, client_address)


class SilentServer:
    """Accepts connections and never reads or answers."""

    def __init__(self):
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.counters, self._held = Counters(), []
        self.port = self.socket.getsockname()[1]

    def serve_forever(self):
        while True:
            self._held.append(self.socket.accept()[0])
            self.counters.add("connections")


def make_tls_context(cert, key, client_ca=None, max_version=None):
    # "1.1" also lowers OpenSSL's security level, which otherwise refuses anything below TLS 1.2,
    # so that the client's own floor is what gets tested.
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    if max_version == "1.1":
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
        context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
    elif max_version == "1.2":
        context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(cert, key)
    if client_ca:
        context.load_verify_locations(client_ca)
        context.verify_mode = ssl.CERT_REQUIRED
    return context


def run(server, commands=None):
    """Serves in the background, prints "READY <port>", then answers one command per stdin line
    ("stats" as "name value ..." pairs); end of input ends the process at once (hung handlers
    included)."""
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print("READY %d" % server.port, flush=True)
    commands = dict(commands or {}, reset=server.counters.reset,
                    stats=lambda: " ".join("%s %d" % item for item in server.counters.items()))
    for line in sys.stdin:
        words = line.split()
        if words and words[0] in commands:
            print(commands[words[0]](*words[1:]), flush=True)
    os._exit(0)
