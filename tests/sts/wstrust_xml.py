"""XML plumbing shared by the loopback WS-Trust test STS: namespaces, a hostile-input-safe parser,
wire time format and small element helpers."""

import datetime
import re

from lxml import etree

SOAP_NS = "http://schemas.xmlsoap.org/soap/envelope/"
WST_NS = "http://docs.oasis-open.org/ws-sx/ws-trust/200512"
WST14_NS = "http://docs.oasis-open.org/ws-sx/ws-trust/200802"
WSSE_NS = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd"
WSSE11_NS = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.1.xsd"
WSU_NS = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd"
WSA_NS = "http://www.w3.org/2005/08/addressing"
DS_NS = "http://www.w3.org/2000/09/xmldsig#"
SAML_NS = "urn:oasis:names:tc:SAML:2.0:assertion"
DELEGATION_NS = "urn:oasis:names:tc:SAML:2.0:conditions:delegation"
XS_NS = "http://www.w3.org/2001/XMLSchema"
XSI_NS = "http://www.w3.org/2001/XMLSchema-instance"

SAML_TOKEN_TYPE = "urn:oasis:names:tc:SAML:2.0:assertion"
STATUS_TOKEN_TYPE = WST_NS + "/RSTR/Status"
STATUS_VALID = WST_NS + "/status/valid"
STATUS_INVALID = WST_NS + "/status/invalid"
REQUEST_ISSUE = WST_NS + "/Issue"
REQUEST_RENEW = WST_NS + "/Renew"
REQUEST_VALIDATE = WST_NS + "/Validate"
KEY_TYPE_BEARER = WST_NS + "/Bearer"
KEY_TYPE_PUBLIC_KEY = WST_NS + "/PublicKey"
ACTION_ISSUE = WST_NS + "/RST/Issue"
ACTION_CONTINUE = WST_NS + "/RSTR/Issue"
ACTION_RENEW = WST_NS + "/RST/Renew"
ACTION_VALIDATE = WST_NS + "/RST/Validate"
PASSWORD_TEXT = ("http://docs.oasis-open.org/wss/2004/01/"
                 "oasis-200401-wss-username-token-profile-1.0#PasswordText")
BASE64_ENCODING = ("http://docs.oasis-open.org/wss/2004/01/"
                   "oasis-200401-wss-soap-message-security-1.0#Base64Binary")
X509_TOKEN_TYPE = ("http://docs.oasis-open.org/wss/2004/01/"
                   "oasis-200401-wss-x509-token-profile-1.0#X509v3")
SAML_REFERENCE_TOKEN_TYPE = ("http://docs.oasis-open.org/wss/"
                             "oasis-wss-saml-tokenprofile-1.1#SAMLV2.0")
SAMLID_VALUE_TYPE = "http://docs.oasis-open.org/wss/oasis-wss-saml-token-profile-1.1#SAMLID"
SPNEGO_VALUE_TYPE = "http://schemas.xmlsoap.org/ws/2005/02/trust/spnego"
EXC_C14N = "http://www.w3.org/2001/10/xml-exc-c14n#"
RSA_SHA256 = "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256"
SHA256 = "http://www.w3.org/2001/04/xmlenc#sha256"
ENVELOPED = "http://www.w3.org/2000/09/xmldsig#enveloped-signature"
UPN_FORMAT = "http://schemas.xmlsoap.org/claims/UPN"


class XmlInputError(Exception):
    """The request is not XML this server is willing to read."""


def q(namespace, local):
    return "{%s}%s" % (namespace, local)


_PARSER = etree.XMLParser(resolve_entities=False, no_network=True, load_dtd=False,
                          dtd_validation=False, huge_tree=False, remove_blank_text=False)


def parse(data):
    """Parses request bytes. Documents with a DTD are refused outright: nothing a WS-Trust client
    sends needs one, and refusing them closes the door on entity tricks."""
    try:
        root = etree.fromstring(data, _PARSER)
    except etree.XMLSyntaxError as error:
        raise XmlInputError("request is not well-formed XML: %s" % error) from None
    if root.getroottree().docinfo.doctype:
        raise XmlInputError("request carries a DTD")
    return root


def child(element, namespace, local):
    """The first child element with this qualified name, or None."""
    if element is None:
        return None
    return element.find(q(namespace, local))


def children(element, namespace, local):
    return [] if element is None else element.findall(q(namespace, local))


def text_of(element):
    return None if element is None else (element.text or "")


def element_children(element):
    return [node for node in element if isinstance(node.tag, str)]


_TIME = re.compile(r"^(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)(\.\d{1,9})?(Z|[+-]\d\d:\d\d)?$")


def parse_time(value):
    """Parses an xs:dateTime as the client writes it; a value without a zone is taken as UTC."""
    match = _TIME.match((value or "").strip())
    if not match:
        raise ValueError("not a date-time: %r" % value)
    year, month, day, hour, minute, second = (int(match.group(i)) for i in range(1, 7))
    fraction = match.group(7) or ""
    microseconds = int((fraction[1:] + "000000")[:6]) if fraction else 0
    zone = match.group(8)
    result = datetime.datetime(year, month, day, hour, minute, second, microseconds,
                               tzinfo=datetime.timezone.utc)
    if zone and zone != "Z":
        sign = 1 if zone[0] == "+" else -1
        offset = datetime.timedelta(hours=int(zone[1:3]), minutes=int(zone[4:6]))
        result -= sign * offset
    return result


def format_time(instant):
    """UTC with milliseconds and a Z suffix, the form the client itself writes."""
    instant = instant.astimezone(datetime.timezone.utc)
    return instant.strftime("%Y-%m-%dT%H:%M:%S.") + "%03dZ" % (instant.microsecond // 1000)


def utc_now():
    return datetime.datetime.now(datetime.timezone.utc)


def to_bytes(element):
    return etree.tostring(element, xml_declaration=False, encoding="utf-8")


class SignatureFormError(Exception):
    """A signature uses an algorithm or transform this server does not accept."""


def check_signed_info(signature, allowed_transforms):
    """Accepts only exclusive canonicalisation, RSA-SHA256, SHA-256 digests, same-document
    references and, per reference, one of the allowed transform lists. Returns the reference
    URIs without their leading '#'."""
    signed_info = child(signature, DS_NS, "SignedInfo")
    if signed_info is None:
        raise SignatureFormError("signature without SignedInfo")
    method = child(signed_info, DS_NS, "CanonicalizationMethod")
    if method is None or method.get("Algorithm") != EXC_C14N or len(method):
        raise SignatureFormError("unsupported canonicalisation")
    algorithm = child(signed_info, DS_NS, "SignatureMethod")
    if algorithm is None or algorithm.get("Algorithm") != RSA_SHA256:
        raise SignatureFormError("unsupported signature method")
    targets = []
    for reference in children(signed_info, DS_NS, "Reference"):
        uri = reference.get("URI") or ""
        if not uri.startswith("#") or len(uri) < 2:
            raise SignatureFormError("only same-document references are accepted")
        digest = child(reference, DS_NS, "DigestMethod")
        if digest is None or digest.get("Algorithm") != SHA256:
            raise SignatureFormError("unsupported digest method")
        transforms = [t.get("Algorithm") for t in
                      children(child(reference, DS_NS, "Transforms"), DS_NS, "Transform")]
        if transforms not in allowed_transforms:
            raise SignatureFormError("unsupported transforms %s" % transforms)
        targets.append(uri[1:])
    return targets
