"""Routes for the HTTP client and SOAP transport tests.

  /echo            replies 200 text/xml with the request body; every request header comes back
                   as "X-Seen-<name>"
  /status          replies with ?code= and ?reason= (and ?body=)
  /cookies/set     sets the cookie ?name=?value (Path=/)
  /cookies/show    replies with the Cookie header received (empty body when none)
  /close           replies 200 and closes the connection
  /headers         replies with the request headers, one "Name: value" line each
  /cookies         replies with the Cookie header received and sets the cookie seen=yes
anything else      404
"""

from loopback import Response


def echo(request):
    headers = [("Content-Type", "text/xml")]
    headers += [("X-Seen-" + name, value) for name, value in request.headers.items()]
    return Response(200, headers=headers, body=request.body)


def status(request):
    code = int(request.query.get("code", "200"))
    return Response(code, request.query.get("reason", ""), [("Content-Type", "text/xml")],
                    request.query.get("body", "status %d\n" % code))


def cookies_set(request):
    cookie = "%s=%s; Path=/" % (request.query["name"], request.query["value"])
    return Response(200, headers=[("Set-Cookie", cookie)], body="set\n")


def cookies_show(request):
    return Response(200, body=request.headers.get("Cookie", ""))


def close(request):
    return Response(200, headers=[("Connection", "close")], body="closed\n")


def headers(request):
    lines = "".join("%s: %s\n" % (name, value) for name, value in request.headers.items())
    return Response(200, headers=[("Content-Type", "text/plain")], body=lines)


def cookies(request):
    return Response(200, headers=[("Set-Cookie", "seen=yes; Path=/")],
                    body=request.headers.get("Cookie", ""))


def install(server):
    server.route("/headers", headers)
    server.route("/cookies", cookies)
    server.route("/close", close)
    server.route("/echo", echo)
    server.route("/status", status)
    server.route("/cookies/set", cookies_set)
    server.route("/cookies/show", cookies_show)
