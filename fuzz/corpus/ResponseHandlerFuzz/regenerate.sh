#!/bin/sh
# Regenerates the seeds: STS replies, each behind the byte that picks the operation ("0" Issue,
# "1" Renew, "2" Validate, "3" SPNego leg); "reject-*" are replies the handler must refuse.
set -e
cd "$(dirname "$0")"
assertion=$(sed 1d ../SamlTokenFuzz/bearer.xml)
envelope() {
    printf '%s<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" xmlns:wst="http://docs.oasis-open.org/ws-sx/ws-trust/200512" xmlns:wsse="http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd"><soapenv:Body>%s</soapenv:Body></soapenv:Envelope>' "$1" "$2" > "$3"
}
rstr() { printf '<wst:RequestSecurityTokenResponse%s>%s</wst:RequestSecurityTokenResponse>' "$1" "$2"; }
collection() { printf '<wst:RequestSecurityTokenResponseCollection>%s</wst:RequestSecurityTokenResponseCollection>' "$1"; }
token="<wst:RequestedSecurityToken>$assertion</wst:RequestedSecurityToken>"
type='<wst:TokenType>urn:oasis:names:tc:SAML:2.0:assertion</wst:TokenType>'
status() { printf '<wst:Status><wst:Code>%s</wst:Code></wst:Status>' "$1"; }
fault() { printf '<soapenv:Fault><faultcode>%s</faultcode><faultstring>%s</faultstring></soapenv:Fault>' "$1" "$2"; }

envelope 0 "$(collection "$(rstr '' "$token")")" issue.xml
envelope 1 "$(rstr '' "$token")" renew.xml
envelope 2 "$(rstr '' "$(status http://docs.oasis-open.org/ws-sx/ws-trust/200512/status/valid)")" validate.xml
envelope 3 "$(collection "$(rstr ' Context="ctx-1"' '<wst:BinaryExchange>oYGJMIGGoAMKAQGhCwYJKoZIgvcSAQICooFxBG9gbQ==</wst:BinaryExchange>')")" spnego-leg.xml
envelope 3 "$(collection "$(rstr ' Context="ctx-1"' "$type$token")")" spnego-final.xml
envelope 0 "$(rstr '' "$token")" reject-issue-without-collection.xml
envelope 2 "$(rstr '' "$(status ' http://docs.oasis-open.org/ws-sx/ws-trust/200512/status/valid')")" reject-validate-padded-code.xml
envelope 3 "$(collection "$(rstr '' "<wst:TokenType>urn:other</wst:TokenType>$token")")" reject-spnego-token-type.xml
envelope 1 "$(fault wst:FailedAuthentication 'Password of the user logging on is expired.')" reject-password-expired.xml
envelope 3 "$(fault soapenv:Server 'Internal error')" reject-server-fault.xml
envelope 0 "$(collection "$(rstr '' '<wst:RequestedSecurityToken><saml2:Assertion xmlns:saml2="urn:oasis:names:tc:SAML:2.0:assertion" xmlns:xs="relative"/></wst:RequestedSecurityToken>')")" reject-issue-relative-namespace.xml
