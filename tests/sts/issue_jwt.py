#!/usr/bin/python3
# Prints a JWT bearer token for a user, as the test STS's issuer would sign it (RS256 with
# tests/data/sts/signing.key), valid for ten minutes for the audience "urn:sso-demo".
# usage: issue_jwt.py UPN "FULL NAME" GROUP@DOMAIN...

import os
import sys
import time
import uuid

import jwt

KEY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "sts", "signing.key")

upn, name, groups = sys.argv[1], sys.argv[2], sys.argv[3:]
now = int(time.time())
claims = {"jti": str(uuid.uuid4()), "iss": "https://localhost/sts", "aud": "urn:sso-demo",
          "sub": upn, "groups": groups, "preferred_username": name, "iat": now, "exp": now + 600}
with open(KEY) as key:
    print(jwt.encode(claims, key.read(), algorithm="RS256"))
