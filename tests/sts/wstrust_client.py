"""A minimal WS-Trust client for exercising the loopback test STS from Python: starts the server,
builds requests shaped like the C++ client's (timestamped wsse:Security header, user name token,
certificate token, holder-of-key signature over Body and Timestamp) and posts them."""

import base64
import datetime
import http.client
import os
import ssl
import subprocess
import sys
import uuid

import xmlsec
from lxml import etree

from wstrust_saml import certificate_der
from wstrust_xml import (ACTION_ISSUE, BASE64_ENCODING, KEY_TYPE_BEARER, KEY_TYPE_PUBLIC_KEY,
                         PASSWORD_TEXT, REQUEST_ISSUE, REQUEST_RENEW, REQUEST_VALIDATE,
                         SAML_REFERENCE_TOKEN_TYPE, SAML_TOKEN_TYPE, SAMLID_VALUE_TYPE, SOAP_NS,
                         SPNEGO_VALUE_TYPE, STATUS_TOKEN_TYPE, WSA_NS, WSSE11_NS, WSSE_NS, WSU_NS,
                         WST14_NS, WST_NS, X509_TOKEN_TYPE, XS_NS, XSI_NS, format_time, q, utc_now)

HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.path.normpath(os.path.join(HERE, "..", "data", "sts"))


def data_path(name):
    return os.path.join(DATA, name)


class StsProcess:
    """The STS as a child process; commands go through its stdin."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen(
            [sys.executable, os.path.join(HERE, "wstrust_sts.py"), *arguments],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line.startswith("READY "):
            self.process.kill()
            raise RuntimeError("the STS did not start: %r" % line)
        self.port = int(line.split()[1])

    def command(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().strip()

    def stop(self):
        """Closes stdin (which stops the server) and returns its exit status."""
        if self.process.poll() is None:
            self.process.stdin.close()
        try:
            return self.process.wait(timeout=30)
        finally:
            self.process.stdout.close()


def tls_context():
    return ssl.create_default_context(cafile=data_path("ca.pem"))


def post(port, envelope, action=ACTION_ISSUE, path="/sts/STSService", cookies=None, timeout=30,
         connection=None):
    """POSTs a SOAP envelope; returns (status, headers, body bytes)."""
    own = connection is None
    connection = connection or http.client.HTTPSConnection("localhost", port, timeout=timeout,
                                                           context=tls_context())
    data = envelope if isinstance(envelope, bytes) else etree.tostring(envelope)
    headers = {"Content-Type": "text/xml", "SOAPAction": '"%s"' % action}
    if cookies:
        headers["Cookie"] = "; ".join("%s=%s" % item for item in cookies.items())
    try:
        connection.request("POST", path, body=data, headers=headers)
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read()
    finally:
        if own:
            connection.close()


def element(parent, namespace, local, text=None, nsmap=None, **attributes):
    node = etree.SubElement(parent, q(namespace, local), nsmap=nsmap)
    for name, value in attributes.items():
        node.set(name, value)
    if text is not None:
        node.text = text
    return node


def envelope(security_extras=(), timestamp_minutes=10, created=None):
    """Returns (envelope, security, body) with a timestamped security header."""
    root = etree.Element(q(SOAP_NS, "Envelope"), nsmap={"soapenv": SOAP_NS})
    header = element(root, SOAP_NS, "Header")
    security = element(header, WSSE_NS, "Security", nsmap={"wsse": WSSE_NS})
    timestamp = element(security, WSU_NS, "Timestamp", nsmap={"wsu": WSU_NS})
    created = created or utc_now()
    element(timestamp, WSU_NS, "Created", format_time(created))
    element(timestamp, WSU_NS, "Expires",
            format_time(created + datetime.timedelta(minutes=timestamp_minutes)))
    for extra in security_extras:
        security.append(extra)
    body = element(root, SOAP_NS, "Body", nsmap={"wst": WST_NS})
    return root, security, body


def username_token(user, password=None):
    token = etree.Element(q(WSSE_NS, "UsernameToken"), nsmap={"wsse": WSSE_NS})
    element(token, WSSE_NS, "Username", user)
    if password is not None:
        element(token, WSSE_NS, "Password", password, Type=PASSWORD_TEXT)
    return token


def lifetime(parent, seconds):
    created = utc_now()
    node = element(parent, WST_NS, "Lifetime", nsmap={"wsu": WSU_NS})
    element(node, WSU_NS, "Created", format_time(created))
    element(node, WSU_NS, "Expires", format_time(created + datetime.timedelta(seconds=seconds)))


def issue_body(body, holder_of_key=False, lifetime_seconds=600, renewable=False, delegable=False,
               delegate_to=None, act_as=None, audience=(), advice=(), use_key=None,
               advice_ns="http://sso.example.com/names/2009/12/std-ext/WS-Trust1.4/advice"):
    """The issue request body; `advice` is [(source, [(name, [values])])]."""
    rst = element(body, WST_NS, "RequestSecurityToken", nsmap={"wst": WST_NS, "wst14": WST14_NS})
    element(rst, WST_NS, "TokenType", SAML_TOKEN_TYPE)
    element(rst, WST_NS, "RequestType", REQUEST_ISSUE)
    element(rst, WST_NS, "KeyType", KEY_TYPE_PUBLIC_KEY if holder_of_key else KEY_TYPE_BEARER)
    lifetime(rst, lifetime_seconds)
    element(rst, WST_NS, "Renewing", Allow="true" if renewable else "false", OK="false")
    element(rst, WST_NS, "Delegatable", "true" if delegable else "false")
    if delegate_to:
        element(rst, WST_NS, "DelegateTo").append(username_token(delegate_to))
    if act_as is not None:
        element(rst, WST14_NS, "ActAs").append(etree.fromstring(act_as))
    if audience:
        participants = element(rst, WST_NS, "Participants", nsmap={"wsa": WSA_NS})
        for address in sorted(audience):
            reference = element(element(participants, WST_NS, "Participant"), WSA_NS,
                                "EndpointReference")
            element(reference, WSA_NS, "Address", address)
    if advice:
        advice_set = element(rst, advice_ns, "AdviceSet", nsmap={
            "rsa-advice": advice_ns, "saml": SAML_TOKEN_TYPE, "xs": XS_NS, "xsi": XSI_NS})
        for source, attributes in advice:
            node = element(advice_set, advice_ns, "Advice", AdviceSource=source)
            for name, values in attributes:
                attribute = element(node, advice_ns, "Attribute", Name=name)
                for value in values:
                    element(attribute, advice_ns, "AttributeValue", value).set(
                        q(XSI_NS, "type"), "xs:string")
    if use_key:
        element(rst, WST_NS, "UseKey", Sig=use_key)
    return rst


def renew_body(body, assertion_text, lifetime_seconds):
    rst = element(body, WST_NS, "RequestSecurityToken", nsmap={"wst": WST_NS})
    element(rst, WST_NS, "TokenType", SAML_TOKEN_TYPE)
    element(rst, WST_NS, "RequestType", REQUEST_RENEW)
    lifetime(rst, lifetime_seconds)
    element(rst, WST_NS, "RenewTarget").append(etree.fromstring(assertion_text))
    return rst


def validate_body(body, assertion_text):
    rst = element(body, WST_NS, "RequestSecurityToken", nsmap={"wst": WST_NS})
    element(rst, WST_NS, "TokenType", STATUS_TOKEN_TYPE)
    element(rst, WST_NS, "RequestType", REQUEST_VALIDATE)
    element(rst, WST_NS, "ValidateTarget").append(etree.fromstring(assertion_text))
    return rst


def binary_exchange(parent, leg):
    return element(parent, WST_NS, "BinaryExchange", base64.b64encode(leg).decode("ascii"),
                   EncodingType=BASE64_ENCODING, ValueType=SPNEGO_VALUE_TYPE)


def continued_leg_body(body, context, leg):
    response = element(body, WST_NS, "RequestSecurityTokenResponse", Context=context)
    binary_exchange(response, leg)
    return response


def certificate_token(certificate_path):
    with open(certificate_path, "rb") as handle:
        der = certificate_der(handle.read())
    token = etree.Element(q(WSSE_NS, "BinarySecurityToken"), nsmap={"wsu": WSU_NS})
    token.set("EncodingType", BASE64_ENCODING)
    token.set("ValueType", X509_TOKEN_TYPE)
    token.set(q(WSU_NS, "Id"), "holderOfKeyCertificate")
    token.text = base64.b64encode(der).decode("ascii")
    return token


def sign(root, key_path, saml_assertion_id=None, targets=("Body", "Timestamp")):
    """Signs the Body and the Timestamp like the C++ client: exclusive c14n, RSA-SHA256, key
    information naming the certificate token or, with `saml_assertion_id`, a SAML token."""
    security = root.find("%s/%s" % (q(SOAP_NS, "Header"), q(WSSE_NS, "Security")))
    nodes = {"Body": root.find(q(SOAP_NS, "Body")),
             "Timestamp": security.find(q(WSU_NS, "Timestamp"))}
    signature = xmlsec.template.create(root, xmlsec.Transform.EXCL_C14N,
                                       xmlsec.Transform.RSA_SHA256, ns="ds")
    signature.set("Id", "holderOfKeyProofSignature")
    security.append(signature)
    context = xmlsec.SignatureContext()
    for name in targets:
        node = nodes[name]
        node_id = "_%s-%s" % (name.lower(), uuid.uuid4())
        node.set(q(WSU_NS, "Id"), node_id)
        context.register_id(node, "Id", WSU_NS)
        reference = xmlsec.template.add_reference(signature, xmlsec.Transform.SHA256,
                                                  uri="#" + node_id)
        xmlsec.template.add_transform(reference, xmlsec.Transform.EXCL_C14N)
    key_info = xmlsec.template.ensure_key_info(signature)
    reference = etree.SubElement(key_info, q(WSSE_NS, "SecurityTokenReference"),
                                 nsmap={"wsse": WSSE_NS, "wsse11": WSSE11_NS})
    if saml_assertion_id:
        reference.set(q(WSSE11_NS, "TokenType"), SAML_REFERENCE_TOKEN_TYPE)
        element(reference, WSSE_NS, "KeyIdentifier", saml_assertion_id,
                ValueType=SAMLID_VALUE_TYPE)
    else:
        element(reference, WSSE_NS, "Reference", URI="#holderOfKeyCertificate",
                ValueType=X509_TOKEN_TYPE)
    context.key = xmlsec.Key.from_file(key_path, xmlsec.KeyFormat.PEM)
    context.sign(signature)
    return root
