"""SAML 2.0 assertions issued by the loopback test STS: building and signing them in the strict
layout the client's token parser accepts, and reading back (after verifying) the ones it issued."""

import base64
import copy
import dataclasses
import datetime
import threading
import uuid
from typing import List, Optional, Tuple

import xmlsec
from cryptography import x509
from cryptography.hazmat.primitives import serialization
from lxml import etree

from wstrust_xml import (DELEGATION_NS, DS_NS, ENVELOPED, EXC_C14N, SAML_NS, UPN_FORMAT, XS_NS,
                         XSI_NS, check_signed_info, child, children, element_children, format_time,
                         parse_time, q, text_of)

BEARER_METHOD = "urn:oasis:names:tc:SAML:2.0:cm:bearer"
HOK_METHOD = "urn:oasis:names:tc:SAML:2.0:cm:holder-of-key"
GIVEN_NAME = "http://schemas.xmlsoap.org/ws/2005/05/identity/claims/givenname"
SURNAME = "http://schemas.xmlsoap.org/ws/2005/05/identity/claims/surname"
URI_ATTRIBUTE_FORMAT = "urn:oasis:names:tc:SAML:2.0:attrname-format:uri"
ENTITY_FORMAT = "urn:oasis:names:tc:SAML:2.0:nameid-format:entity"

AUTHN_PASSWORD = "urn:oasis:names:tc:SAML:2.0:ac:classes:PasswordProtectedTransport"
AUTHN_CERTIFICATE = "urn:oasis:names:tc:SAML:2.0:ac:classes:X509"
AUTHN_TOKEN = "urn:oasis:names:tc:SAML:2.0:ac:classes:PreviousSession"
AUTHN_GSS = "urn:oasis:names:tc:SAML:2.0:ac:classes:Kerberos"


class ExtensionNames:
    """The vendor-extension URIs, which share a configurable scheme and host."""

    def __init__(self, base):
        base = base.rstrip("/")
        self.base = base
        self.saml_extension_ns = base + "/names/2009/12/std-ext/SAML2.0"
        self.request_advice_ns = base + "/names/2009/12/std-ext/WS-Trust1.4/advice"
        self.group_identity = base + "/schemas/attr-names/2009/01/GroupIdentity"
        self.is_solution = base + "/schemas/attr-names/2011/07/isSolution"


@dataclasses.dataclass
class Advice:
    source: str
    attributes: List[Tuple[str, List[str]]]


@dataclasses.dataclass
class TokenContent:
    """Everything an issued assertion says, independent of its XML."""
    subject: str  # UPN, name@domain
    not_before: datetime.datetime
    not_on_or_after: datetime.datetime
    authn_context: str
    authn_instant: datetime.datetime
    certificate: Optional[bytes] = None  # DER of the holder-of-key certificate; None for bearer
    given_name: Optional[str] = None
    surname: Optional[str] = None
    groups: List[str] = dataclasses.field(default_factory=list)  # domain\name
    is_solution: Optional[bool] = None
    delegates: List[Tuple[str, datetime.datetime]] = dataclasses.field(default_factory=list)
    audience: List[str] = dataclasses.field(default_factory=list)
    delegable: bool = False
    renew_count: Optional[int] = None  # None: not renewable
    advice: List[Advice] = dataclasses.field(default_factory=list)
    assertion_id: Optional[str] = None
    issuer: Optional[str] = None

    @property
    def holder_of_key(self):
        return self.certificate is not None


class TokenError(Exception):
    """A presented assertion is not one this STS issued, or is no longer usable."""


def _sub(parent, namespace, local, text=None, **attributes):
    element = etree.SubElement(parent, q(namespace, local))
    for name, value in attributes.items():
        element.set(name, value)
    if text is not None:
        element.text = text
    return element


def _name_id(parent, upn):
    return _sub(parent, SAML_NS, "NameID", upn, Format=UPN_FORMAT)


def _attribute(parent, name, values, friendly_name=None):
    attribute = _sub(parent, SAML_NS, "Attribute", Name=name, NameFormat=URI_ATTRIBUTE_FORMAT)
    if friendly_name:
        attribute.set("FriendlyName", friendly_name)
    for value in values:
        _sub(attribute, SAML_NS, "AttributeValue", value).set(q(XSI_NS, "type"), "xs:string")
    return attribute


class Signer:
    """Signs assertions with the STS's key and verifies assertions against its certificate."""

    def __init__(self, key_path, certificate_path, names: ExtensionNames, issuer):
        with open(certificate_path, "rb") as handle:
            self.certificate_pem = handle.read()
        self.certificate = x509.load_pem_x509_certificate(self.certificate_pem)
        # Loaded once: parsing the PEM key costs as much as a signature. Contexts take a copy of
        # the key when it is assigned, under the lock, so threads never share a live handle.
        self._signing_key = xmlsec.Key.from_file(key_path, xmlsec.KeyFormat.PEM)
        self._signing_key.load_cert_from_memory(self.certificate_pem, xmlsec.KeyFormat.PEM)
        self._verifying_key = xmlsec.Key.from_memory(self.certificate_pem,
                                                     xmlsec.KeyFormat.CERT_PEM)
        self._key_lock = threading.Lock()
        self.names = names
        self.issuer = issuer

    # ---- issuing -----------------------------------------------------------------------------

    def build(self, token: TokenContent):
        """Returns the signed Assertion element of a new token; fills in its ID and issuer."""
        token.assertion_id = "_" + str(uuid.uuid4())
        token.issuer = self.issuer
        now = datetime.datetime.now(datetime.timezone.utc)
        assertion = etree.Element(q(SAML_NS, "Assertion"),
                                  nsmap={"saml2": SAML_NS, "xs": XS_NS, "xsi": XSI_NS})
        assertion.set("ID", token.assertion_id)
        assertion.set("IssueInstant", format_time(now))
        assertion.set("Version", "2.0")
        _sub(assertion, SAML_NS, "Issuer", self.issuer, Format=ENTITY_FORMAT)
        self._subject(assertion, token)
        self._conditions(assertion, token)
        self._advice(assertion, token)
        statement = _sub(assertion, SAML_NS, "AuthnStatement",
                         AuthnInstant=format_time(token.authn_instant))
        _sub(_sub(statement, SAML_NS, "AuthnContext"), SAML_NS, "AuthnContextClassRef",
             token.authn_context)
        self._attributes(assertion, token)
        self._sign(assertion)
        return assertion

    def _subject(self, assertion, token):
        subject = _sub(assertion, SAML_NS, "Subject")
        _name_id(subject, token.subject)
        confirmation = _sub(subject, SAML_NS, "SubjectConfirmation",
                            Method=HOK_METHOD if token.holder_of_key else BEARER_METHOD)
        if token.delegates:
            _name_id(confirmation, token.delegates[-1][0])
        data = _sub(confirmation, SAML_NS, "SubjectConfirmationData")
        if token.holder_of_key:
            data.set(q(XSI_NS, "type"), "saml2:KeyInfoConfirmationDataType")
            key_info = _sub(data, DS_NS, "KeyInfo")
            _sub(_sub(key_info, DS_NS, "X509Data"), DS_NS, "X509Certificate",
                 base64.b64encode(token.certificate).decode("ascii"))
        else:
            # A bearer confirmation lasts exactly as long as the token.
            data.set("NotOnOrAfter", format_time(token.not_on_or_after))

    def _conditions(self, assertion, token):
        conditions = _sub(assertion, SAML_NS, "Conditions",
                          NotBefore=format_time(token.not_before),
                          NotOnOrAfter=format_time(token.not_on_or_after))
        if token.delegates:
            restriction = etree.SubElement(conditions, q(SAML_NS, "Condition"),
                                           nsmap={"del": DELEGATION_NS})
            restriction.set(q(XSI_NS, "type"), "del:DelegationRestrictionType")
            for upn, instant in token.delegates:
                delegate = _sub(restriction, DELEGATION_NS, "Delegate",
                                DelegationInstant=format_time(instant))
                _name_id(delegate, upn)
        if token.audience:
            audience = _sub(conditions, SAML_NS, "AudienceRestriction")
            for entry in token.audience:
                _sub(audience, SAML_NS, "Audience", entry)
        # Count 0 forbids further delegation explicitly; absence would mean "unlimited".
        _sub(conditions, SAML_NS, "ProxyRestriction",
             Count=str(max(0, 10 - len(token.delegates)) if token.delegable else 0))
        if token.renew_count is not None:
            renew = etree.SubElement(conditions, q(SAML_NS, "Condition"),
                                     nsmap={"rsa": self.names.saml_extension_ns})
            renew.set(q(XSI_NS, "type"), "rsa:RenewRestrictionType")
            renew.set("Count", str(token.renew_count))

    def _advice(self, assertion, token):
        if not token.advice:
            return
        advice = _sub(assertion, SAML_NS, "Advice")
        for entry in token.advice:
            rsa_advice = etree.SubElement(advice, q(self.names.saml_extension_ns, "RSAAdvice"),
                                          nsmap={"rsa": self.names.saml_extension_ns})
            rsa_advice.set("AdviceSource", entry.source)
            for name, values in entry.attributes:
                _attribute(rsa_advice, name, values)

    def _attributes(self, assertion, token):
        rows = [(GIVEN_NAME, [token.given_name] if token.given_name else [], "givenName"),
                (SURNAME, [token.surname] if token.surname else [], "surname"),
                (self.names.group_identity, token.groups, "Groups")]
        if token.is_solution is not None:
            rows.append((self.names.is_solution, ["true" if token.is_solution else "false"],
                         "isSolution"))
        rows = [row for row in rows if row[1]]
        if not rows:
            return
        statement = _sub(assertion, SAML_NS, "AttributeStatement")
        for name, values, friendly in rows:
            _attribute(statement, name, values, friendly)

    def _sign(self, assertion):
        signature = xmlsec.template.create(assertion, xmlsec.Transform.EXCL_C14N,
                                           xmlsec.Transform.RSA_SHA256, ns="ds")
        assertion.insert(1, signature)  # right after Issuer
        reference = xmlsec.template.add_reference(signature, xmlsec.Transform.SHA256,
                                                  uri="#" + assertion.get("ID"))
        xmlsec.template.add_transform(reference, xmlsec.Transform.ENVELOPED)
        xmlsec.template.add_transform(reference, xmlsec.Transform.EXCL_C14N)
        key_info = xmlsec.template.ensure_key_info(signature)
        xmlsec.template.x509_data_add_certificate(xmlsec.template.add_x509_data(key_info))
        context = xmlsec.SignatureContext()
        context.register_id(assertion, "ID")
        with self._key_lock:
            context.key = self._signing_key
        context.sign(signature)

    # ---- reading back ------------------------------------------------------------------------

    def verify(self, assertion):
        """Verifies that this STS signed the assertion, on a detached copy so that nothing around
        it can take part (no wrapping). Returns the copy; raises TokenError."""
        if assertion is None or assertion.tag != q(SAML_NS, "Assertion"):
            raise TokenError("no SAML 2.0 Assertion given")
        detached = etree.fromstring(etree.tostring(assertion))
        signatures = children(detached, DS_NS, "Signature")
        if len(signatures) != 1:
            raise TokenError("the assertion must carry exactly one signature")
        references = signatures[0].findall(
            "%s/%s" % (q(DS_NS, "SignedInfo"), q(DS_NS, "Reference")))
        if len(references) != 1 or references[0].get("URI") != "#" + (detached.get("ID") or ""):
            raise TokenError("the assertion's signature does not cover the assertion")
        check_signed_info(signatures[0], [[ENVELOPED, EXC_C14N], [ENVELOPED]])
        context = xmlsec.SignatureContext()
        context.register_id(detached, "ID")
        with self._key_lock:
            context.key = self._verifying_key
        try:
            context.verify(signatures[0])
        except xmlsec.Error as error:
            raise TokenError("the assertion's signature does not verify: %s" % error) from None
        return detached

    def read(self, assertion, now=None, skew_seconds=0):
        """Verifies an assertion and returns its TokenContent; with `now`, also requires it to be
        within its validity window (with the given skew)."""
        detached = self.verify(assertion)
        try:
            token = self._read_content(detached)
        except (ValueError, TypeError, AttributeError) as error:
            raise TokenError("unreadable assertion: %s" % error) from None
        if now is not None:
            skew = datetime.timedelta(seconds=skew_seconds)
            if token.not_before - skew > now:
                raise TokenError("the token is not yet valid")
            if token.not_on_or_after + skew <= now:
                raise TokenError("the token has expired")
        return token

    def _read_content(self, assertion):
        subject = child(assertion, SAML_NS, "Subject")
        confirmation = child(subject, SAML_NS, "SubjectConfirmation")
        conditions = child(assertion, SAML_NS, "Conditions")
        statement = child(assertion, SAML_NS, "AuthnStatement")
        token = TokenContent(
            subject=text_of(child(subject, SAML_NS, "NameID")),
            not_before=parse_time(conditions.get("NotBefore")),
            not_on_or_after=parse_time(conditions.get("NotOnOrAfter")),
            authn_context=text_of(statement.find(".//" + q(SAML_NS, "AuthnContextClassRef"))),
            authn_instant=parse_time(statement.get("AuthnInstant")),
            assertion_id=assertion.get("ID"),
            issuer=text_of(child(assertion, SAML_NS, "Issuer")))
        if confirmation.get("Method") == HOK_METHOD:
            certificate = confirmation.find(".//" + q(DS_NS, "X509Certificate"))
            token.certificate = base64.b64decode(text_of(certificate))
        for condition in element_children(conditions):
            self._read_condition(token, condition)
        advice = child(assertion, SAML_NS, "Advice")
        for rsa_advice in children(advice, self.names.saml_extension_ns, "RSAAdvice"):
            token.advice.append(Advice(rsa_advice.get("AdviceSource"),
                                       _read_attributes(rsa_advice)))
        for name, values in _read_attributes(child(assertion, SAML_NS, "AttributeStatement")):
            if name == GIVEN_NAME:
                token.given_name = values[0] if values else None
            elif name == SURNAME:
                token.surname = values[0] if values else None
            elif name == self.names.group_identity:
                token.groups.extend(values)
            elif name == self.names.is_solution:
                token.is_solution = bool(values) and values[0].lower() == "true"
        return token

    def _read_condition(self, token, condition):
        if condition.tag == q(SAML_NS, "AudienceRestriction"):
            token.audience = [text_of(a) for a in children(condition, SAML_NS, "Audience")]
        elif condition.tag == q(SAML_NS, "ProxyRestriction"):
            token.delegable = int(condition.get("Count", "0")) > 0
        elif condition.tag == q(SAML_NS, "Condition"):
            kind = condition.get(q(XSI_NS, "type"), "")
            if kind.endswith(":DelegationRestrictionType"):
                token.delegates = [
                    (text_of(child(d, SAML_NS, "NameID")), parse_time(d.get("DelegationInstant")))
                    for d in children(condition, DELEGATION_NS, "Delegate")]
            elif kind.endswith(":RenewRestrictionType"):
                token.renew_count = int(condition.get("Count", "0"))


def _read_attributes(parent):
    return [(a.get("Name"), [text_of(v) for v in children(a, SAML_NS, "AttributeValue")])
            for a in children(parent, SAML_NS, "Attribute")]


def certificate_der(pem_or_der):
    if pem_or_der.lstrip().startswith(b"-----"):
        return x509.load_pem_x509_certificate(pem_or_der).public_bytes(serialization.Encoding.DER)
    return pem_or_der


def clone(element):
    return copy.deepcopy(element)
