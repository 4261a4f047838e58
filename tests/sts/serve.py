# The loopback HTTP test server: serve.py [--tls NAME] [--client-ca NAME] [--max-tls 1.1|1.2]
# [--silent] [--proxy USER:PASSWORD], NAME a fixture under tests/data/tls. Routes are listed in
# ROUTES; with --proxy it also opens CONNECT tunnels for these Basic credentials (407 otherwise).

import argparse
import base64
import os

import loopback
from loopback import Response

TLS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "tls")


def echo(request):
    # Every request header comes back as X-Seen-<name>.
    seen = [("X-Seen-" + name, value) for name, value in request.headers.items()]
    return Response(200, headers=[("Content-Type", "text/xml")] + seen, body=request.body)


def status(request):
    code, query = int(request.query.get("code", "200")), request.query
    body = query.get("body", "status %d\n" % code)
    if "file" in query:  # for bodies too long for a URL
        with open(query["file"], "rb") as file:
            body = file.read()
    return Response(code, query.get("reason", ""), [("Content-Type", "text/xml")], body)


FLAKY = {}  # query -> requests seen


def flaky(request):
    # The first <fail> requests with this query get <code>, later ones status 200 and <body>.
    key = tuple(sorted(request.query.items()))
    FLAKY[key] = FLAKY.get(key, 0) + 1
    failing = FLAKY[key] <= int(request.query["fail"])
    return Response(int(request.query["code"]) if failing else 200,
                    body="try later\n" if failing else request.query.get("body", ""))


ROUTES = {
    "/echo": echo,
    "/status": status,  # ?code=&reason=&body=|file=
    "/flaky": flaky,  # ?fail=&code=&body=
    # The Cookie header received; sets seen=yes.
    "/cookies": lambda r: Response(headers=[("Set-Cookie", "seen=yes; Path=/")],
                                   body=r.headers.get("Cookie", "")),
    "/headers": lambda r: Response(headers=[("Content-Type", "text/plain")], body="".join(
        "%s: %s\n" % item for item in r.headers.items())),
}

if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for option in ("--tls", "--client-ca", "--max-tls", "--proxy"):
        parser.add_argument(option)
    parser.add_argument("--silent", action="store_true")
    args = parser.parse_args()
    context = None
    if args.tls:
        fixture = os.path.join(TLS_DIR, args.tls)
        context = loopback.make_tls_context(
            fixture + ".pem", fixture + ".key",
            args.client_ca and os.path.join(TLS_DIR, args.client_ca + ".pem"), args.max_tls)
    auth = args.proxy and "Basic " + base64.b64encode(args.proxy.encode()).decode()
    loopback.run(loopback.LoopbackServer(context, ROUTES, args.silent, auth))
