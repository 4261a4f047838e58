"""Self-test of the loopback WS-Trust test STS: every operation with requests built in Python,
issued assertions checked with the xmlsec1 command-line tool, and the fault paths."""

import base64
import concurrent.futures
import datetime
import http.client
import os
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest

from lxml import etree

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from wstrust_client import (StsProcess, certificate_token, continued_leg_body, data_path,  # noqa
                            envelope, issue_body, post, renew_body, sign, tls_context,
                            username_token, validate_body, binary_exchange)
from wstrust_service import gss_response  # noqa: E402
from wstrust_xml import (ACTION_CONTINUE, ACTION_ISSUE, ACTION_RENEW, ACTION_VALIDATE,  # noqa: E402
                         DELEGATION_NS, DS_NS, SAML_NS, SOAP_NS, STATUS_INVALID, STATUS_VALID,
                         WST_NS, XSI_NS, parse_time, q)

EXT = "http://sso.example.com"
HOK = "urn:oasis:names:tc:SAML:2.0:cm:holder-of-key"
BEARER = "urn:oasis:names:tc:SAML:2.0:cm:bearer"


def xmlsec1_verifies(assertion):
    """Verifies an assertion with the xmlsec1 tool against the STS signing certificate."""
    with tempfile.NamedTemporaryFile(suffix=".xml") as handle:
        handle.write(etree.tostring(assertion))
        handle.flush()
        result = subprocess.run(
            ["xmlsec1", "--verify", "--pubkey-cert-pem", data_path("signing.pem"),
             "--id-attr:ID", "urn:oasis:names:tc:SAML:2.0:assertion:Assertion", handle.name],
            capture_output=True)
        return result.returncode == 0


def fault_of(status, body):
    """(faultcode namespace, local name, faultstring) of a SOAP fault reply."""
    root = etree.fromstring(body)
    fault = root.find("%s/%s" % (q(SOAP_NS, "Body"), q(SOAP_NS, "Fault")))
    if status != 500 or fault is None:
        return None
    prefix, _, local = fault.findtext("faultcode").partition(":")
    return fault.find("faultcode").nsmap.get(prefix), local, fault.findtext("faultstring")


def issued_assertion(body, collection=True):
    root = etree.fromstring(body)
    path = ["Body"] + (["RequestSecurityTokenResponseCollection"] if collection else []) + [
        "RequestSecurityTokenResponse", "RequestedSecurityToken"]
    node = root
    for name in path:
        node = next(c for c in node if isinstance(c.tag, str) and etree.QName(c).localname == name)
    return node.find(q(SAML_NS, "Assertion"))


FAILED_AUTH = (WST_NS, "FailedAuthentication")
WST_INVALID = (WST_NS, "InvalidSecurityToken")
WSSE_INVALID = ("http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd",
                "InvalidSecurityToken")
INVALID_REQUEST = (WST_NS, "InvalidRequest")


class StsTestCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sts = StsProcess("--account", "carol:carol-password")

    @classmethod
    def tearDownClass(cls):
        cls.assertEqual(unittest.TestCase(), cls.sts.stop(), 0)

    # ---- helpers -----------------------------------------------------------------------------

    def post(self, root, **options):
        return post(self.sts.port, root, **options)

    def issue_by_password(self, user="alice", password="alice-password", **spec):
        root, _, body = envelope([username_token(user, password)])
        issue_body(body, **spec)
        return self.post(root)

    def issue_by_certificate(self, certificate="client", **spec):
        root, _, body = envelope([certificate_token(data_path(certificate + ".pem"))])
        issue_body(body, holder_of_key=True, use_key="holderOfKeyProofSignature", **spec)
        return self.post(sign(root, data_path(certificate + ".key")))

    def issue_by_token(self, token, key="client", **spec):
        root, _, body = envelope([token])
        issue_body(body, holder_of_key=True, **spec)
        return self.post(sign(root, data_path(key + ".key"), saml_assertion_id=token.get("ID")))

    def token(self, reply, collection=True):
        status, _, body = reply
        self.assertEqual(status, 200, body)
        assertion = issued_assertion(body, collection)
        self.assertTrue(xmlsec1_verifies(assertion))
        return assertion

    def assertFault(self, reply, code, text_start=""):
        status, _, body = reply
        fault = fault_of(status, body)
        self.assertIsNotNone(fault, body)
        self.assertEqual(fault[:2], code, fault)
        self.assertTrue(fault[2].startswith(text_start), fault)

    def subject(self, assertion):
        return assertion.findtext("%s/%s" % (q(SAML_NS, "Subject"), q(SAML_NS, "NameID")))

    def subject_confirmation(self, assertion):
        return assertion.find("%s/%s" % (q(SAML_NS, "Subject"), q(SAML_NS, "SubjectConfirmation")))


class IssueTest(StsTestCase):
    def test_password_issue_honours_the_request(self):
        assertion = self.token(self.issue_by_password(
            lifetime_seconds=777, renewable=True, delegable=True, audience=["urn:b", "urn:a"],
            advice=[("urn:source", [("urn:first", ["v1", "v2"]), ("urn:empty", [])])]))
        self.assertTrue(assertion.get("ID").startswith("_"))
        self.assertEqual(self.subject(assertion), "alice@example.test")
        self.assertEqual(self.subject_confirmation(assertion).get("Method"), BEARER)
        conditions = assertion.find(q(SAML_NS, "Conditions"))
        lifetime = (parse_time(conditions.get("NotOnOrAfter"))
                    - parse_time(conditions.get("NotBefore")))
        self.assertEqual(lifetime, datetime.timedelta(seconds=777))
        data = self.subject_confirmation(assertion).find(q(SAML_NS, "SubjectConfirmationData"))
        self.assertEqual(data.get("NotOnOrAfter"), conditions.get("NotOnOrAfter"))
        self.assertEqual([a.text for a in conditions.iter(q(SAML_NS, "Audience"))],
                         ["urn:a", "urn:b"])
        self.assertNotEqual(conditions.find(q(SAML_NS, "ProxyRestriction")).get("Count"), "0")
        renew = [c for c in conditions.findall(q(SAML_NS, "Condition"))
                 if c.get(q(XSI_NS, "type")) == "rsa:RenewRestrictionType"]
        self.assertEqual(renew[0].nsmap["rsa"], EXT + "/names/2009/12/std-ext/SAML2.0")
        advice = assertion.find(q(SAML_NS, "Advice"))[0]
        self.assertEqual((advice.tag, advice.get("AdviceSource")),
                         ("{%s/names/2009/12/std-ext/SAML2.0}RSAAdvice" % EXT, "urn:source"))
        self.assertEqual([[v.text for v in a] for a in advice], [["v1", "v2"], []])
        groups = [a for a in assertion.iter(q(SAML_NS, "Attribute"))
                  if a.get("Name") == EXT + "/schemas/attr-names/2009/01/GroupIdentity"]
        self.assertEqual([v.text for v in groups[0]],
                         ["example.test\\Users", "example.test\\Readers"])

    def test_defaults_are_not_renewable_and_not_delegable(self):
        assertion = self.token(self.issue_by_password("carol", "carol-password"))
        conditions = assertion.find(q(SAML_NS, "Conditions"))
        self.assertEqual(conditions.find(q(SAML_NS, "ProxyRestriction")).get("Count"), "0")
        self.assertEqual(conditions.findall(q(SAML_NS, "Condition")), [])
        self.assertIsNone(assertion.find(q(SAML_NS, "Advice")))

    def test_password_failures(self):
        cases = [("alice", "wrong", FAILED_AUTH, "Invalid user name or password"),
                 ("nobody", "x", FAILED_AUTH, "Invalid user name or password"),
                 ("client-solution", "", FAILED_AUTH, "Invalid user name or password"),
                 ("expired", "expired-password", FAILED_AUTH,
                  "Password of the user logging on is expired")]
        for user, password, code, text in cases:
            with self.subTest(user=user):
                self.assertFault(self.issue_by_password(user, password), code, text)

    def test_certificate_issue_binds_the_client_certificate(self):
        assertion = self.token(self.issue_by_certificate(lifetime_seconds=300))
        self.assertEqual(self.subject_confirmation(assertion).get("Method"), HOK)
        confirmation = self.subject_confirmation(assertion)
        embedded = confirmation.find(".//" + q(DS_NS, "X509Certificate")).text
        with open(data_path("client.pem"), "rb") as handle:
            pem = handle.read().decode()
        self.assertEqual(embedded, "".join(pem.splitlines()[1:-1]))
        self.assertIn("client-solution@example.test", etree.tostring(assertion).decode())

    def test_signed_password_issue_gives_a_holder_of_key_token_for_the_user(self):
        root, _, body = envelope([username_token("bob", "bob-password"),
                                  certificate_token(data_path("client.pem"))])
        issue_body(body, holder_of_key=True, use_key="holderOfKeyProofSignature")
        assertion = self.token(self.post(sign(root, data_path("client.key"))))
        self.assertEqual(self.subject(assertion), "bob@example.test")
        self.assertEqual(self.subject_confirmation(assertion).get("Method"), HOK)
        root, _, body = envelope([username_token("bob", "bob-password")])
        issue_body(body, holder_of_key=True)
        self.assertFault(self.post(root), INVALID_REQUEST, "A holder-of-key token needs")

    def test_certificate_issue_rejects_bad_requests(self):
        def unsigned():
            root, _, body = envelope([certificate_token(data_path("client.pem"))])
            issue_body(body, holder_of_key=True)
            return root

        def tampered():
            root, _, body = envelope([certificate_token(data_path("client.pem"))])
            issue_body(body, holder_of_key=True, use_key="holderOfKeyProofSignature")
            sign(root, data_path("client.key"))
            body.find(".//" + q(WST_NS, "Delegatable")).text = "true"
            return root

        def body_only():
            root, _, body = envelope([certificate_token(data_path("client.pem"))])
            issue_body(body, holder_of_key=True)
            return sign(root, data_path("client.key"), targets=("Body",))

        def wrong_key():
            root, _, body = envelope([certificate_token(data_path("client.pem"))])
            issue_body(body, holder_of_key=True)
            return sign(root, data_path("other-client.key"))

        def stale_timestamp():
            root, _, body = envelope([certificate_token(data_path("client.pem"))],
                                     created=datetime.datetime.now(datetime.timezone.utc)
                                     - datetime.timedelta(minutes=30))
            issue_body(body, holder_of_key=True)
            return sign(root, data_path("client.key"))

        cases = [(unsigned, WSSE_INVALID), (tampered, WSSE_INVALID), (body_only, WSSE_INVALID),
                 (wrong_key, WSSE_INVALID), (stale_timestamp, WSSE_INVALID)]
        for make, code in cases:
            with self.subTest(make.__name__):
                self.assertFault(self.post(make()), code)
        self.assertFault(self.issue_by_certificate("other-client"), FAILED_AUTH)

    def test_token_issue_and_its_failures(self):
        hok = self.token(self.issue_by_certificate(delegable=True))
        assertion = self.token(self.issue_by_token(hok, audience=["urn:service"]))
        self.assertEqual(self.subject_confirmation(assertion).get("Method"), HOK)
        self.assertEqual([a.text for a in assertion.iter(q(SAML_NS, "Audience"))], ["urn:service"])

        self.assertFault(self.issue_by_token(hok, key="other-client"), WSSE_INVALID)
        forged = etree.fromstring(etree.tostring(hok))
        forged.find(".//" + q(SAML_NS, "NameID")).text = "mallory@example.test"
        self.assertFault(self.issue_by_token(forged), WST_INVALID)
        bearer = self.token(self.issue_by_password())
        self.assertFault(self.issue_by_token(bearer), WST_INVALID)

    def test_delegation_and_act_as(self):
        delegated = self.token(self.issue_by_password(delegate_to="client-solution",
                                                      holder_of_key=True, delegable=True))
        confirmation = self.subject_confirmation(delegated)
        self.assertEqual(confirmation.get("Method"), HOK)
        self.assertEqual(confirmation.findtext(q(SAML_NS, "NameID")),
                         "client-solution@example.test")
        delegates = list(delegated.iter(q(DELEGATION_NS, "Delegate")))
        self.assertEqual([d.findtext(q(SAML_NS, "NameID")) for d in delegates],
                         ["client-solution@example.test"])

        act_as_text = etree.tostring(self.token(self.issue_by_password(delegable=True)))
        acting = self.token(self.issue_by_certificate(act_as=act_as_text))
        self.assertEqual(self.subject(acting), "alice@example.test")
        self.assertEqual(self.subject_confirmation(acting).findtext(q(SAML_NS, "NameID")),
                         "client-solution@example.test")

        not_delegable = etree.tostring(self.token(self.issue_by_password()))
        self.assertFault(self.issue_by_certificate(act_as=not_delegable), INVALID_REQUEST)
        self.assertFault(self.issue_by_password(delegate_to="bob", holder_of_key=True),
                         INVALID_REQUEST)

    def test_gss_legs_with_cookie(self):
        def first(leg):
            root, _, body = envelope()
            binary_exchange(issue_body(body), leg)
            body[0].set("Context", "urn:uuid:test-%s" % leg.hex()[:40])
            return self.post(root)

        def next_leg(context, leg, cookie):
            root, _, body = envelope()
            continued_leg_body(body, context, leg)
            return self.post(root, action=ACTION_CONTINUE, cookies=cookie)

        def server_leg(body):
            response = etree.fromstring(body).find(
                ".//" + q(WST_NS, "RequestSecurityTokenResponse"))
            exchange = response.find(q(WST_NS, "BinaryExchange"))
            leg = base64.b64decode(exchange.text) if exchange is not None else b""
            return response.get("Context"), leg.decode().split()

        status, headers, body = first(b"HELLO bob 2")
        self.assertEqual(status, 200, body)
        cookie = dict([headers["Set-Cookie"].split(";")[0].split("=")])
        context, words = server_leg(body)
        self.assertEqual(words[:2], ["CHALLENGE", "1"])
        status, _, body = next_leg(context, gss_response(words[2], "bob-password", 1), cookie)
        context, words = server_leg(body)
        self.assertEqual(words[:2], ["CHALLENGE", "2"])
        reply = next_leg(context, gss_response(words[2], "bob-password", 2), cookie)
        self.assertEqual(server_leg(reply[2]), (context, ["WELCOME", "bob@example.test"]))
        self.token(reply)

        _, headers, body = first(b"HELLO bob")
        context, words = server_leg(body)
        self.assertFault(next_leg(context, gss_response(words[2], "bob-password", 1),
                                  {"STSGSSSESSION": "forged"}), INVALID_REQUEST, "GSS: the session")
        _, headers, body = first(b"HELLO bob 1 nofinal")
        cookie = dict([headers["Set-Cookie"].split(";")[0].split("=")])
        context, words = server_leg(body)
        self.assertFault(next_leg(context, gss_response(words[2], "wrong", 1), cookie),
                         FAILED_AUTH, "GSS: wrong response")
        self.assertFault(first(b"HELLO expired"), FAILED_AUTH,
                         "Password of the user logging on is expired")


class RenewValidateTest(StsTestCase):
    def renew(self, assertion, key="client", certificate="client", seconds=120):
        root, _, body = envelope([certificate_token(data_path(certificate + ".pem"))])
        renew_body(body, etree.tostring(assertion), seconds)
        return self.post(sign(root, data_path(key + ".key")), action=ACTION_RENEW)

    def validate(self, assertion):
        root, _, body = envelope()
        validate_body(body, etree.tostring(assertion))
        status, _, reply = self.post(root, action=ACTION_VALIDATE)
        self.assertEqual(status, 200, reply)
        return etree.fromstring(reply).findtext(
            ".//%s/%s" % (q(WST_NS, "Status"), q(WST_NS, "Code")))

    def test_renew(self):
        original = self.token(self.issue_by_certificate(renewable=True))
        renewed = self.token(self.renew(original, seconds=123), collection=False)
        self.assertNotEqual(renewed.get("ID"), original.get("ID"))
        conditions = renewed.find(q(SAML_NS, "Conditions"))
        self.assertEqual(parse_time(conditions.get("NotOnOrAfter"))
                         - parse_time(conditions.get("NotBefore")), datetime.timedelta(seconds=123))
        counts = [c.get("Count") for c in conditions.findall(q(SAML_NS, "Condition"))]
        self.assertEqual(counts, ["9"])

    def test_renew_failures(self):
        renewable = self.token(self.issue_by_certificate(renewable=True))
        self.assertFault(self.renew(renewable, "other-client", "other-client"), FAILED_AUTH)
        self.assertFault(self.renew(renewable, key="other-client"), WSSE_INVALID)
        fixed = self.token(self.issue_by_certificate())
        self.assertFault(self.renew(fixed), INVALID_REQUEST, "The token is not renewable")
        bearer = self.token(self.issue_by_password(renewable=True))
        self.assertFault(self.renew(bearer), INVALID_REQUEST)

    def test_validate(self):
        assertion = self.token(self.issue_by_password())
        self.assertEqual(self.validate(assertion), STATUS_VALID)
        tampered = etree.fromstring(etree.tostring(assertion))
        tampered.find(".//" + q(SAML_NS, "NameID")).text = "mallory@example.test"
        self.assertFalse(xmlsec1_verifies(tampered))
        self.assertEqual(self.validate(tampered), STATUS_INVALID)
        self.assertEqual(self.sts.command("revoke " + assertion.get("ID")), "OK")
        self.assertEqual(self.validate(assertion), STATUS_INVALID)


class HostileInputTest(StsTestCase):
    def test_requests_with_a_dtd_are_refused(self):
        text = (b'<?xml version="1.0"?><!DOCTYPE e [<!ENTITY x SYSTEM "file:///etc/passwd">]>'
                b'<e>&x;</e>')
        status, _, body = self.post(text)
        self.assertEqual(fault_of(status, body)[1], "Client")
        self.assertNotIn(b"root:", body)

    def test_external_reference_is_refused(self):
        root, _, body = envelope([certificate_token(data_path("client.pem"))])
        issue_body(body, holder_of_key=True)
        sign(root, data_path("client.key"))
        reference = root.find(".//" + q(DS_NS, "Reference"))
        reference.set("URI", "https://localhost/elsewhere")
        self.assertFault(self.post(root), WSSE_INVALID, "only same-document references")


class FaultInjectionTest(StsTestCase):
    def test_replies_that_replace_the_answer(self):
        cases = [("status:503", lambda s, b: s == 503),
                 ("status:404", lambda s, b: s == 404),
                 ("malformed", lambda s, b: s == 200 and b"RequestSecurityTokenResponse" in b),
                 ("nobody", lambda s, b: s == 200 and b"Body" not in b),
                 ("soapfault:server", lambda s, b: fault_of(s, b)[1] == "Server"),
                 ("soapfault:wsse-invalid-token", lambda s, b: fault_of(s, b)[:2] == WSSE_INVALID),
                 ("soapfault:failed-auth-empty", lambda s, b: fault_of(s, b)[2] == "")]
        for fault, check in cases:
            with self.subTest(fault):
                root, _, body = envelope([username_token("alice", "alice-password")])
                issue_body(body)
                status, _, reply = self.post(root, path="/fault/%s/sts" % fault)
                self.assertTrue(check(status, reply), (status, reply[:300]))
                if fault == "malformed":
                    with self.assertRaises(etree.XMLSyntaxError):
                        etree.fromstring(reply)

    def test_broken_connections(self):
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        with self.assertRaises(http.client.IncompleteRead):
            self.post(root, path="/fault/truncate/sts")
        broken = (ConnectionResetError, ssl.SSLError, http.client.RemoteDisconnected)
        with self.assertRaises(broken):
            self.post(root, path="/fault/reset/sts")
        with self.assertRaises(TimeoutError):
            self.post(root, path="/fault/slow:30/sts", timeout=0.5)

    def test_armed_faults_apply_once_and_counters_count(self):
        self.assertEqual(self.sts.command("reset"), "OK")
        self.assertEqual(self.sts.command("arm status:502 2"), "OK")
        self.assertTrue(self.sts.command("arm bogus").startswith("ERROR"))
        connection = http.client.HTTPSConnection("localhost", self.sts.port, context=tls_context())
        statuses = []
        for _ in range(3):
            root, _, body = envelope([username_token("alice", "alice-password")])
            issue_body(body)
            statuses.append(post(self.sts.port, root, connection=connection)[0])
        connection.close()
        self.assertEqual(statuses, [502, 502, 200])
        stats = self.sts.command("stats")
        self.assertIn('"connections": 1', stats)
        self.assertIn('"handshakes": 1', stats)
        self.assertIn('"requests": 3', stats)
        self.assertIn('"issue-password": 1', stats)

    def test_soap_over_the_control_channel(self):
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        words = self.sts.command("soap %s %s" % (ACTION_ISSUE, base64.b64encode(
            etree.tostring(root)).decode())).split()
        self.assertEqual(words[:2], ["REPLY", "200"])
        self.assertTrue(xmlsec1_verifies(issued_assertion(base64.b64decode(words[2]))))
        self.assertEqual(self.sts.command("soap %s %s" % (ACTION_ISSUE, "***")),
                         "ERROR the envelope must be Base64")

    def test_content_faults(self):
        def reply(fault):
            root, _, body = envelope()
            binary_exchange(issue_body(body), b"HELLO bob")
            status, _, data = self.post(root, path="/fault/%s/sts" % fault)
            self.assertEqual(status, 200, data)
            return data

        self.assertIn(b"Context=", reply("slow:0"))
        self.assertNotIn(b"Context=", reply("nocontext"))
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        _, _, data = self.post(root, path="/fault/notoken,wrongtokentype/sts")
        self.assertNotIn(b"RequestedSecurityToken", data)
        self.assertIn(b"SAML:1.0:assertion</wst:TokenType>", data)
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        _, _, data = self.post(root, path="/fault/tamper/sts")
        self.assertFalse(xmlsec1_verifies(issued_assertion(data)))

    def test_control_over_https_and_bad_fault_paths(self):
        def control(command):
            connection = http.client.HTTPSConnection("localhost", self.sts.port,
                                                     context=tls_context())
            connection.request("POST", "/control", body=command.encode())
            return connection.getresponse().read().decode().strip()

        self.assertEqual(control("arm notsoap"), "OK")
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        self.assertIn(b"<html>", self.post(root)[2])
        self.assertTrue(control("stats").startswith("STATS {"))
        self.assertEqual(self.post(root, path="/fault/status:99/sts")[0], 400)
        self.assertEqual(self.post(root, path="/fault/teapot/sts")[0], 400)


class HttpTest(StsTestCase):
    def test_expect_continue_is_answered_before_the_body(self):
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        data = etree.tostring(root)
        raw = socket.create_connection(("127.0.0.1", self.sts.port), timeout=10)
        with tls_context().wrap_socket(raw, server_hostname="localhost") as tls:
            tls.sendall(b"POST /sts/STSService HTTP/1.1\r\nHost: localhost\r\n"
                        b"Content-Type: text/xml\r\nSOAPAction: \"%s\"\r\n"
                        b"Expect: 100-continue\r\nContent-Length: %d\r\n\r\n"
                        % (ACTION_ISSUE.encode(), len(data)))
            self.assertTrue(tls.recv(64).startswith(b"HTTP/1.1 100"))
            tls.sendall(data)
            self.assertIn(b"200 OK", tls.recv(64))


class ConcurrencyTest(StsTestCase):
    def test_concurrent_connections_are_all_served(self):
        root, _, body = envelope([username_token("alice", "alice-password")])
        issue_body(body)
        data = etree.tostring(root)
        with concurrent.futures.ThreadPoolExecutor(max_workers=32) as pool:
            statuses = list(pool.map(lambda _: post(self.sts.port, data)[0], range(64)))
        self.assertEqual(statuses, [200] * 64)
        self.assertIn('"issue-password": 64', self.sts.command("stats"))


class LifecycleTest(unittest.TestCase):
    def test_sigterm_stops_the_server(self):
        sts = StsProcess("--no-stdin")
        sts.process.send_signal(signal.SIGTERM)
        self.assertEqual(sts.stop(), 0)

    def test_faults_option_applies_to_every_request(self):
        sts = StsProcess("--faults", "status:418")
        try:
            root, _, body = envelope([username_token("alice", "alice-password")])
            issue_body(body)
            self.assertEqual([post(sts.port, root)[0] for _ in range(2)], [418, 418])
        finally:
            self.assertEqual(sts.stop(), 0)

    def test_closing_stdin_stops_the_server(self):
        self.assertEqual(StsProcess().stop(), 0)

    def test_workers_share_the_port_and_stop_together(self):
        sts = StsProcess("--workers", "3")
        connections = [http.client.HTTPSConnection("localhost", sts.port, context=tls_context())
                       for _ in range(6)]
        for connection in connections:
            root, _, body = envelope([username_token("alice", "alice-password")])
            issue_body(body)
            self.assertEqual(post(sts.port, root, connection=connection)[0], 200)
            connection.close()
        children = subprocess.run(["pgrep", "-P", str(sts.process.pid)], capture_output=True,
                                  text=True).stdout.split()
        self.assertEqual(len(children), 2)
        self.assertEqual(sts.stop(), 0)
        for child in children:  # reaped by the server before it exited
            self.assertFalse(os.path.exists("/proc/%s" % child))


if __name__ == "__main__":
    unittest.main()
