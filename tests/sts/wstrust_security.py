"""Checks the WS-Security header of a request: timestamp window, user name token and the
holder-of-key signature over the SOAP Body and the Timestamp (made with the certificate carried in
the header, or with the key of a holder-of-key SAML token presented in the header)."""

import base64
import binascii
import dataclasses
import datetime
from typing import Optional

import xmlsec
from cryptography import x509

from wstrust_saml import Signer, TokenContent, TokenError
from wstrust_xml import (BASE64_ENCODING, DS_NS, EXC_C14N, PASSWORD_TEXT, SAML_NS,
                         SAMLID_VALUE_TYPE, SOAP_NS, WSSE_NS, WSU_NS, X509_TOKEN_TYPE,
                         SignatureFormError, check_signed_info, child, children, parse_time, q,
                         text_of)


class SecurityError(Exception):
    """The request's security header is missing, malformed, stale or its signature is wrong.
    `token_problem` marks failures of a presented token rather than of the signature."""

    def __init__(self, message, token_problem=False):
        super().__init__(message)
        self.token_problem = token_problem


@dataclasses.dataclass
class SecurityHeader:
    username: Optional[str] = None
    password: Optional[str] = None
    signature_id: Optional[str] = None
    certificate: Optional[bytes] = None  # DER of the key that signed the request
    presented_token: Optional[TokenContent] = None  # set when a SAML token signed the request

    @property
    def signed(self):
        return self.certificate is not None


def _wsu_id(element):
    return element.get(q(WSU_NS, "Id"))


def _check_timestamp(timestamp, now, skew):
    created = text_of(child(timestamp, WSU_NS, "Created"))
    expires = text_of(child(timestamp, WSU_NS, "Expires"))
    try:
        created_at = parse_time(created)
        expires_at = parse_time(expires) if expires is not None else None
    except ValueError as error:
        raise SecurityError("malformed Timestamp: %s" % error) from None
    if created_at - skew > now:
        raise SecurityError("the request's Timestamp lies in the future")
    if expires_at is not None and (expires_at <= created_at or expires_at + skew <= now):
        raise SecurityError("the request's Timestamp has expired")


def _certificate_from_binary_token(security, uri):
    if not uri or not uri.startswith("#"):
        raise SecurityError("the signature's token reference is not a same-document reference")
    tokens = [t for t in children(security, WSSE_NS, "BinarySecurityToken")
              if _wsu_id(t) == uri[1:]]
    if len(tokens) != 1:
        raise SecurityError("the signature's BinarySecurityToken is missing or ambiguous")
    token = tokens[0]
    if token.get("ValueType") != X509_TOKEN_TYPE or token.get("EncodingType") != BASE64_ENCODING:
        raise SecurityError("unsupported BinarySecurityToken type")
    try:
        der = base64.b64decode(text_of(token), validate=False)
        x509.load_der_x509_certificate(der)
    except (ValueError, binascii.Error):
        raise SecurityError("the BinarySecurityToken holds no X.509 certificate") from None
    return der


def _presented_token(security, signer, assertion_id, now, skew_seconds):
    assertions = [a for a in children(security, SAML_NS, "Assertion")
                  if a.get("ID") == assertion_id]
    if len(assertions) != 1:
        raise SecurityError("the signature names a SAML token that is not in the header")
    try:
        token = signer.read(assertions[0], now=now, skew_seconds=skew_seconds)
    except TokenError as error:
        raise SecurityError("presented token rejected: %s" % error, token_problem=True) from None
    if not token.holder_of_key:
        raise SecurityError("the presented token is not a holder-of-key token", token_problem=True)
    return token


def read_security_header(envelope, signer: Signer, now: datetime.datetime, skew_seconds: int):
    """Reads and checks the header; raises SecurityError. An unsigned request is accepted here
    (the operation decides whether it needs a signature)."""
    result = SecurityHeader()
    header = child(envelope, SOAP_NS, "Header")
    securities = children(header, WSSE_NS, "Security")
    if len(securities) > 1:
        raise SecurityError("more than one wsse:Security header")
    security = securities[0] if securities else None
    skew = datetime.timedelta(seconds=skew_seconds)
    timestamps = children(security, WSU_NS, "Timestamp")
    if len(timestamps) > 1:
        raise SecurityError("more than one Timestamp")
    timestamp = timestamps[0] if timestamps else None
    if timestamp is not None:
        _check_timestamp(timestamp, now, skew)
    username_token = child(security, WSSE_NS, "UsernameToken")
    if username_token is not None:
        result.username = text_of(child(username_token, WSSE_NS, "Username"))
        password = child(username_token, WSSE_NS, "Password")
        if password is not None:
            if password.get("Type", PASSWORD_TEXT) != PASSWORD_TEXT:
                raise SecurityError("only clear-text passwords are supported")
            result.password = text_of(password)
    signatures = children(security, DS_NS, "Signature")
    if not signatures:
        return result
    if len(signatures) > 1:
        raise SecurityError("more than one signature in the security header")
    if timestamp is None:
        raise SecurityError("a signed request must carry a Timestamp")
    _verify_signature(envelope, security, timestamp, signatures[0], signer, now, skew_seconds,
                      result)
    return result


def _verify_signature(envelope, security, timestamp, signature, signer, now, skew_seconds, result):
    body = child(envelope, SOAP_NS, "Body")
    try:
        targets = check_signed_info(signature, [[EXC_C14N]])
    except SignatureFormError as error:
        raise SecurityError(str(error)) from None
    body_id, timestamp_id = _wsu_id(body), _wsu_id(timestamp)
    if not body_id or not timestamp_id or sorted(targets) != sorted([body_id, timestamp_id]):
        raise SecurityError("the signature must cover exactly the SOAP Body and the Timestamp")
    for target in (body_id, timestamp_id):
        holders = envelope.xpath("//*[@wsu:Id=$id]", namespaces={"wsu": WSU_NS}, id=target)
        if len(holders) != 1:
            raise SecurityError("the id %r is not unique in the request" % target)
    reference = child(child(child(signature, DS_NS, "KeyInfo"), WSSE_NS, "SecurityTokenReference"),
                      WSSE_NS, "Reference")
    key_identifier = child(child(child(signature, DS_NS, "KeyInfo"), WSSE_NS,
                                 "SecurityTokenReference"), WSSE_NS, "KeyIdentifier")
    if reference is not None:
        if reference.get("ValueType") not in (None, X509_TOKEN_TYPE):
            raise SecurityError("unsupported token reference type")
        result.certificate = _certificate_from_binary_token(security, reference.get("URI"))
    elif key_identifier is not None and key_identifier.get("ValueType") == SAMLID_VALUE_TYPE:
        token = _presented_token(security, signer, (text_of(key_identifier) or "").strip(), now,
                                 skew_seconds)
        result.presented_token = token
        result.certificate = token.certificate
    else:
        raise SecurityError("the signature's KeyInfo names no usable key")
    context = xmlsec.SignatureContext()
    context.register_id(body, "Id", WSU_NS)
    context.register_id(timestamp, "Id", WSU_NS)
    try:
        context.key = xmlsec.Key.from_memory(result.certificate, xmlsec.KeyFormat.CERT_DER)
        context.verify(signature)
    except xmlsec.Error as error:
        raise SecurityError("the request's signature does not verify: %s" % error) from None
    result.signature_id = signature.get("Id")
