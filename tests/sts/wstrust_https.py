"""The loopback HTTPS layer of the WS-Trust test STS: a threaded HTTP/1.1 server (keep-alive, TLS
handshakes in the connection's own thread), request and connection counters, the control
interface and fault injection."""

import base64
import binascii
import http
import http.server
import json
import socket
import ssl
import struct
import threading
import urllib.parse
from collections import Counter, deque

from lxml import etree

from wstrust_service import (FAILED_AUTHENTICATION, PASSWORD_EXPIRED_TEXT, SOAP_CLIENT, SOAP_SERVER,
                             WSSE_INVALID_TOKEN, WST_INVALID_TOKEN, Reply, fault_envelope)
from wstrust_xml import SAML_NS, SOAP_NS, WST_NS, q

MAX_BODY = 8 * 1024 * 1024

# soapfault:<name> injections
INJECTED_FAULTS = {
    "failed-auth": (FAILED_AUTHENTICATION, "Invalid user name or password"),
    "failed-auth-empty": (FAILED_AUTHENTICATION, ""),
    "password-expired": (FAILED_AUTHENTICATION, PASSWORD_EXPIRED_TEXT + ": injected"),
    "wst-invalid-token": (WST_INVALID_TOKEN, "The security token is invalid"),
    "wsse-invalid-token": (WSSE_INVALID_TOKEN, "The security token is invalid"),
    "server": (SOAP_SERVER, "Internal server error"),
    "client": (SOAP_CLIENT, "Bad request"),
}
REPLACING = {"reset", "close", "status", "malformed", "nobody", "soapfault", "notsoap"}
MUTATING = {"nocontext", "notoken", "wrongtokentype", "tamper", "truncate", "slow"}


class FaultSpecError(ValueError):
    pass


def parse_faults(text):
    """Parses "kind[:argument],kind[:argument]..." into a list of (kind, argument)."""
    faults = []
    for item in filter(None, (text or "").split(",")):
        kind, _, argument = item.partition(":")
        if kind not in REPLACING | MUTATING:
            raise FaultSpecError("unknown fault %r" % kind)
        if kind == "status" and not (argument.isdigit() and 100 <= int(argument) <= 599):
            raise FaultSpecError("status needs a code between 100 and 599")
        if kind == "slow":
            try:
                if float(argument) < 0:
                    raise ValueError
            except ValueError:
                raise FaultSpecError("slow needs a number of seconds") from None
        if kind == "soapfault" and argument not in INJECTED_FAULTS:
            raise FaultSpecError("soapfault needs one of %s" % ", ".join(sorted(INJECTED_FAULTS)))
        faults.append((kind, argument))
    return faults


class Controller:
    """Counters, armed faults and the command language shared by stdin and POST /control."""

    def __init__(self, sts, stop_event):
        self.sts = sts
        self.stop_event = stop_event
        self.lock = threading.Lock()
        self.armed = deque()
        self.default_faults = []
        self.reset()

    def reset(self):
        with self.lock:
            self.connections = 0
            self.handshakes = 0
            self.resumed = 0
            self.requests = 0
            self.operations = Counter()
            self.injected = Counter()
            self.armed.clear()

    def count_connection(self):
        with self.lock:
            self.connections += 1

    def count_handshake(self, resumed):
        with self.lock:
            self.handshakes += 1
            self.resumed += 1 if resumed else 0

    def count_request(self, path_faults):
        """Counts a SOAP request and returns the faults to apply to it."""
        with self.lock:
            self.requests += 1
            faults = self.default_faults + list(path_faults)
            if self.armed:
                faults += self.armed.popleft()
            for kind, _ in faults:
                self.injected[kind] += 1
            return faults

    def count_operation(self, operation):
        with self.lock:
            self.operations[operation] += 1

    def stats(self):
        with self.lock:
            return {"connections": self.connections, "handshakes": self.handshakes,
                    "resumed": self.resumed, "requests": self.requests,
                    "operations": dict(self.operations), "injected": dict(self.injected),
                    "armed": len(self.armed)}

    def execute(self, line):
        """Runs one control command and returns its one-line answer."""
        words = line.split()
        if not words:
            return "ERROR empty command"
        command, arguments = words[0].lower(), words[1:]
        try:
            if command == "stats":
                return "STATS " + json.dumps(self.stats(), sort_keys=True)
            if command == "reset":
                self.reset()
                return "OK"
            if command == "arm" and 1 <= len(arguments) <= 2:
                faults = parse_faults(arguments[0])
                count = int(arguments[1]) if len(arguments) == 2 else 1
                with self.lock:
                    self.armed.extend([faults] * count)
                return "OK"
            if command == "disarm":
                with self.lock:
                    self.armed.clear()
                return "OK"
            if command == "revoke" and len(arguments) == 1:
                with self.sts.lock:
                    self.sts.revoked.add(arguments[0])
                return "OK"
            if command == "soap" and len(arguments) in (2, 3):
                return self._soap(*arguments)
            if command == "quit":
                self.stop_event.set()
                return "OK"
        except ValueError as error:
            return "ERROR %s" % error
        return "ERROR unknown command %r" % line.strip()


    def _soap(self, action, encoded, cookie=""):
        """Handles a SOAP request given on the control channel (no HTTP, no fault injection):
        lets a test feed a client-built envelope to the STS without an HTTP client. `cookie` is
        "name=value" as a Cookie header would carry it; a cookie the reply sets is appended to
        the answer in the same form."""
        try:
            envelope = base64.b64decode(encoded, validate=True)
        except binascii.Error:
            return "ERROR the envelope must be Base64"
        with self.lock:
            self.requests += 1
        name, _, value = cookie.partition("=")
        reply = self.sts.handle(action, envelope, {name: value} if name else {})
        self.count_operation(reply.operation)
        data = etree.tostring(reply.envelope, xml_declaration=True, encoding="utf-8")
        answer = "REPLY %d %s" % (reply.status, base64.b64encode(data).decode("ascii"))
        set_cookie = reply.headers.get("Set-Cookie")
        return answer + (" " + set_cookie.split(";")[0] if set_cookie else "")


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "WsTrustTestSTS/1.0"
    timeout = 60  # idle keep-alive connections are closed after this
    wbufsize = 64 * 1024  # headers and body leave in one write (see _send's flush)

    def log_message(self, format, *args):  # noqa: A002 - quiet unless asked
        if self.server.verbose:
            super().log_message(format, *args)

    def handle_expect_100(self):
        # The buffered writer would otherwise hold "100 Continue" back until the reply.
        result = super().handle_expect_100()
        self.wfile.flush()
        return result

    def _send(self, status, body, content_type="text/xml; charset=utf-8", headers=None, limit=None):
        try:
            reason = http.HTTPStatus(status).phrase
        except ValueError:
            reason = "Injected Status"
        self.send_response(status, reason)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body if limit is None else body[:limit])
        self.wfile.flush()

    def _read_body(self):
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            chunks, total = [], 0
            while True:
                size = int(self.rfile.readline().split(b";")[0].strip() or b"0", 16)
                if size == 0:
                    self.rfile.readline()
                    return b"".join(chunks)
                total += size
                if total > MAX_BODY:
                    return None
                chunks.append(self.rfile.read(size))
                self.rfile.readline()
        length = int(self.headers.get("Content-Length") or 0)
        return None if length > MAX_BODY else self.rfile.read(length)

    def do_GET(self):
        if self.path == "/control/stats":
            self._send(200, json.dumps(self.server.controller.stats()).encode(),
                       "application/json")
        else:
            self._send(404, b"not found\n", "text/plain")

    def do_POST(self):
        body = self._read_body()
        if body is None:
            self.close_connection = True
            self._send(413, b"request too large\n", "text/plain")
            return
        path = urllib.parse.urlsplit(self.path).path
        if path == "/control":
            answer = self.server.controller.execute(body.decode("utf-8", "replace"))
            self._send(200, (answer + "\n").encode(), "text/plain")
            return
        try:
            faults = self.server.controller.count_request(_path_faults(path))
        except FaultSpecError as error:
            self._send(400, ("bad fault path: %s\n" % error).encode(), "text/plain")
            return
        self._soap(body, dict(faults))

    def _soap(self, body, faults):
        if "slow" in faults and self.server.stop_event.wait(float(faults["slow"])):
            self._drop(reset=False)
            return
        if self._replace(faults):
            return
        cookies = {}
        for part in (self.headers.get("Cookie") or "").split(";"):
            name, _, value = part.strip().partition("=")
            cookies[name] = value
        reply = self.server.sts.handle(self.headers.get("SOAPAction"), body, cookies)
        self.server.controller.count_operation(reply.operation)
        _mutate(reply, faults)
        data = etree.tostring(reply.envelope, xml_declaration=True, encoding="utf-8")
        if "truncate" in faults:
            self.close_connection = True
            self._send(reply.status, data, headers=reply.headers, limit=len(data) // 2)
            self._drop(reset=False)
            return
        self._send(reply.status, data, headers=reply.headers)

    def _replace(self, faults):
        """Applies a fault that replaces the reply; True when one did."""
        if "reset" in faults or "close" in faults:
            self._drop(reset="reset" in faults)
        elif "status" in faults:
            code = int(faults["status"])
            if code < 200:
                # An informational status cannot end an exchange: send it and hang up.
                self.send_response_only(code, "Injected Status")
                self.end_headers()
                self.wfile.flush()
                self._drop(reset=False)
            else:
                body = b"" if code in (204, 304) else ("injected status %d\n" % code).encode()
                self._send(code, body, "text/plain")
        elif "malformed" in faults:
            self._send(200, b'<?xml version="1.0"?>\n<soapenv:Envelope xmlns:soapenv="'
                       + SOAP_NS.encode() + b'"><soapenv:Body><wst:RequestSecurityTokenResponse')
        elif "notsoap" in faults:
            self._send(200, b"<html><body>not a SOAP reply</body></html>")
        elif "nobody" in faults:
            envelope = etree.Element(q(SOAP_NS, "Envelope"), nsmap={"soapenv": SOAP_NS})
            etree.SubElement(envelope, q(SOAP_NS, "Header"))
            self._send(200, etree.tostring(envelope, xml_declaration=True, encoding="utf-8"))
        elif "soapfault" in faults:
            code, text = INJECTED_FAULTS[faults["soapfault"]]
            self._send(500, etree.tostring(fault_envelope(code, text), xml_declaration=True,
                                           encoding="utf-8"))
        else:
            return False
        return True

    def _drop(self, reset):
        """Ends the connection without a (complete) reply; with `reset`, with a TCP RST."""
        self.close_connection = True
        try:
            if reset:
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                           struct.pack("ii", 1, 0))
            else:
                self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.connection.close()


def _path_faults(path):
    """A service URL of the form /fault/<faults>/... applies those faults to every request."""
    parts = path.split("/")
    if len(parts) > 2 and parts[1] == "fault":
        return parse_faults(urllib.parse.unquote(parts[2]))
    return []


def _mutate(reply: Reply, faults):
    """Content faults on an otherwise normal reply."""
    for response in reply.envelope.iter(q(WST_NS, "RequestSecurityTokenResponse")):
        if "nocontext" in faults:
            response.attrib.pop("Context", None)
        if "notoken" in faults:
            for element in response.findall(q(WST_NS, "RequestedSecurityToken")):
                response.remove(element)
        if "wrongtokentype" in faults:
            for element in response.findall(q(WST_NS, "TokenType")):
                element.text = "urn:oasis:names:tc:SAML:1.0:assertion"
    if "tamper" in faults:
        for name_id in reply.envelope.iter(q(SAML_NS, "NameID")):
            name_id.text = "mallory@" + name_id.text.partition("@")[2]
            break


class LoopbackHttpsServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    allow_reuse_address = True
    request_queue_size = 128  # bursts of new connections from concurrent tests and benchmarks

    def __init__(self, port, ssl_context, sts, controller, stop_event, verbose=False):
        self.ssl_context = ssl_context
        self.sts = sts
        self.controller = controller
        self.stop_event = stop_event
        self.verbose = verbose
        super().__init__(("127.0.0.1", port), Handler)

    def process_request(self, request, client_address):
        self.controller.count_connection()
        super().process_request(request, client_address)

    def finish_request(self, request, client_address):
        # The handshake runs here, in the connection's thread, so a stalled client cannot block
        # the accept loop.
        request.settimeout(30)
        # Replies are written whole; waiting for ACKs of earlier segments only adds latency.
        request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            tls = self.ssl_context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError):
            return
        self.controller.count_handshake(tls.session_reused)
        try:
            self.RequestHandlerClass(tls, client_address, self)
        finally:
            try:
                tls.close()
            except OSError:
                pass

    def handle_error(self, request, client_address):
        if self.verbose:
            super().handle_error(request, client_address)


def make_ssl_context(certificate, key):
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(certificate, key)
    return context
