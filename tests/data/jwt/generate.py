#!/usr/bin/python3
# Regenerates the JWT test keys and tokens in this folder. Tokens are signed by two independent
# producers, PyJWT and jwcrypto (Debian: python3-jwt, python3-jwcrypto), once per algorithm, with
# fixed times: issued 2023-11-14T22:13:20Z, expiring 2038-01-14 (inside the 32-bit range).
# Run with Debian's interpreter: /usr/bin/python3 tests/data/jwt/generate.py
import datetime
import os

import jwt as pyjwt
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, ed448, ed25519, rsa
from cryptography.x509.oid import NameOID
from jwcrypto import jwk
from jwcrypto.common import base64url_encode
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


def save_key(name, key):
    write(name + ".key", key.private_bytes(serialization.Encoding.PEM,
                                           serialization.PrivateFormat.PKCS8,
                                           serialization.NoEncryption()))
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
        "rsa": save_key("rsa", rsa.generate_private_key(65537, 2048)),
        "other-rsa": save_key("other-rsa", rsa.generate_private_key(65537, 2048)),
        "ec256": save_key("ec256", ec.generate_private_key(ec.SECP256R1())),
        "ec384": save_key("ec384", ec.generate_private_key(ec.SECP384R1())),
        "ec521": save_key("ec521", ec.generate_private_key(ec.SECP521R1())),
        "ed25519": save_key("ed25519", ed25519.Ed25519PrivateKey.generate()),
        "ed448": save_key("ed448", ed448.Ed448PrivateKey.generate()),
    }
    save_certificate("rsa", keys["rsa"])
    signers = [(alg, "rsa") for alg in ("RS256", "RS384", "RS512", "PS256", "PS384", "PS512")]
    signers += [("ES256", "ec256"), ("ES384", "ec384"), ("ES512", "ec521"), ("EdDSA", "ed25519")]
    lines = []
    for alg, key in signers:
        lines.append(f"{alg}-pyjwt {pyjwt.encode(CLAIMS, pem(keys[key]), algorithm=alg)}")
        token = jwcjwt.JWT(header={"alg": alg, "typ": "JWT"}, claims=CLAIMS)
        token.make_signed_token(jwk.JWK.from_pem(pem(keys[key])))
        lines.append(f"{alg}-jwcrypto {token.serialize()}")
    # Right family, wrong curve: must not verify even with the signer's own public key.
    lines.append(f"ES256-on-P384 {pyjwt.encode(CLAIMS, pem(keys['ec384']), algorithm='ES256')}")
    lines.append(f"EdDSA-on-Ed448 {pyjwt.encode(CLAIMS, pem(keys['ed448']), algorithm='EdDSA')}")
    # HMAC keyed with the bytes of a trusted public key: the classic algorithm confusion.
    token = jwcjwt.JWT(header={"alg": "HS256"}, claims=CLAIMS)
    with open(os.path.join(HERE, "rsa.pub"), "rb") as public_pem:
        token.make_signed_token(jwk.JWK(kty="oct", k=base64url_encode(public_pem.read())))
    lines.append(f"HS256-keyed-with-rsa.pub {token.serialize()}")
    write("tokens.txt", ("\n".join(lines) + "\n").encode())


if __name__ == "__main__":
    main()
