"""Starts a loopback test server for the HTTP and transport tests.

usage: serve.py [--tls NAME] [--client-ca NAME] [--max-tls 1.1|1.2] [--silent]
NAME is a fixture base name under tests/data/tls (NAME.pem and NAME.key; NAME.pem for the CA).
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import echo_handlers  # noqa: E402
import loopback  # noqa: E402

TLS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "tls")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tls")
    parser.add_argument("--client-ca")
    parser.add_argument("--max-tls", choices=["1.1", "1.2"])
    parser.add_argument("--silent", action="store_true")
    args = parser.parse_args()
    if args.silent:
        loopback.run(loopback.SilentServer())
        return
    context = None
    if args.tls:
        fixture = os.path.join(TLS_DIR, args.tls)
        client_ca = os.path.join(TLS_DIR, args.client_ca + ".pem") if args.client_ca else None
        context = loopback.make_tls_context(fixture + ".pem", fixture + ".key", client_ca,
                                            args.max_tls)
    server = loopback.LoopbackServer(context)
    echo_handlers.install(server)
    loopback.run(server)


if __name__ == "__main__":
    main()
