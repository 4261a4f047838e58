#!/usr/bin/python3
"""Loopback WS-Trust test STS. Start it, read "READY <port>" from its stdout, point the client at
https://localhost:<port>/sts/STSService (trusting tests/data/sts/ca.pem); stop it with SIGTERM,
SIGINT, the "quit" command or by closing its stdin. See README.md, "Loopback test STS"."""

import argparse
import os
import signal
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

from wstrust_https import (Controller, LoopbackHttpsServer, make_ssl_context,  # noqa: E402
                           parse_faults)
from wstrust_saml import ExtensionNames, Signer  # noqa: E402
from wstrust_service import Sts, load_accounts, parse_account_option  # noqa: E402

DATA = os.path.normpath(os.path.join(HERE, "..", "data", "sts"))


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=0, help="TCP port on 127.0.0.1 (0: any free)")
    parser.add_argument("--accounts", default=os.path.join(DATA, "accounts.json"),
                        help="JSON account file (default: tests/data/sts/accounts.json)")
    parser.add_argument("--account", action="append", default=[],
                        metavar="USER[@DOMAIN]:PASSWORD[:expired]",
                        help="an extra account (repeatable)")
    parser.add_argument("--domain", default="example.test",
                        help="domain of user names given without one")
    parser.add_argument("--extension-base", default="http://sso.example.com",
                        help="scheme and host of the vendor-extension URIs (advice namespaces, "
                             "group-identity and isSolution attribute names); must match the "
                             "client's configure-time setting")
    parser.add_argument("--issuer", default="https://localhost/sts", help="Issuer of tokens")
    parser.add_argument("--server-cert", default=os.path.join(DATA, "server.pem"))
    parser.add_argument("--server-key", default=os.path.join(DATA, "server.key"))
    parser.add_argument("--signing-cert", default=os.path.join(DATA, "signing.pem"))
    parser.add_argument("--signing-key", default=os.path.join(DATA, "signing.key"))
    parser.add_argument("--clock-skew", type=int, default=300,
                        help="seconds of clock skew allowed on timestamps and tokens")
    parser.add_argument("--max-lifetime", type=int, default=30 * 24 * 3600,
                        help="longest token lifetime granted, in seconds")
    parser.add_argument("--faults", default="",
                        help="faults applied to every SOAP request (see README)")
    parser.add_argument("--no-stdin", action="store_true",
                        help="ignore stdin (run in the background; stop with SIGTERM)")
    parser.add_argument("--workers", type=int, default=1,
                        help="processes serving the port (for throughput runs only: counters, "
                             "control commands, revocations and GSS contexts stay per process, "
                             "and only the first process answers the control channel)")
    parser.add_argument("--verbose", action="store_true", help="log every HTTP request")
    return parser.parse_args(argv)


def build(arguments, stop_event):
    domain, accounts = load_accounts(arguments.accounts, arguments.domain)
    accounts += [parse_account_option(text, domain) for text in arguments.account]
    signer = Signer(arguments.signing_key, arguments.signing_cert,
                    ExtensionNames(arguments.extension_base), arguments.issuer)
    sts = Sts(signer, accounts, domain, arguments.clock_skew, arguments.max_lifetime)
    controller = Controller(sts, stop_event)
    if arguments.faults:
        controller.default_faults = parse_faults(arguments.faults)
    context = make_ssl_context(arguments.server_cert, arguments.server_key)
    server = LoopbackHttpsServer(arguments.port, context, sts, controller, stop_event,
                                 arguments.verbose)
    return server, controller


def watch_stdin(controller, stop_event):
    """One command per line (see Controller.execute); end of input stops the server."""
    for line in sys.stdin:
        if line.strip():
            print(controller.execute(line), flush=True)
        if stop_event.is_set():
            return
    stop_event.set()


def fork_worker(server):
    """Starts another process serving the same listening socket; it ends with SIGTERM or when
    this process goes away. Called before any thread exists."""
    parent = os.getpid()
    pid = os.fork()
    if pid:
        return pid
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.2},
                     daemon=True).start()
    while os.getppid() == parent:
        time.sleep(1.0)
    os._exit(0)


def main(argv=None):
    arguments = parse_arguments(argv)
    stop_event = threading.Event()
    server, controller = build(arguments, stop_event)
    # Several processes may wake for one connection; the ones that lose must not block.
    server.socket.setblocking(False)
    workers = [fork_worker(server) for _ in range(max(0, arguments.workers - 1))]
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: stop_event.set())
    threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.2},
                     daemon=True).start()
    print("READY %d" % server.server_address[1], flush=True)
    if not arguments.no_stdin:
        threading.Thread(target=watch_stdin, args=(controller, stop_event), daemon=True).start()
    while not stop_event.wait(1.0):
        pass
    server.shutdown()
    server.server_close()
    for pid in workers:
        os.kill(pid, signal.SIGTERM)
        os.waitpid(pid, 0)
    return 0


if __name__ == "__main__":
    sys.exit(main())
