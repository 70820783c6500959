"""Certificates of a test's own, made with the openssl command line."""
import pathlib
import ssl
import subprocess
import tempfile


class Authority:
    """An authority and what it has issued, in a folder that goes with it."""

    def __init__(self, name="ca"):
        self._folder = tempfile.TemporaryDirectory(prefix="qn-tls-")
        self.folder = pathlib.Path(self._folder.name)
        self.certificate = self._make(name, "-addext", "basicConstraints=critical,CA:TRUE")[0]
        self.key = self.certificate.with_suffix(".key")

    def close(self):
        self._folder.cleanup()

    def issue(self, name, names="IP:127.0.0.1,DNS:localhost"):
        """The files of a certificate and its key."""
        return self._make(name, "-CA", self.certificate, "-CAkey", self.key, "-addext",
                          f"subjectAltName={names}", "-addext",
                          "basicConstraints=critical,CA:FALSE")

    def expired(self, name):
        """The files of one that ended yesterday."""
        certificate, key = self.issue(name)
        request = certificate.with_suffix(".csr")
        for command in (("req", "-new", "-key", key, "-subj", f"/CN={name}", "-addext",
                         "subjectAltName=IP:127.0.0.1,DNS:localhost", "-out", request),
                        ("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey",
                         self.key, "-copy_extensions", "copyall", "-days", "-1", "-out", certificate)):
            subprocess.run(["openssl", *command], check=True, capture_output=True)
        return certificate, key

    def client(self, identity=None, version=None):
        """An SSLContext that trusts this authority alone, for the server's name 127.0.0.1."""
        context = ssl.create_default_context(cafile=str(self.certificate))
        if identity:
            context.load_cert_chain(*identity)
        if version:
            context.minimum_version = context.maximum_version = version
        return context

    def _make(self, name, *options):
        files = self.folder / f"{name}.pem", self.folder / f"{name}.key"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-subj", f"/CN={name}",
                        "-days", "30", "-keyout", files[1], "-out", files[0], *options],
                       check=True, capture_output=True)
        return files
