#!/usr/bin/python3
# Loopback WS-Trust test STS (see README.md, "Loopback test STS"): wstrust_sts.py [--workers N].

import base64
import datetime
import hashlib
import json
import os
import pathlib
import secrets
import ssl
import sys
import threading
import time
import types
import uuid

import xmlsec
from lxml import etree

import loopback

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "sts")
EXT = "http://sso.example.com"  # the client's configure-time vendor-extension base
WST = "http://docs.oasis-open.org/ws-sx/ws-trust/200512"
OASIS = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-"
SAML = "urn:oasis:names:tc:SAML:2.0:"
NS = {"soapenv": "http://schemas.xmlsoap.org/soap/envelope/", "wst": WST, "wst14": WST[:-3] + "802",
      "wsse": OASIS + "wssecurity-secext-1.0.xsd", "wsu": OASIS + "wssecurity-utility-1.0.xsd",
      "wsa": "http://www.w3.org/2005/08/addressing", "ds": "http://www.w3.org/2000/09/xmldsig#",
      "saml2": SAML + "assertion", "del": SAML + "conditions:delegation",
      "xs": "http://www.w3.org/2001/XMLSchema", "xsi": "http://www.w3.org/2001/XMLSchema-instance",
      "rsa": EXT + "/names/2009/12/std-ext/SAML2.0",
      "adv": EXT + "/names/2009/12/std-ext/WS-Trust1.4/advice"}
UPN = {"Format": "http://schemas.xmlsoap.org/claims/UPN"}
CLAIMS = "http://schemas.xmlsoap.org/ws/2005/05/identity/claims/"
SKEW, MAX_LIFETIME = datetime.timedelta(minutes=5), datetime.timedelta(days=30)
ISSUED = {}  # assertion ID -> token record; revoking removes the entry
GSS = {}  # Context -> negotiation state
KEYTAB = None  # the service keytab (--keytab) for real SPNEGO legs
KEY_LOCK = threading.Lock()  # xmlsec copies a key on assignment; threads must not share it
PARSER = etree.XMLParser(resolve_entities=False, no_network=True, load_dtd=False)


class Fault(Exception):  # args: the fault code and its message
    pass


def q(tag):
    prefix, _, local = tag.rpartition(":")
    return "{%s}%s" % (NS[prefix], local) if prefix else tag


def el(parent, tag, text=None, attrs=None, nsmap=None):
    element = etree.SubElement(parent, q(tag), nsmap={k: NS[k] for k in nsmap or ()})
    for name, value in (attrs or {}).items():
        element.set(q(name), value)
    element.text = text
    return element


def find(node, path):
    return None if node is None else node.find(path, NS)


def text(node, path):
    found = find(node, path)
    return None if found is None else (found.text or "").strip()


def now():
    # Token times go on the wire in milliseconds; cutting here keeps lifetimes exact.
    instant = datetime.datetime.now(datetime.timezone.utc)
    return instant.replace(microsecond=instant.microsecond // 1000 * 1000)


def fmt(instant):
    return instant.strftime("%Y-%m-%dT%H:%M:%S.") + "%03dZ" % (instant.microsecond // 1000)


def parse_time(value):
    return datetime.datetime.fromisoformat(value.replace("Z", "+00:00"))


def read(name):
    return pathlib.Path(DATA, name).read_bytes()


def load_accounts():
    accounts = {}  # a token record's identity fields, and the credentials
    for entry in json.loads(read("accounts.json")):
        cert = entry["cert"] and ssl.PEM_cert_to_DER_cert(read(entry["cert"]).decode())
        accounts[entry["subject"].lower()] = dict(entry, cert=cert, delegates=[])
    return accounts


ACCOUNTS = load_accounts()
SIGNING_KEY = xmlsec.Key.from_file(os.path.join(DATA, "signing.key"), xmlsec.KeyFormat.PEM)
SIGNING_KEY.load_cert_from_memory(read("signing.pem"), xmlsec.KeyFormat.PEM)
VERIFYING_KEY = xmlsec.Key.from_memory(read("signing.pem"), xmlsec.KeyFormat.CERT_PEM)


def account_named(name):
    return ACCOUNTS.get((name if "@" in name else name + "@example.test").lower())


def attributes(parent, rows):
    for name, values, friendly in rows:
        names = {"Name": name, "NameFormat": SAML + "attrname-format:uri"}
        attribute = el(parent, "saml2:Attribute", None,
                       dict(names, FriendlyName=friendly) if friendly else names)
        for value in values:
            el(attribute, "saml2:AttributeValue", value, {"xsi:type": "xs:string"})


def build(token):
    # The signed assertion, in the element order the client's parser insists on.
    assertion = etree.Element(q("saml2:Assertion"), ID=token["id"], IssueInstant=fmt(now()),
                              Version="2.0", nsmap={k: NS[k] for k in ("saml2", "xs", "xsi")})
    el(assertion, "saml2:Issuer", "https://localhost/sts",
       {"Format": SAML + "nameid-format:entity"})
    subject = el(assertion, "saml2:Subject")
    el(subject, "saml2:NameID", token["subject"], UPN)
    method = "holder-of-key" if token["cert"] else "bearer"
    confirmation = el(subject, "saml2:SubjectConfirmation", None, {"Method": SAML + "cm:" + method})
    if token["delegates"]:
        el(confirmation, "saml2:NameID", token["delegates"][-1][0], UPN)
    data = el(confirmation, "saml2:SubjectConfirmationData")
    if token["cert"]:
        data.set(q("xsi:type"), "saml2:KeyInfoConfirmationDataType")
        el(el(el(data, "ds:KeyInfo"), "ds:X509Data"), "ds:X509Certificate",
           base64.b64encode(token["cert"]).decode())
    else:
        data.set("NotOnOrAfter", fmt(token["end"]))
    conditions = el(assertion, "saml2:Conditions", None,
                    {"NotBefore": fmt(token["start"]), "NotOnOrAfter": fmt(token["end"])})
    if token["delegates"]:
        restriction = el(conditions, "saml2:Condition", None,
                         {"xsi:type": "del:DelegationRestrictionType"}, ["del"])
        for upn, instant in token["delegates"]:
            el(el(restriction, "del:Delegate", None, {"DelegationInstant": fmt(instant)}),
               "saml2:NameID", upn, UPN)
    if token["audience"]:
        audience = el(conditions, "saml2:AudienceRestriction")
        for entry in token["audience"]:
            el(audience, "saml2:Audience", entry)
    # Count 0 forbids further delegation explicitly; no ProxyRestriction would mean "unlimited".
    count = max(0, 10 - len(token["delegates"])) if token["delegable"] else 0
    el(conditions, "saml2:ProxyRestriction", None, {"Count": str(count)})
    if token["renew"] is not None:
        el(conditions, "saml2:Condition", None,
           {"xsi:type": "rsa:RenewRestrictionType", "Count": str(token["renew"])}, ["rsa"])
    if token["advice"]:
        advice = el(assertion, "saml2:Advice")
        for source, rows in token["advice"]:
            attributes(el(advice, "rsa:RSAAdvice", None, {"AdviceSource": source}, ["rsa"]),
                       [(name, values, None) for name, values in rows])
    statement = el(assertion, "saml2:AuthnStatement", None, {"AuthnInstant": fmt(token["start"])})
    el(el(statement, "saml2:AuthnContext"), "saml2:AuthnContextClassRef", token["authn"])
    attributes(el(assertion, "saml2:AttributeStatement"), [row for row in [
        (CLAIMS + "givenname", [token["given"]] if token["given"] else [], "givenName"),
        (CLAIMS + "surname", [token["surname"]] if token["surname"] else [], "surname"),
        (EXT + "/schemas/attr-names/2009/01/GroupIdentity", token["groups"], "Groups"),
        (EXT + "/schemas/attr-names/2011/07/isSolution", [str(token["solution"]).lower()],
         "isSolution")] if row[1]])
    signature = xmlsec.template.create(assertion, xmlsec.Transform.EXCL_C14N,
                                       xmlsec.Transform.RSA_SHA256, ns="ds")
    assertion.insert(1, signature)
    reference = xmlsec.template.add_reference(signature, xmlsec.Transform.SHA256,
                                              uri="#" + token["id"])
    xmlsec.template.add_transform(reference, xmlsec.Transform.ENVELOPED)
    xmlsec.template.add_transform(reference, xmlsec.Transform.EXCL_C14N)
    xmlsec.template.x509_data_add_certificate(
        xmlsec.template.add_x509_data(xmlsec.template.ensure_key_info(signature)))
    dsig(signature, xmlsec.SignatureContext.sign, SIGNING_KEY, (assertion, "ID"))
    return assertion


def dsig(signature, operation, key, *ids):
    context = xmlsec.SignatureContext()
    for node, *name in ids:
        context.register_id(node, *name)
    with KEY_LOCK:
        context.key = key
    operation(context, signature)


def known_token(assertion):
    # The record of an assertion this STS issued and still honours, its signature checked on a
    # detached copy (so nothing around it takes part).
    copy = etree.fromstring(etree.tostring(assertion))
    signature = find(copy, "ds:Signature")
    uri = None if signature is None else signature.find(".//ds:Reference", NS).get("URI")
    try:
        if uri != "#" + copy.get("ID", ""):
            raise xmlsec.Error("the signature does not cover the assertion")
        dsig(signature, xmlsec.SignatureContext.verify, VERIFYING_KEY, (copy, "ID"))
    except xmlsec.Error as error:
        raise Fault("wst:InvalidSecurityToken", "token rejected: %s" % error) from None
    token = ISSUED.get(copy.get("ID"))
    if token is None or token["end"] + SKEW <= now():
        raise Fault("wst:InvalidSecurityToken", "the token is unknown, revoked or expired")
    return token


def security(envelope):
    # The request's credentials; a signature must cover exactly the Body and the Timestamp and
    # verify with the header's certificate or the key of a presented holder-of-key token.
    header = find(envelope, "soapenv:Header/wsse:Security")
    result = types.SimpleNamespace(cert=None, presented=None, signature_id=None,
                                   user=text(header, "wsse:UsernameToken/wsse:Username"),
                                   password=text(header, "wsse:UsernameToken/wsse:Password"))
    signature, timestamp = find(header, "ds:Signature"), find(header, "wsu:Timestamp")
    if signature is None:
        return result
    body = find(envelope, "soapenv:Body")
    references = [r.get("URI") for r in signature.iterfind("ds:SignedInfo/ds:Reference", NS)]
    expected = ["#%s" % e.get(q("wsu:Id")) for e in (body, timestamp) if e is not None]
    if timestamp is None or sorted(references) != sorted(expected) or "#None" in expected:
        raise Fault("wsse:InvalidSecurityToken", "the signature must cover the Body and Timestamp")
    if not (parse_time(text(timestamp, "wsu:Created")) - SKEW <= now()
            < parse_time(text(timestamp, "wsu:Expires")) + SKEW):
        raise Fault("wsse:InvalidSecurityToken", "the request's Timestamp is out of range")
    reference = find(signature, ".//wsse:Reference")
    uri = None if reference is None else reference.get("URI")
    binary = [t.text for t in header.iterfind("wsse:BinarySecurityToken", NS)
              if uri == "#%s" % t.get(q("wsu:Id"))]
    if binary:
        result.cert = base64.b64decode(binary[0])
    else:
        key_id = text(signature, ".//wsse:KeyIdentifier")
        result.presented = known_token(next((a for a in header.iterfind("saml2:Assertion", NS)
                                             if a.get("ID") == key_id), None))
        result.cert = result.presented["cert"]
    try:
        key = xmlsec.Key.from_memory(result.cert, xmlsec.KeyFormat.CERT_DER)
        dsig(signature, xmlsec.SignatureContext.verify, key, (body, "Id", NS["wsu"]),
             (timestamp, "Id", NS["wsu"]))
    except (xmlsec.Error, TypeError) as error:
        raise Fault("wsse:InvalidSecurityToken", "the signature does not verify: %s" % error)
    result.signature_id = signature.get("Id")
    return result


def lifetime(request):
    span = find(request, "wst:Lifetime")
    return span is not None and (parse_time(text(span, "wsu:Expires"))
                                 - parse_time(text(span, "wsu:Created")))


def issue_spec(request, sec):
    use_key = find(request, "wst:UseKey")
    if use_key is not None and use_key.get("Sig") != sec.signature_id:
        raise Fault("wst:InvalidRequest", "UseKey names no signature of this request")
    holder_of_key = (text(request, "wst:KeyType") or "").endswith("/PublicKey")
    if holder_of_key and sec.cert is None:
        raise Fault("wst:InvalidRequest", "A holder-of-key token needs a signed request")
    renewing = find(request, "wst:Renewing")
    addresses = ".//wst:Participant/wsa:EndpointReference/wsa:Address"
    return dict(cert=sec.cert if holder_of_key else None, span=lifetime(request),
                renew=10 if renewing is not None and renewing.get("Allow") == "true" else None,
                delegable=text(request, "wst:Delegatable") == "true",
                audience=sorted({a.text for a in request.iterfind(addresses, NS)}),
                advice=[(a.get("AdviceSource"),
                         [(x.get("Name"), [v.text for v in x.iterfind("adv:AttributeValue", NS)])
                          for x in a.iterfind("adv:Attribute", NS)])
                        for a in request.iterfind("adv:AdviceSet/adv:Advice", NS)],
                act_as=find(request, "wst14:ActAs/saml2:Assertion"))


def store(token, span):
    start = now()
    token.update(id="_%s" % uuid.uuid4(), start=start, end=start + min(span, MAX_LIFETIME))
    ISSUED[token["id"]] = token
    return token


def make_token(who, spec, authn):
    token = dict(who, authn=SAML + "ac:classes:" + authn, delegates=list(who["delegates"]),
                 **{k: spec[k] for k in ("cert", "renew", "delegable", "audience", "advice")})
    if spec["act_as"] is not None:
        acting = known_token(spec["act_as"])
        if not acting["delegable"]:
            raise Fault("wst:InvalidRequest", "The ActAs token is not delegable")
        token.update({k: acting[k] for k in ("subject", "given", "surname", "groups", "solution")},
                     delegates=acting["delegates"] + [(who["subject"], now())])
    return store(token, spec["span"] or datetime.timedelta(hours=1))


def respond(fill, status=200, headers=()):  # an envelope whose Body fill() fills
    envelope = etree.Element(q("soapenv:Envelope"), nsmap={"soapenv": NS["soapenv"]})
    fill(el(envelope, "soapenv:Body"))
    return loopback.Response(status, None, [("Content-Type", "text/xml; charset=utf-8"), *headers],
                             etree.tostring(envelope, xml_declaration=True, encoding="utf-8"))


def reply(token=None, collection=True, context=None, leg=None, headers=(), status=None):
    # status: (code, reason) of a validation.
    def fill(body):
        if collection:
            body = el(body, "wst:RequestSecurityTokenResponseCollection", nsmap=["wst"])
        response = el(body, "wst:RequestSecurityTokenResponse", nsmap=["wst"])
        if context:
            response.set("Context", context)
        if token:
            el(response, "wst:TokenType", SAML + "assertion")
            el(response, "wst:RequestedSecurityToken").append(build(token))
        if status:
            el(response, "wst:TokenType", WST + "/RSTR/Status")
            status_element = el(response, "wst:Status")
            el(status_element, "wst:Code", WST + "/status/" + status[0])
            el(status_element, "wst:Reason", status[1])
        if leg:
            el(response, "wst:BinaryExchange", base64.b64encode(leg).decode())
    return respond(fill, headers=headers)


def issue(envelope, request, _cookies):
    sec = security(envelope)
    spec = issue_spec(request, sec)
    if find(request, "wst:BinaryExchange") is not None:
        return gss_start(request, spec)
    if sec.user is not None:
        account = account_named(sec.user)
        if not account or not account["password"] or not secrets.compare_digest(
                account["password"].encode(), (sec.password or "").encode()):
            raise Fault("wst:FailedAuthentication", "Invalid user name or password")
        return reply(make_token(account, spec, "PasswordProtectedTransport"))
    if sec.presented:
        return reply(make_token(sec.presented, spec, "PreviousSession"))
    account = next((a for a in ACCOUNTS.values() if sec.cert and a["cert"] == sec.cert), None)
    if not account:
        raise Fault("wst:FailedAuthentication", "No account for these credentials")
    return reply(make_token(account, spec, "X509"))


# The test GSS mechanism: the first client leg is "HELLO <upn> [rounds]"; each server leg
# "CHALLENGE <round> <nonce>" is answered by "RESPONSE <round> <hex SHA-256 of nonce:password>";
# the token comes with the final leg "WELCOME <upn>". The cookie set on the first reply must come
# back on every later leg.
def leg_words(request):
    return base64.b64decode(text(request, "wst:BinaryExchange")).decode().split() + ["", ""]


def challenge(state, context, headers=()):
    state["nonce"] = secrets.token_hex(8)
    GSS[context] = state
    leg = "CHALLENGE %d %s" % (state["round"], state["nonce"])
    return reply(context=context, leg=leg.encode(), headers=headers)


def gss_start(request, spec):
    context = request.get("Context") or "urn:uuid:%s" % uuid.uuid4()
    leg = base64.b64decode(text(request, "wst:BinaryExchange"))
    if KEYTAB and not leg.startswith(b"HELLO"):
        return kerberos(context, leg, spec)
    words = leg_words(request)
    account = words[0] == "HELLO" and account_named(words[1])
    if not account:
        raise Fault("wst:FailedAuthentication", "GSS: unknown principal")
    state = dict(account=account, spec=spec, round=1, cookie=secrets.token_hex(16),
                 rounds=int(words[2]) if words[2].isdigit() else 1)
    cookie = "STSGSSSESSION=%s; Path=/; Secure; HttpOnly" % state["cookie"]
    return challenge(state, context, [("Set-Cookie", cookie)])


def gss_continue(response, cookies):
    context = response.get("Context") or ""
    state = GSS.pop(context, None)
    if state is None or cookies.get("STSGSSSESSION") != state["cookie"]:
        raise Fault("wst:InvalidRequest", "GSS: unknown context or wrong session cookie")
    account = state["account"]
    proof = ("%s:%s" % (state["nonce"], account["password"])).encode()
    if leg_words(response)[:3] != ["RESPONSE", str(state["round"]),
                                   hashlib.sha256(proof).hexdigest()]:
        raise Fault("wst:FailedAuthentication", "GSS: wrong response")
    if state["round"] < state["rounds"]:
        state["round"] += 1
        return challenge(state, context)
    token = make_token(account, state["spec"], "Kerberos")
    return reply(token, context=context, leg=("WELCOME " + account["subject"]).encode())


# Real SPNEGO (with --keytab): the first leg is accepted with the service keytab and must complete
# the context (Kerberos does in one leg), and the token goes to the account named like the
# initiator's principal (alice@REALM -> alice@example.test).
def kerberos(context, leg, spec):
    import gssapi
    creds = gssapi.Credentials(usage="accept", store={b"keytab": KEYTAB.encode()})
    acceptor = gssapi.SecurityContext(creds=creds, usage="accept")
    try:
        out = acceptor.step(leg)
    except gssapi.exceptions.GSSError as error:
        raise Fault("wst:FailedAuthentication", "GSS: %s" % error)
    if not acceptor.complete:
        raise Fault("wst:FailedAuthentication", "GSS: the context needs more than one leg")
    account = account_named(str(acceptor.initiator_name).partition("@")[0])
    if not account:
        raise Fault("wst:FailedAuthentication", "GSS: no account for %s" % acceptor.initiator_name)
    return reply(make_token(account, spec, "Kerberos"), context=context, leg=out)


def renew(envelope, request, _cookies):
    sec = security(envelope)
    token = known_token(find(request, "wst:RenewTarget/saml2:Assertion"))
    if sec.presented or token["cert"] is None or token["cert"] != sec.cert:
        raise Fault("wst:FailedAuthentication", "The request is not signed with the token's key")
    if not token["renew"]:
        raise Fault("wst:InvalidRequest", "The token is not renewable")
    renewed = dict(token, renew=token["renew"] - 1)
    return reply(store(renewed, lifetime(request) or token["end"] - token["start"]), False)


def validate(_envelope, request, _cookies):
    try:
        known_token(find(request, "wst:ValidateTarget/saml2:Assertion"))
        return reply(collection=False, status=("valid", "The token is valid"))
    except Fault as fault:
        return reply(collection=False, status=("invalid", fault.args[1]))


OPERATIONS = {"/RST/Issue": issue, "/RST/Renew": renew, "/RST/Validate": validate,
              "/RSTR/Issue": lambda envelope, _, cookies: gss_continue(
                  find(envelope, "soapenv:Body/wst:RequestSecurityTokenResponse"), cookies)}


def handle(request):
    cookies = dict(part.strip().partition("=")[::2]
                   for part in request.headers.get("Cookie", "").split(";"))
    try:
        envelope = etree.fromstring(request.body, PARSER)
        operation = OPERATIONS[request.headers.get("SOAPAction", "").strip('"')[len(WST):]]
        return operation(envelope, find(envelope, "soapenv:Body/wst:RequestSecurityToken"), cookies)
    except Fault as fault:
        code, message = fault.args
    except Exception as error:  # the server keeps running
        code, message = "soapenv:Server", "internal error: %r" % error

    def fill(body):
        fault = el(body, "soapenv:Fault")
        el(fault, "faultcode", code, nsmap=[code.partition(":")[0]])
        el(fault, "faultstring", message)
    return respond(fill, 500)


def revoke(assertion_id):
    ISSUED.pop(assertion_id, None)
    return "OK"


if __name__ == "__main__":
    # Throughput runs only: each process keeps its own issued tokens and GSS contexts.
    workers = int(sys.argv[2]) if sys.argv[1:2] == ["--workers"] else 1
    KEYTAB = sys.argv[sys.argv.index("--keytab") + 1] if "--keytab" in sys.argv else None
    server = loopback.LoopbackServer(loopback.make_tls_context(
        os.path.join(DATA, "server.pem"), os.path.join(DATA, "server.key")), {None: handle})
    server.socket.setblocking(False)  # processes sharing the port may lose the race to accept
    for _ in range(workers - 1):
        if os.fork() == 0:
            parent = os.getppid()
            threading.Thread(target=server.serve_forever, daemon=True).start()
            while os.getppid() == parent:
                time.sleep(1)
            os._exit(0)
    loopback.run(server, {"revoke": revoke})
