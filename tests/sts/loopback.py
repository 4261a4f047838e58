"""HTTP/TLS plumbing of the loopback test servers.

A LoopbackServer listens on 127.0.0.1 (a free port chosen by the system), optionally speaks TLS
(with an optional client-certificate requirement), counts what it sees, injects transport
faults, and hands every other request to a route table. Handler logic lives elsewhere (see
echo_handlers.py); a WS-Trust test service adds its own routes the same way.

Control happens over the process's standard input and output, never over HTTP, so the counters
only ever see the traffic under test:
  stdout  "READY <port>" once listening
  stdin   "stats"  -> one JSON line {"connections", "handshakes", "resumed", "requests"}
          "reset"  -> zero the counters, answers "OK"
          end of input -> the process exits at once
"""

import http.server
import json
import socket
import socketserver
import ssl
import struct
import sys
import threading
import urllib.parse


class Request:
    """What a route sees: method, path, query, headers and body of one request."""

    def __init__(self, handler, body):
        parsed = urllib.parse.urlsplit(handler.path)
        self.method = handler.command
        self.path = parsed.path
        self.query = dict(urllib.parse.parse_qsl(parsed.query))
        self.headers = handler.headers
        self.body = body


class Response:
    """A route's answer."""

    def __init__(self, status=200, reason=None, headers=None, body=b""):
        self.status = status
        self.reason = reason
        self.headers = list(headers or [])
        self.body = body if isinstance(body, bytes) else body.encode()


class Counters:
    def __init__(self):
        self._lock = threading.Lock()
        self.reset()

    def reset(self):
        with self._lock:
            self.values = {"connections": 0, "handshakes": 0, "resumed": 0, "requests": 0}

    def add(self, name):
        with self._lock:
            self.values[name] += 1

    def snapshot(self):
        with self._lock:
            return dict(self.values)


def _reset_connection(sock):
    # SO_LINGER with a zero timeout makes close() send RST instead of FIN.
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def _dispatch(self):
        server = self.server
        server.counters.add("requests")
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length else b""
        request = Request(self, body)
        fault = server.faults.get(request.path)
        if fault:
            fault(self)
            return
        route = server.routes.get(request.path) or server.routes.get(None)
        response = route(request) if route else Response(404, body="no route\n")
        self._send(response)

    def _send(self, response):
        self.send_response_only(response.status, response.reason)
        for name, value in response.headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(response.body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(response.body)

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_OPTIONS = do_PATCH = _dispatch


def _fault_reset(handler):
    """Starts a reply promising more bytes than it sends, then resets the connection."""
    handler.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\npartial")
    handler.wfile.flush()
    handler.close_connection = True
    _reset_connection(handler.connection)


def _fault_hang(handler):
    """Reads the request and never answers."""
    handler.server.stopped.wait()
    handler.close_connection = True


class LoopbackServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, tls_context=None):
        super().__init__(("127.0.0.1", 0), _Handler)
        self.tls_context = tls_context
        self.counters = Counters()
        self.routes = {}
        self.faults = {"/_fault/reset": _fault_reset, "/_fault/hang": _fault_hang}
        self.stopped = threading.Event()

    @property
    def port(self):
        return self.server_address[1]

    def route(self, path, function):
        """Serves path (or every unrouted path when path is None) with function(Request)."""
        self.routes[path] = function

    def finish_request(self, request, client_address):
        # Runs on the connection's own thread, so a slow or failing handshake blocks nobody.
        self.counters.add("connections")
        # Headers and body go out in separate writes; without this, Nagle's algorithm and the
        # client's delayed ACK add 40 ms to every reply on a kept-alive connection.
        request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self.tls_context:
            try:
                request = self.tls_context.wrap_socket(request, server_side=True)
            except (ssl.SSLError, OSError):
                return  # refused handshakes are part of the tests
            self.counters.add("handshakes")
            if request.session_reused:
                self.counters.add("resumed")
        super().finish_request(request, client_address)


class SilentServer:
    """Accepts connections and never reads or answers: the peer of client time-out tests."""

    def __init__(self):
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.counters = Counters()
        self._held = []

    @property
    def port(self):
        return self.socket.getsockname()[1]

    def serve_forever(self):
        while True:
            connection, _ = self.socket.accept()
            self.counters.add("connections")
            self._held.append(connection)


def make_tls_context(cert, key, client_ca=None, max_version=None):
    """max_version "1.1" or "1.2" caps the protocol; "1.1" also lowers OpenSSL's security level,
    which otherwise refuses anything below TLS 1.2, so that clients' own floor is what is tested."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    if max_version == "1.1":
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
        context.minimum_version = ssl.TLSVersion.TLSv1_1
        context.maximum_version = ssl.TLSVersion.TLSv1_1
    elif max_version == "1.2":
        context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(cert, key)
    if client_ca:
        context.load_verify_locations(client_ca)
        context.verify_mode = ssl.CERT_REQUIRED
    return context


def run(server):
    """Serves in the background, announces readiness and obeys the control channel."""
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print("READY %d" % server.port, flush=True)
    for line in sys.stdin:
        command = line.strip()
        if command == "stats":
            print(json.dumps(server.counters.snapshot()), flush=True)
        elif command == "reset":
            server.counters.reset()
            print("OK", flush=True)
    # End of input: the test is done with us. Hung handlers must not keep the process alive.
    sys.stdout.flush()
    import os
    os._exit(0)
