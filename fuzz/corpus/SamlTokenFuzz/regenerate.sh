#!/bin/sh
# Regenerates the seed assertions (bearer with delegation, restrictions, advice and attributes;
# holder-of-key), signed with the test STS key by the xmlsec1 tool; valid 2020 to 2120.
set -e
cd "$(dirname "$0")"
certs=../../../tests/data/certs
ext=http://sso.example.com
sig='<ds:Signature xmlns:ds="http://www.w3.org/2000/09/xmldsig#"><ds:SignedInfo><ds:CanonicalizationMethod Algorithm="http://www.w3.org/2001/10/xml-exc-c14n#"/><ds:SignatureMethod Algorithm="http://www.w3.org/2001/04/xmldsig-more#rsa-sha256"/><ds:Reference URI="#_seed"><ds:Transforms><ds:Transform Algorithm="http://www.w3.org/2000/09/xmldsig#enveloped-signature"/><ds:Transform Algorithm="http://www.w3.org/2001/10/xml-exc-c14n#"/></ds:Transforms><ds:DigestMethod Algorithm="http://www.w3.org/2001/04/xmlenc#sha256"/><ds:DigestValue/></ds:Reference></ds:SignedInfo><ds:SignatureValue/><ds:KeyInfo><ds:X509Data><ds:X509Certificate/></ds:X509Data></ds:KeyInfo></ds:Signature>'
head='<saml2:Assertion xmlns:saml2="urn:oasis:names:tc:SAML:2.0:assertion" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xmlns:xs="http://www.w3.org/2001/XMLSchema" ID="_seed" IssueInstant="2020-01-01T00:00:00Z" Version="2.0"><saml2:Issuer>https://sts.example.test/sts</saml2:Issuer>'
upn='Format="http://schemas.xmlsoap.org/claims/UPN"'
tail='<saml2:AuthnStatement AuthnInstant="2020-01-01T00:00:00Z"><saml2:AuthnContext><saml2:AuthnContextClassRef>urn:oasis:names:tc:SAML:2.0:ac:classes:PasswordProtectedTransport</saml2:AuthnContextClassRef></saml2:AuthnContext></saml2:AuthnStatement>'
conditions='<saml2:Conditions NotBefore="2020-01-01T00:00:00Z" NotOnOrAfter="2120-01-01T00:00:00Z">'
cert=$(openssl x509 -in $certs/user-ec.pem -outform DER | base64 -w0)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cat > "$tmp/bearer.xml" <<XML
$head$sig<saml2:Subject><saml2:NameID $upn>alice@example.test</saml2:NameID><saml2:SubjectConfirmation Method="urn:oasis:names:tc:SAML:2.0:cm:bearer"><saml2:NameID $upn>bob@example.test</saml2:NameID><saml2:SubjectConfirmationData NotOnOrAfter="2120-01-01T00:00:00Z"/></saml2:SubjectConfirmation></saml2:Subject>$conditions<saml2:Condition xmlns:del="urn:oasis:names:tc:SAML:2.0:conditions:delegation" xsi:type="del:DelegationRestrictionType"><del:Delegate DelegationInstant="2020-01-01T00:00:00Z"><saml2:NameID $upn>bob@example.test</saml2:NameID></del:Delegate></saml2:Condition><saml2:Condition xmlns:rsa="$ext/names/2009/12/std-ext/SAML2.0" xsi:type="rsa:RenewRestrictionType" Count="2"/><saml2:ProxyRestriction Count="1"/><saml2:AudienceRestriction><saml2:Audience>urn:a</saml2:Audience></saml2:AudienceRestriction></saml2:Conditions><saml2:Advice><rsa:RSAAdvice xmlns:rsa="$ext/names/2009/12/std-ext/SAML2.0" AdviceSource="urn:src"><saml2:Attribute Name="n"><saml2:AttributeValue>v</saml2:AttributeValue></saml2:Attribute></rsa:RSAAdvice></saml2:Advice>$tail<saml2:AttributeStatement><saml2:Attribute Name="$ext/schemas/attr-names/2009/01/GroupIdentity"><saml2:AttributeValue xsi:type="xs:string">example.test\\Users</saml2:AttributeValue></saml2:Attribute><saml2:Attribute Name="$ext/schemas/attr-names/2011/07/isSolution"><saml2:AttributeValue>true</saml2:AttributeValue></saml2:Attribute></saml2:AttributeStatement></saml2:Assertion>
XML
cat > "$tmp/hok.xml" <<XML
$head$sig<saml2:Subject><saml2:NameID $upn>alice@example.test</saml2:NameID><saml2:SubjectConfirmation Method="urn:oasis:names:tc:SAML:2.0:cm:holder-of-key"><saml2:SubjectConfirmationData xsi:type="saml2:KeyInfoConfirmationDataType"><ds:KeyInfo xmlns:ds="http://www.w3.org/2000/09/xmldsig#"><ds:X509Data><ds:X509Certificate>$cert</ds:X509Certificate></ds:X509Data></ds:KeyInfo></saml2:SubjectConfirmationData></saml2:SubjectConfirmation></saml2:Subject>$conditions</saml2:Conditions>$tail</saml2:Assertion>
XML
for name in bearer hok; do
    xmlsec1 --sign --privkey-pem $certs/sts-rsa.key,$certs/sts-rsa.pem \
        --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion \
        --output "$name.xml" "$tmp/$name.xml"
done
