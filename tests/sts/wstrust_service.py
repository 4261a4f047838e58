"""The WS-Trust operations of the loopback test STS: Issue (password, certificate, presented token,
GSS legs), Renew and Validate, with the SOAP faults the client understands."""

import base64
import binascii
import dataclasses
import datetime
import hashlib
import json
import os
import secrets
import threading
import uuid
from typing import Dict, List, Optional

from cryptography import x509
from cryptography.x509.oid import NameOID
from lxml import etree

from wstrust_saml import (AUTHN_CERTIFICATE, AUTHN_GSS, AUTHN_PASSWORD, AUTHN_TOKEN, Advice,
                          Signer, TokenContent, TokenError, certificate_der)
from wstrust_security import SecurityError, read_security_header
from wstrust_xml import (ACTION_CONTINUE, ACTION_ISSUE, ACTION_RENEW, ACTION_VALIDATE,
                         BASE64_ENCODING, KEY_TYPE_BEARER, KEY_TYPE_PUBLIC_KEY, REQUEST_ISSUE,
                         REQUEST_RENEW, REQUEST_VALIDATE, SAML_NS, SAML_TOKEN_TYPE, SOAP_NS,
                         SPNEGO_VALUE_TYPE, STATUS_INVALID, STATUS_TOKEN_TYPE, STATUS_VALID, WSA_NS,
                         WSSE_NS, WSU_NS, WST14_NS, WST_NS, XmlInputError, child, children,
                         parse, parse_time, q, text_of, utc_now)

PASSWORD_EXPIRED_TEXT = "Password of the user logging on is expired"
RENEW_COUNT = 10
MAX_GSS_CONTEXTS = 1000
GSS_CONTEXT_SECONDS = 300
GSS_COOKIE = "STSGSSSESSION"


class SoapFault(Exception):
    """A SOAP 1.1 fault reply; `code` is (namespace, prefix, local name)."""

    def __init__(self, code, faultstring):
        super().__init__(faultstring)
        self.code = code
        self.faultstring = faultstring


FAILED_AUTHENTICATION = (WST_NS, "wst", "FailedAuthentication")
WST_INVALID_TOKEN = (WST_NS, "wst", "InvalidSecurityToken")
WSSE_INVALID_TOKEN = (WSSE_NS, "wsse", "InvalidSecurityToken")
INVALID_REQUEST = (WST_NS, "wst", "InvalidRequest")
SOAP_CLIENT = (SOAP_NS, "soapenv", "Client")
SOAP_SERVER = (SOAP_NS, "soapenv", "Server")


def fault_envelope(code, faultstring):
    namespace, prefix, local = code
    envelope = etree.Element(q(SOAP_NS, "Envelope"), nsmap={"soapenv": SOAP_NS})
    fault = etree.SubElement(etree.SubElement(envelope, q(SOAP_NS, "Body")), q(SOAP_NS, "Fault"))
    faultcode = etree.SubElement(fault, "faultcode", nsmap={prefix: namespace})
    faultcode.text = "%s:%s" % (prefix, local)
    etree.SubElement(fault, "faultstring").text = faultstring
    return envelope


@dataclasses.dataclass
class Reply:
    status: int
    envelope: etree._Element
    operation: str
    headers: Dict[str, str] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class Account:
    user: str
    domain: str
    password: str
    password_expired: bool = False
    given_name: Optional[str] = None
    surname: Optional[str] = None
    groups: List[str] = dataclasses.field(default_factory=list)
    is_solution: bool = False
    certificate: Optional[bytes] = None  # DER; maps certificate logins to this account

    @property
    def upn(self):
        return "%s@%s" % (self.user, self.domain)


def load_accounts(path, default_domain):
    """Reads the JSON account file; certificate paths are relative to the file."""
    with open(path, encoding="utf-8") as handle:
        data = json.load(handle)
    domain = data.get("domain", default_domain)
    accounts = []
    for entry in data["accounts"]:
        certificate = None
        if entry.get("certificate"):
            with open(os.path.join(os.path.dirname(path), entry["certificate"]), "rb") as handle:
                certificate = certificate_der(handle.read())
        accounts.append(Account(user=entry["user"], domain=entry.get("domain", domain),
                                password=entry.get("password", ""),
                                password_expired=entry.get("passwordExpired", False),
                                given_name=entry.get("givenName"), surname=entry.get("surname"),
                                groups=list(entry.get("groups", [])),
                                is_solution=entry.get("isSolution", False),
                                certificate=certificate))
    return domain, accounts


def parse_account_option(text, default_domain):
    """user[@domain]:password[:expired], the form of --account."""
    user, _, rest = text.partition(":")
    password, _, flag = rest.partition(":")
    name, _, domain = user.partition("@")
    if not name or flag not in ("", "expired"):
        raise ValueError("--account expects user[@domain]:password[:expired], got %r" % text)
    return Account(user=name, domain=domain or default_domain, password=password,
                   password_expired=flag == "expired")


@dataclasses.dataclass
class IssueSpec:
    """What an Issue request asks for."""
    key_type: str
    lifetime: Optional[datetime.timedelta]
    renewable: bool
    delegable: bool
    delegate_to: Optional[str]
    act_as: Optional[etree._Element]
    audience: List[str]
    advice: List[Advice]
    use_key_sig: Optional[str]


@dataclasses.dataclass
class GssContext:
    account: Account
    spec: IssueSpec
    certificate: Optional[bytes]
    cookie: str
    rounds: int
    send_final_leg: bool
    round: int = 1
    nonce: str = ""
    created: datetime.datetime = dataclasses.field(default_factory=utc_now)


def _lifetime(element):
    if element is None:
        return None
    try:
        created = parse_time(text_of(child(element, WSU_NS, "Created")))
        expires = parse_time(text_of(child(element, WSU_NS, "Expires")))
    except ValueError as error:
        raise SoapFault(INVALID_REQUEST, "malformed Lifetime: %s" % error) from None
    if expires <= created:
        raise SoapFault(INVALID_REQUEST, "the requested Lifetime is empty")
    return expires - created


class Sts:
    """The token service proper; thread-safe (the HTTPS layer calls it from many threads)."""

    def __init__(self, signer: Signer, accounts: List[Account], default_domain: str,
                 clock_skew_seconds=300, max_lifetime_seconds=30 * 24 * 3600):
        self.signer = signer
        self.names = signer.names
        self.accounts = {account.upn.lower(): account for account in accounts}
        self.default_domain = default_domain
        self.skew_seconds = clock_skew_seconds
        self.max_lifetime = datetime.timedelta(seconds=max_lifetime_seconds)
        self.lock = threading.Lock()
        self.gss_contexts: Dict[str, GssContext] = {}
        self.revoked = set()

    # ---- entry point -------------------------------------------------------------------------

    def handle(self, soap_action, body_bytes, cookies):
        """Handles one POSTed SOAP request; always returns a Reply (faults included)."""
        operation = "unknown"
        try:
            envelope = parse(body_bytes)
            operation, method = self._dispatch(soap_action, envelope)
            return method(envelope, cookies)
        except XmlInputError as error:
            return self._fault(operation, SOAP_CLIENT, str(error))
        except SoapFault as fault:
            return self._fault(operation, fault.code, fault.faultstring)
        except SecurityError as error:
            code = WST_INVALID_TOKEN if error.token_problem else WSSE_INVALID_TOKEN
            return self._fault(operation, code, str(error))
        except Exception as error:  # the generic server fault; the server keeps running
            return self._fault(operation, SOAP_SERVER, "internal error: %s" % error)

    def _fault(self, operation, code, faultstring):
        return Reply(500, fault_envelope(code, faultstring), operation)

    def _dispatch(self, soap_action, envelope):
        if envelope.tag != q(SOAP_NS, "Envelope"):
            raise SoapFault(SOAP_CLIENT, "not a SOAP 1.1 envelope")
        body = child(envelope, SOAP_NS, "Body")
        request = body[0] if body is not None and len(body) else None
        if request is None or not isinstance(request.tag, str):
            raise SoapFault(SOAP_CLIENT, "the SOAP Body holds no request")
        action = (soap_action or "").strip('"')
        if request.tag == q(WST_NS, "RequestSecurityTokenResponse") and action == ACTION_CONTINUE:
            return "gss-continue", self._gss_continue
        if request.tag != q(WST_NS, "RequestSecurityToken"):
            raise SoapFault(SOAP_CLIENT, "unexpected request element %s" % request.tag)
        request_type = text_of(child(request, WST_NS, "RequestType"))
        table = {(ACTION_ISSUE, REQUEST_ISSUE): ("issue", self._issue),
                 (ACTION_RENEW, REQUEST_RENEW): ("renew", self._renew),
                 (ACTION_VALIDATE, REQUEST_VALIDATE): ("validate", self._validate)}
        if (action, request_type) not in table:
            raise SoapFault(SOAP_CLIENT, "SOAPAction %r does not fit RequestType %r"
                            % (action, request_type))
        operation, method = table[(action, request_type)]
        if operation == "issue":
            operation = self._issue_kind(envelope, request)
        return operation, method

    def _issue_kind(self, envelope, request):
        if child(request, WST_NS, "BinaryExchange") is not None:
            return "gss-initial"
        security = child(child(envelope, SOAP_NS, "Header"), WSSE_NS, "Security")
        if child(security, WSSE_NS, "UsernameToken") is not None:
            return "issue-password"
        if child(security, SAML_NS, "Assertion") is not None:
            return "issue-token"
        return "issue-certificate"

    # ---- request reading ---------------------------------------------------------------------

    def _security(self, envelope):
        return read_security_header(envelope, self.signer, utc_now(), self.skew_seconds)

    def _read_issue_spec(self, request):
        token_type = text_of(child(request, WST_NS, "TokenType"))
        if token_type not in (None, SAML_TOKEN_TYPE):
            raise SoapFault(INVALID_REQUEST, "unsupported TokenType %r" % token_type)
        key_type = text_of(child(request, WST_NS, "KeyType")) or KEY_TYPE_BEARER
        if key_type not in (KEY_TYPE_BEARER, KEY_TYPE_PUBLIC_KEY):
            raise SoapFault(INVALID_REQUEST, "unsupported KeyType %r" % key_type)
        renewing = child(request, WST_NS, "Renewing")
        delegate_token = child(child(request, WST_NS, "DelegateTo"), WSSE_NS, "UsernameToken")
        participants = child(request, WST_NS, "Participants")
        addresses = [text_of(child(child(p, WSA_NS, "EndpointReference"), WSA_NS, "Address"))
                     for p in children(participants, WST_NS, "Participant")]
        use_key = child(request, WST_NS, "UseKey")
        return IssueSpec(
            key_type=key_type, lifetime=_lifetime(child(request, WST_NS, "Lifetime")),
            renewable=renewing is not None and renewing.get("Allow", "true") == "true",
            delegable=text_of(child(request, WST_NS, "Delegatable")) == "true",
            delegate_to=text_of(child(delegate_token, WSSE_NS, "Username")),
            act_as=child(child(request, WST14_NS, "ActAs"), SAML_NS, "Assertion"),
            audience=[a for a in addresses if a], advice=self._read_advice(request),
            use_key_sig=None if use_key is None else use_key.get("Sig"))

    def _read_advice(self, request):
        ns = self.names.request_advice_ns
        result = []
        for advice in children(child(request, ns, "AdviceSet"), ns, "Advice"):
            attributes = [(a.get("Name"), [text_of(v) for v in children(a, ns, "AttributeValue")])
                          for a in children(advice, ns, "Attribute")]
            result.append(Advice(advice.get("AdviceSource"), attributes))
        return result

    def _upn(self, name):
        return name if "@" in name else "%s@%s" % (name, self.default_domain)

    def _account(self, name):
        return self.accounts.get(self._upn(name or "").lower())

    def _authenticate_password(self, username, password):
        account = self._account(username)
        # Accounts without a password (certificate-only solutions) never log on by password.
        if account is None or not account.password or not secrets.compare_digest(
                account.password.encode(), (password or "").encode()):
            raise SoapFault(FAILED_AUTHENTICATION, "Invalid user name or password")
        if account.password_expired:
            raise SoapFault(FAILED_AUTHENTICATION, "%s: %s" % (PASSWORD_EXPIRED_TEXT, account.upn))
        return account

    def _account_for_certificate(self, der):
        for account in self.accounts.values():
            if account.certificate == der:
                return account
        names = x509.load_der_x509_certificate(der).subject.get_attributes_for_oid(
            NameOID.COMMON_NAME)
        account = self._account(names[0].value) if names else None
        if account is None:
            raise SoapFault(FAILED_AUTHENTICATION, "The certificate is not mapped to an account")
        return account

    # ---- token making ------------------------------------------------------------------------

    def _holder_key(self, spec, security):
        """The certificate the issued token binds to, or None for a bearer token."""
        if spec.use_key_sig is not None and (not security.signed
                                             or spec.use_key_sig != security.signature_id):
            raise SoapFault(INVALID_REQUEST, "UseKey names no signature of this request")
        if spec.key_type == KEY_TYPE_BEARER:
            return None
        if security.signed:
            return security.certificate
        if spec.delegate_to:
            # The delegate holds the key: take the certificate registered for it.
            delegate = self._account(spec.delegate_to)
            if delegate is not None and delegate.certificate is not None:
                return delegate.certificate
            raise SoapFault(INVALID_REQUEST, "No certificate is known for delegate %s"
                            % spec.delegate_to)
        raise SoapFault(INVALID_REQUEST, "A holder-of-key token needs a signed request")

    def _make_token(self, identity: TokenContent, spec: IssueSpec, certificate, requester_upn):
        now = _now_to_the_millisecond()
        lifetime = min(spec.lifetime or datetime.timedelta(hours=1), self.max_lifetime)
        token = dataclasses.replace(identity, not_before=now, not_on_or_after=now + lifetime,
                                    certificate=certificate, delegates=list(identity.delegates),
                                    audience=sorted(set(spec.audience)), delegable=spec.delegable,
                                    renew_count=RENEW_COUNT if spec.renewable else None,
                                    advice=list(spec.advice))
        if spec.act_as is not None:
            acting = self._read_token(spec.act_as, "ActAs token")
            if not acting.delegable:
                raise SoapFault(INVALID_REQUEST, "The ActAs token is not delegable")
            token = dataclasses.replace(token, subject=acting.subject,
                                        given_name=acting.given_name, surname=acting.surname,
                                        groups=list(acting.groups), is_solution=acting.is_solution,
                                        delegates=acting.delegates + [(requester_upn, now)])
        if spec.delegate_to:
            token.delegates.append((self._upn(spec.delegate_to), now))
        return self.signer.build(token)

    def _identity(self, account, authn_context):
        now = utc_now()
        return TokenContent(subject=account.upn, not_before=now, not_on_or_after=now,
                            authn_context=authn_context, authn_instant=now,
                            given_name=account.given_name, surname=account.surname,
                            groups=list(account.groups), is_solution=account.is_solution)

    def _read_token(self, assertion, what):
        try:
            token = self.signer.read(assertion, now=utc_now(), skew_seconds=self.skew_seconds)
        except TokenError as error:
            raise SoapFault(WST_INVALID_TOKEN, "%s rejected: %s" % (what, error)) from None
        if token.assertion_id in self.revoked:
            raise SoapFault(WST_INVALID_TOKEN, "%s has been revoked" % what)
        return token

    def _issue_reply(self, operation, assertion, spec, collection=True, context=None,
                     server_leg=None):
        envelope, body = _envelope()
        parent = body
        if collection:
            parent = etree.SubElement(body, q(WST_NS, "RequestSecurityTokenResponseCollection"),
                                      nsmap={"wst": WST_NS})
        response = etree.SubElement(parent, q(WST_NS, "RequestSecurityTokenResponse"),
                                    nsmap={"wst": WST_NS})
        if context is not None:
            response.set("Context", context)
        if assertion is not None:
            etree.SubElement(response, q(WST_NS, "TokenType")).text = SAML_TOKEN_TYPE
            etree.SubElement(response, q(WST_NS, "RequestedSecurityToken")).append(assertion)
            conditions = child(assertion, SAML_NS, "Conditions")
            lifetime = etree.SubElement(response, q(WST_NS, "Lifetime"), nsmap={"wsu": WSU_NS})
            etree.SubElement(lifetime, q(WSU_NS, "Created")).text = conditions.get("NotBefore")
            etree.SubElement(lifetime, q(WSU_NS, "Expires")).text = conditions.get("NotOnOrAfter")
            if spec is not None:
                renewing = etree.SubElement(response, q(WST_NS, "Renewing"))
                renewing.set("Allow", "true" if spec.renewable else "false")
                renewing.set("OK", "false")
                etree.SubElement(response, q(WST_NS, "Delegatable")).text = (
                    "true" if spec.delegable else "false")
                etree.SubElement(response, q(WST_NS, "KeyType")).text = spec.key_type
        if server_leg:
            exchange = etree.SubElement(response, q(WST_NS, "BinaryExchange"),
                                        EncodingType=BASE64_ENCODING, ValueType=SPNEGO_VALUE_TYPE)
            exchange.text = base64.b64encode(server_leg).decode("ascii")
        return Reply(200, envelope, operation)

    # ---- operations --------------------------------------------------------------------------

    def _issue(self, envelope, _cookies):
        request = child(child(envelope, SOAP_NS, "Body"), WST_NS, "RequestSecurityToken")
        kind = self._issue_kind(envelope, request)
        if kind == "gss-initial":
            return self._gss_initial(envelope, request)
        security = self._security(envelope)
        spec = self._read_issue_spec(request)
        if kind == "issue-password":
            account = self._authenticate_password(security.username, security.password)
            identity, requester = self._identity(account, AUTHN_PASSWORD), account.upn
        elif kind == "issue-token":
            if security.presented_token is None:
                raise SecurityError("a presented token must sign the request")
            presented = security.presented_token
            if presented.assertion_id in self.revoked:
                raise SoapFault(WST_INVALID_TOKEN, "The presented token has been revoked")
            identity = dataclasses.replace(presented, authn_context=AUTHN_TOKEN)
            requester = presented.subject
        else:
            if not security.signed or security.presented_token is not None:
                raise SecurityError("Issue without credentials: the request must be signed "
                                    "with a certificate")
            account = self._account_for_certificate(security.certificate)
            identity, requester = self._identity(account, AUTHN_CERTIFICATE), account.upn
        assertion = self._make_token(identity, spec, self._holder_key(spec, security), requester)
        return self._issue_reply(kind, assertion, spec)

    def _renew(self, envelope, _cookies):
        security = self._security(envelope)
        if not security.signed or security.presented_token is not None:
            raise SecurityError("Renew must be signed with the token's certificate")
        request = child(child(envelope, SOAP_NS, "Body"), WST_NS, "RequestSecurityToken")
        target = child(child(request, WST_NS, "RenewTarget"), SAML_NS, "Assertion")
        if target is None:
            raise SoapFault(INVALID_REQUEST, "RenewTarget holds no SAML 2.0 assertion")
        token = self._read_token(target, "The renew target")
        if not token.holder_of_key:
            raise SoapFault(INVALID_REQUEST, "Only holder-of-key tokens can be renewed")
        if token.certificate != security.certificate:
            raise SoapFault(FAILED_AUTHENTICATION, "The request is not signed with the token's key")
        if not token.renew_count:
            raise SoapFault(INVALID_REQUEST, "The token is not renewable")
        lifetime = _lifetime(child(request, WST_NS, "Lifetime")) or (
            token.not_on_or_after - token.not_before)
        now = _now_to_the_millisecond()
        renewed = dataclasses.replace(token, not_before=now,
                                      not_on_or_after=now + min(lifetime, self.max_lifetime),
                                      renew_count=token.renew_count - 1)
        return self._issue_reply("renew", self.signer.build(renewed), None, collection=False)

    def _validate(self, envelope, _cookies):
        request = child(child(envelope, SOAP_NS, "Body"), WST_NS, "RequestSecurityToken")
        target = child(child(request, WST_NS, "ValidateTarget"), SAML_NS, "Assertion")
        if target is None:
            raise SoapFault(INVALID_REQUEST, "ValidateTarget holds no SAML 2.0 assertion")
        try:
            token = self.signer.read(target, now=utc_now(), skew_seconds=self.skew_seconds)
            reason = "revoked" if token.assertion_id in self.revoked else None
        except TokenError as error:
            reason = str(error)
        envelope_out, body = _envelope()
        response = etree.SubElement(body, q(WST_NS, "RequestSecurityTokenResponse"),
                                    nsmap={"wst": WST_NS})
        etree.SubElement(response, q(WST_NS, "TokenType")).text = STATUS_TOKEN_TYPE
        status = etree.SubElement(response, q(WST_NS, "Status"))
        code = STATUS_INVALID if reason else STATUS_VALID
        etree.SubElement(status, q(WST_NS, "Code")).text = code
        etree.SubElement(status, q(WST_NS, "Reason")).text = reason or "The token is valid"
        return Reply(200, envelope_out, "validate")

    # ---- GSS ---------------------------------------------------------------------------------
    # The test mechanism: the client's first leg is "HELLO <upn> [rounds] [nofinal]"; each
    # server leg is "CHALLENGE <round> <nonce>", answered by "RESPONSE <round> <hex sha256 of
    # nonce:password>". After the last round the token is issued together with the final server
    # leg "WELCOME <upn>" (omitted with "nofinal"). A cookie set on the first reply must come
    # back on every later leg.

    def _gss_initial(self, envelope, request):
        security = self._security(envelope)
        spec = self._read_issue_spec(request)
        words = _leg_words(child(request, WST_NS, "BinaryExchange"))
        if len(words) < 2 or words[0] != "HELLO" or len(words) > 4:
            raise SoapFault(INVALID_REQUEST, "GSS: the first leg must be HELLO <upn> [rounds]")
        rounds = int(words[2]) if len(words) > 2 and words[2].isdigit() else 1
        account = self._account(words[1])
        if account is None:
            raise SoapFault(FAILED_AUTHENTICATION, "GSS: unknown principal")
        if account.password_expired:
            raise SoapFault(FAILED_AUTHENTICATION, "%s: %s" % (PASSWORD_EXPIRED_TEXT, account.upn))
        context_id = request.get("Context") or "urn:uuid:%s" % uuid.uuid4()
        state = GssContext(account=account, spec=spec,
                           certificate=self._holder_key(spec, security),
                           cookie=secrets.token_hex(16), rounds=max(1, min(rounds, 10)),
                           send_final_leg="nofinal" not in words[2:])
        with self.lock:
            self._expire_gss_contexts()
            if context_id in self.gss_contexts or len(self.gss_contexts) >= MAX_GSS_CONTEXTS:
                raise SoapFault(INVALID_REQUEST, "GSS: context id in use or too many contexts")
            self.gss_contexts[context_id] = state
            leg = self._challenge(state)
        reply = self._issue_reply("gss-initial", None, None, context=context_id, server_leg=leg)
        reply.headers["Set-Cookie"] = "%s=%s; Path=/; Secure; HttpOnly" % (GSS_COOKIE, state.cookie)
        return reply

    def _gss_continue(self, envelope, cookies):
        request = child(child(envelope, SOAP_NS, "Body"), WST_NS, "RequestSecurityTokenResponse")
        context_id = request.get("Context") or ""
        words = _leg_words(child(request, WST_NS, "BinaryExchange"))
        with self.lock:
            self._expire_gss_contexts()
            state = self.gss_contexts.get(context_id)
            if state is None:
                raise SoapFault(INVALID_REQUEST, "GSS: unknown or expired context")
            if not secrets.compare_digest(cookies.get(GSS_COOKIE, ""), state.cookie):
                del self.gss_contexts[context_id]
                raise SoapFault(INVALID_REQUEST, "GSS: the session cookie does not match")
            expected = hashlib.sha256(("%s:%s" % (state.nonce, state.account.password))
                                      .encode()).hexdigest()
            if words != ["RESPONSE", str(state.round), expected]:
                del self.gss_contexts[context_id]
                raise SoapFault(FAILED_AUTHENTICATION, "GSS: wrong response")
            if state.round < state.rounds:
                state.round += 1
                leg = self._challenge(state)
                return self._issue_reply("gss-continue", None, None, context=context_id,
                                         server_leg=leg)
            del self.gss_contexts[context_id]
        identity = self._identity(state.account, AUTHN_GSS)
        assertion = self._make_token(identity, state.spec, state.certificate, state.account.upn)
        final_leg = ("WELCOME %s" % state.account.upn).encode() if state.send_final_leg else None
        return self._issue_reply("gss-continue", assertion, state.spec, context=context_id,
                                 server_leg=final_leg)

    def _challenge(self, state):
        state.nonce = secrets.token_hex(8)
        return ("CHALLENGE %d %s" % (state.round, state.nonce)).encode()

    def _expire_gss_contexts(self):
        limit = utc_now() - datetime.timedelta(seconds=GSS_CONTEXT_SECONDS)
        for key in [k for k, v in self.gss_contexts.items() if v.created < limit]:
            del self.gss_contexts[key]


def _leg_words(exchange):
    if exchange is None:
        raise SoapFault(INVALID_REQUEST, "GSS: missing BinaryExchange")
    if exchange.get("ValueType") != SPNEGO_VALUE_TYPE:
        raise SoapFault(INVALID_REQUEST, "GSS: unsupported BinaryExchange ValueType")
    try:
        return base64.b64decode(text_of(exchange), validate=True).decode("utf-8").split()
    except (binascii.Error, UnicodeDecodeError):
        raise SoapFault(INVALID_REQUEST, "GSS: the leg is not Base64 of UTF-8 text") from None


def _now_to_the_millisecond():
    """Token times go on the wire in milliseconds; cutting here keeps lifetimes exact."""
    now = utc_now()
    return now.replace(microsecond=now.microsecond // 1000 * 1000)


def _envelope():
    envelope = etree.Element(q(SOAP_NS, "Envelope"), nsmap={"soapenv": SOAP_NS})
    return envelope, etree.SubElement(envelope, q(SOAP_NS, "Body"))


def gss_response(nonce, password, round_number):
    """The client side of the test mechanism, for tests and the demo."""
    digest = hashlib.sha256(("%s:%s" % (nonce, password)).encode()).hexdigest()
    return ("RESPONSE %d %s" % (round_number, digest)).encode()

