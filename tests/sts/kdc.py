#!/usr/bin/python3
# A throw-away MIT KDC on a loopback port for the Kerberos tests and the demo (see README.md,
# "Test KDC"). Files in <dir>: krb5.conf, <user>.keytab, http.keytab, alice.ccache (kinit with the
# password), expired.ccache (the same tickets, ended an hour ago).

import os
import secrets
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time

REALM = "SSOCLIENT.TEST"
USERS = ("alice", "bob")
SERVICE = "HTTP/localhost"

KRB5_CONF = """[libdefaults]
    default_realm = {realm}
    rdns = false
    dns_canonicalize_hostname = false
    udp_preference_limit = 1
[realms]
    {realm} = {{
        kdc = 127.0.0.1:{port}
    }}
[domain_realm]
    localhost = {realm}
"""

KDC_CONF = """[kdcdefaults]
    kdc_listen = 127.0.0.1:{port}
    kdc_tcp_listen = 127.0.0.1:{port}
[realms]
    {realm} = {{
        database_name = {dir}/principal
        key_stash_file = {dir}/stash
    }}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(*command, stdin=""):
    subprocess.run(command, input=stdin.encode(), check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.PIPE)


def create_realm(path):
    def admin(query):
        run("kadmin.local", "-r", REALM, "-q", query)
    run("kdb5_util", "create", "-s", "-r", REALM, "-P", secrets.token_hex(16))
    passwords = {user: secrets.token_hex(12) for user in USERS}
    for user, password in passwords.items():
        admin("addprinc -pw %s %s" % (password, user))
        admin("ktadd -norandkey -k %s/%s.keytab %s" % (path, user, user))
    admin("addprinc -randkey %s" % SERVICE)
    admin("ktadd -k %s/http.keytab %s" % (path, SERVICE))
    return passwords["alice"]


# Copies a FILE ccache (format 4) with every ticket made to end an hour ago: no KDC issues such a
# ticket, and no test waits for one to expire.
def expire(source, target):
    data, now = bytearray(open(source, "rb").read()), int(time.time())
    at = 4 + struct.unpack_from(">H", data, 2)[0]  # version, header

    def skip_principal(at):
        at += 4  # name type
        count = struct.unpack_from(">I", data, at)[0]
        at += 4
        for _ in range(count + 1):  # realm and components
            at += 4 + struct.unpack_from(">I", data, at)[0]
        return at

    def skip_counted(at, count_size, item_size):
        count = struct.unpack_from(">I" if count_size == 4 else ">H", data, at)[0]
        at += count_size
        for _ in range(count):
            at += item_size + 4 + struct.unpack_from(">I", data, at + item_size)[0]
        return at

    at = skip_principal(at)  # the default principal
    while at < len(data):
        at = skip_principal(skip_principal(at))  # client, server
        at += 2 + 4 + struct.unpack_from(">I", data, at + 2)[0]  # key block
        if struct.unpack_from(">4I", data, at)[2]:  # configuration entries carry no times
            struct.pack_into(">4I", data, at, now - 7200, now - 7200, now - 3600, 0)
        at += 16 + 1 + 4  # times, is-skey, flags
        at = skip_counted(skip_counted(at, 4, 2), 4, 2)  # addresses, authorization data
        for _ in range(2):  # ticket, second ticket
            at += 4 + struct.unpack_from(">I", data, at)[0]
    open(target, "wb").write(data)


def start_kdc(port):
    kdc = subprocess.Popen(["krb5kdc", "-n", "-r", REALM], stdin=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
    for _ in range(100):
        try:
            socket.create_connection(("127.0.0.1", port), 0.1).close()
            return kdc
        except OSError:
            time.sleep(0.05)
    kdc.kill()
    sys.exit("krb5kdc did not start")


def stop_kdc(kdc):
    if kdc:
        kdc.kill()
        kdc.wait()


def main():
    path, port = tempfile.mkdtemp(prefix="kdc-"), free_port()
    kdc = None
    try:
        for name, text in (("krb5.conf", KRB5_CONF), ("kdc.conf", KDC_CONF)):
            with open("%s/%s" % (path, name), "w") as conf:
                conf.write(text.format(realm=REALM, port=port, dir=path))
        os.environ.update(KRB5_CONFIG=path + "/krb5.conf", KRB5_KDC_PROFILE=path + "/kdc.conf",
                          KRB5CCNAME="FILE:%s/kdc.ccache" % path)
        password = create_realm(path)
        kdc = start_kdc(port)
        run("kinit", "-c", path + "/alice.ccache", "alice", stdin=password + "\n")
        expire(path + "/alice.ccache", path + "/expired.ccache")
        print("READY %d %s" % (port, path), flush=True)
        for line in sys.stdin:
            if line.strip() == "stop":
                kdc = stop_kdc(kdc)
            elif line.strip() == "start" and not kdc:
                kdc = start_kdc(port)
            print("OK", flush=True)
    except subprocess.CalledProcessError as error:
        print("%s failed: %s" % (error.cmd[0], error.stderr.decode().strip()), flush=True)
    finally:
        stop_kdc(kdc)
        shutil.rmtree(path, ignore_errors=True)


if __name__ == "__main__":
    main()
