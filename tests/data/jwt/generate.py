#!/usr/bin/python3
# Regenerates the JWT test tokens in this folder (and any key that is missing: delete a key's .key
# and .pub for a new one; the fuzz target under fuzz/ embeds rsa.pub, ec256.pub and ed25519.pub).
# Tokens are signed by two independent producers, PyJWT and jwcrypto (Debian: python3-jwt,
# python3-jwcrypto), once per algorithm, with fixed times: issued 2023-11-14T22:13:20Z, expiring
# 2038-01-13T12:53:20Z (inside the 32-bit range).
# Run with Debian's interpreter: /usr/bin/python3 tests/data/jwt/generate.py
import datetime
import os

import jwt as pyjwt
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, ed448, ed25519, rsa
from cryptography.x509.oid import NameOID
from jwcrypto import jwk
from jwcrypto.common import base64url_decode, base64url_encode
from jwcrypto import jwt as jwcjwt

HERE = os.path.dirname(os.path.abspath(__file__))
CLAIMS = {
    "iss": "https://sts.example.test",
    "sub": "alice@example.test",
    "aud": ["https://api.example.test", "urn:example:reports"],
    "jti": "jwt-0001",
    "iat": 1700000000,
    "exp": 2147000000,
    "groups": ["Users@example.test", "Readers@example.test"],
    "preferred_username": "Alice Liddell",
}


def write(name, data):
    with open(os.path.join(HERE, name), "wb") as out:
        out.write(data)


def load_or_make_key(name, make):
    """The key in name.key, made (with name.pub) when absent: delete them for new keys."""
    path = os.path.join(HERE, name + ".key")
    if os.path.exists(path):
        with open(path, "rb") as pem_file:
            return serialization.load_pem_private_key(pem_file.read(), None)
    key = make()
    write(name + ".key", pem(key))
    write(name + ".pub", key.public_key().public_bytes(
        serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo))
    return key


def save_certificate(name, key):
    subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "Test JWT Signing")])
    now = datetime.datetime(2023, 1, 1)
    certificate = (x509.CertificateBuilder().subject_name(subject).issuer_name(subject)
                   .public_key(key.public_key()).serial_number(4242)
                   .not_valid_before(now).not_valid_after(now + datetime.timedelta(days=36500))
                   .sign(key, hashes.SHA256()))
    write(name + ".pem", certificate.public_bytes(serialization.Encoding.PEM))


def pem(key):
    return key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                             serialization.NoEncryption())


def main():
    keys = {
        "rsa": load_or_make_key("rsa", lambda: rsa.generate_private_key(65537, 2048)),
        "other-rsa": load_or_make_key("other-rsa", lambda: rsa.generate_private_key(65537, 2048)),
        "ec256": load_or_make_key("ec256", lambda: ec.generate_private_key(ec.SECP256R1())),
        "ec384": load_or_make_key("ec384", lambda: ec.generate_private_key(ec.SECP384R1())),
        "ec521": load_or_make_key("ec521", lambda: ec.generate_private_key(ec.SECP521R1())),
        "ed25519": load_or_make_key("ed25519", ed25519.Ed25519PrivateKey.generate),
        "ed448": load_or_make_key("ed448", ed448.Ed448PrivateKey.generate),
    }
    save_certificate("rsa", keys["rsa"])
    signers = [(alg, "rsa") for alg in ("RS256", "RS384", "RS512", "PS256", "PS384", "PS512")]
    signers += [("ES256", "ec256"), ("ES384", "ec384"), ("ES512", "ec521"), ("EdDSA", "ed25519")]
    tokens = {}
    for alg, key in signers:
        tokens[f"{alg}-pyjwt"] = pyjwt.encode(CLAIMS, pem(keys[key]), algorithm=alg)
        token = jwcjwt.JWT(header={"alg": alg, "typ": "JWT"}, claims=CLAIMS)
        token.make_signed_token(jwk.JWK.from_pem(pem(keys[key])))
        tokens[f"{alg}-jwcrypto"] = token.serialize()
    # Right family, wrong curve: must not verify even with the signer's own public key.
    tokens["ES256-on-P384"] = pyjwt.encode(CLAIMS, pem(keys["ec384"]), algorithm="ES256")
    tokens["EdDSA-on-Ed448"] = pyjwt.encode(CLAIMS, pem(keys["ed448"]), algorithm="EdDSA")
    # HMAC keyed with the bytes of a trusted public key: the classic algorithm confusion.
    token = jwcjwt.JWT(header={"alg": "HS256"}, claims=CLAIMS)
    with open(os.path.join(HERE, "rsa.pub"), "rb") as public_pem:
        token.make_signed_token(jwk.JWK(kty="oct", k=base64url_encode(public_pem.read())))
    tokens["HS256-keyed-with-rsa.pub"] = token.serialize()
    # r and s each given one leading zero byte: the same numbers, but not the curve's size.
    header, payload, signature = tokens["ES256-pyjwt"].split(".")
    raw = base64url_decode(signature)
    padded = base64url_encode(b"\0" + raw[:32] + b"\0" + raw[32:])
    tokens["ES256-padded-r-and-s"] = f"{header}.{payload}.{padded}"
    write("tokens.txt", "".join(f"{name} {token}\n" for name, token in tokens.items()).encode())


if __name__ == "__main__":
    main()
