# HTTP/TLS plumbing of the loopback test servers (see README.md, "Loopback HTTP test server").

import contextlib
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


# path -> (the reply, or None for none at all; whether to reset the connection after it).
CUT_SHORT = b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\npartial"
FAULTS = {"/_fault/reset": (CUT_SHORT, True), "/_fault/truncated": (CUT_SHORT, False),
          "/_fault/garbage": (b"\x16\x03\x01 not HTTP at all\r\n\r\n", False),
          "/_fault/hang": (None, False)}


def _pump(source, target):
    with contextlib.suppress(OSError):
        while data := source.recv(65536):
            target.sendall(data)
        target.shutdown(socket.SHUT_WR)


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def _send(self, response):
        self.send_response_only(response.status, response.reason)
        for name, value in response.headers + [("Content-Length", str(len(response.body)))]:
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(response.body)

    def _dispatch(self):
        self.server.count("requests")
        length = int(self.headers.get("Content-Length") or 0)
        request = Request(self, self.rfile.read(length))
        if request.path not in FAULTS:
            route = self.server.routes.get(request.path) or self.server.routes.get(None)
            return self._send(route(request) if route else Response(404, body="no route\n"))
        self.close_connection = True
        reply, reset = FAULTS[request.path]
        if reply is None:
            threading.Event().wait()
        self.wfile.write(reply)
        if reset:  # RST (SO_LINGER 0) instead of FIN
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.connection.close()

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_OPTIONS = do_PATCH = _dispatch

    def do_CONNECT(self):
        # A tunnel (counted as a request) for a client presenting the proxy credentials.
        self.close_connection = True
        auth = self.server.proxy_auth
        if not auth or self.headers.get("Proxy-Authorization") != auth:
            return self._send(Response(407, headers=[("Proxy-Authenticate", 'Basic realm="test"')]))
        host, _, port = self.path.rpartition(":")
        upstream = socket.create_connection((host, int(port)))
        self.server.count("requests")
        self._send(Response(200, "Connection established"))
        threading.Thread(target=_pump, args=(upstream, self.connection), daemon=True).start()
        _pump(self.connection, upstream)


# silent: accepts connections and never answers; counts the ones the client closes as "closed".
# proxy_auth: the Proxy-Authorization a CONNECT must carry.
class LoopbackServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    request_queue_size = 512

    def __init__(self, tls_context=None, routes=None, silent=False, proxy_auth=None):
        super().__init__(("127.0.0.1", 0), _Handler)
        self.tls_context, self.routes, self.silent = tls_context, routes or {}, silent
        self.port, self.proxy_auth, self.lock = self.server_address[1], proxy_auth, threading.Lock()
        self.open = set()  # the plain connections being served
        self.reset()

    def reset(self):
        self.counters = dict.fromkeys(
            ("connections", "handshakes", "requests", "closed"), 0)
        return "OK"

    def count(self, name):
        with self.lock:
            self.counters[name] += 1

    def process_request(self, request, client_address):
        with self.lock:
            self.open.add(request)
        super().process_request(request, client_address)

    def shutdown_request(self, request):
        with self.lock:
            self.open.discard(request)
        super().shutdown_request(request)

    def finish_request(self, request, client_address):
        # On the connection's own thread, so a slow or refused handshake blocks nobody.
        self.count("connections")
        if self.silent:
            try:
                while request.recv(65536):
                    pass
            except OSError:
                return
            self.count("closed")
            return
        # Headers and body go out in separate writes: without this, Nagle's algorithm and a
        # delayed ACK add 40 ms to every reply on a kept-alive connection.
        request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self.tls_context:
            try:
                request = self.tls_context.wrap_socket(request, server_side=True)
            except (ssl.SSLError, OSError):
                return
            self.count("handshakes")
        super().finish_request(request, client_address)

    def stop(self):  # refuses connections (the port stays held) and closes the open ones
        self.socket.shutdown(socket.SHUT_RDWR)  # wakes serve_forever at once
        self.shutdown()
        self.socket.close()
        self.socket = socket.socket(self.address_family, self.socket_type)
        self.server_bind()
        with self.lock:
            for connection in self.open:
                with contextlib.suppress(OSError):  # already closed, or handed over to TLS
                    connection.shutdown(socket.SHUT_RDWR)
        return "OK"

    def start(self):
        self.server_activate()
        threading.Thread(target=self.serve_forever, daemon=True).start()
        return "OK"


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


# Serves in the background, prints "READY <port>", then answers one command per stdin line
# ("stats" as "name value ..." pairs); end of input ends the process at once (hung handlers
# included).
def run(server, commands=None):
    server.start()
    print("READY %d" % server.port, flush=True)
    commands = dict(commands or {}, reset=server.reset, stop=server.stop, start=server.start,
                    stats=lambda: " ".join("%s %d" % item for item in server.counters.items()))
    for line in sys.stdin:
        words = line.split()
        if words and words[0] in commands:
            print(commands[words[0]](*words[1:]), flush=True)
    os._exit(0)
