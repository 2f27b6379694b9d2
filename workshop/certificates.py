"""The workshop's certificates: an authority, the access point's and the box's certificate.

Everyone who needs them gets them from one folder, and who comes first has them made.
"""

import contextlib
import os
import pathlib
import subprocess
import tempfile

DIRECTORY = pathlib.Path("/tmp/workshop-certificates")


def make(directory):
    def openssl(*arguments):
        done = subprocess.run(("openssl",) + arguments, cwd=directory, capture_output=True, text=True,
                              timeout=30)
        if done.returncode != 0:
            raise OSError(f"openssl {arguments[0]}: {done.stderr}")

    key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")
    openssl("req", "-x509", *key, "-days", "3650", "-subj", "/CN=Workshop CA", "-keyout", "ca.key",
            "-out", "ca.pem")
    for serial, name, subject in (("2", "client", "host"), ("3", "server", "access point")):
        openssl("req", *key, "-subj", f"/CN={subject}", "-keyout", f"{name}.key", "-out", f"{name}.csr")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                "-days", "1825", "-set_serial", serial, "-out", f"{name}.pem")


def get(directory=DIRECTORY):
    """The folder with ca.pem, client.pem, client.key, server.pem and server.key."""
    if not directory.exists():
        draft = tempfile.mkdtemp(prefix=f".{directory.name}-", dir=directory.parent)
        make(draft)
        with contextlib.suppress(OSError):  # somebody else was faster
            os.rename(draft, directory)
    if directory.stat().st_uid != os.getuid():
        raise OSError(f"{directory} belongs to somebody else")
    return directory
