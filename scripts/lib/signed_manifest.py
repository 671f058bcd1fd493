#!/usr/bin/env python3
"""Signed demo-content manifests made with the openssl command and the
standard library only, for the device sandbox: the demo uses it where
build/bin/qlx-sign-manifest is not built, and the system tests use it as a
signer independent of the code under test.

    signed_manifest.py [--key KEY.pem --chain CHAIN.pem | --payload-only]
                       --root DIR [--owner NAME] [--mode OCTAL] [--xattr NAME=VALUE] -o OUT

builds a payload whose "Backup" list records every object under DIR with the
given owner, group, mode and extended attributes, and signs it (or, with
--payload-only, writes the payload for another signer).
"""
import argparse
import datetime
import hashlib
import os
import plistlib
import re
import stat
import subprocess
import sys
import tempfile

PEM_BLOCK = re.compile(rb"-----BEGIN CERTIFICATE-----.+?-----END CERTIFICATE-----\s*", re.S)


def certificates_der(chain_pem_path):
    """The DER form of each certificate of a PEM file, in file order (leaf first)."""
    with open(chain_pem_path, "rb") as f:
        blocks = PEM_BLOCK.findall(f.read())
    if not blocks:
        raise ValueError(f"no certificate in {chain_pem_path}")
    return [subprocess.run(["openssl", "x509", "-outform", "DER"], input=b, check=True,
                           capture_output=True).stdout for b in blocks]


def sign_bytes(data, key_path):
    """RSA PKCS#1 v1.5 over the SHA-1 DigestInfo of data."""
    with tempfile.NamedTemporaryFile() as f:
        f.write(data)
        f.flush()
        return subprocess.run(["openssl", "dgst", "-sha1", "-sign", key_path, f.name],
                              check=True, capture_output=True).stdout


def envelope(payload_bytes, key_path, chain_pem_path, version=2):
    """The outer property list around already serialised payload bytes."""
    return plistlib.dumps({
        "Version": version,
        "Certificate": certificates_der(chain_pem_path),
        "Payload": payload_bytes,
        "Signature": sign_bytes(payload_bytes, key_path),
    }, fmt=plistlib.FMT_BINARY)


def payload(backup, app_data=None, group_data=None, extension_data=None, version=3,
            info=None):
    body = {
        "Version": version,
        "Info": info or {"Name": "Sandbox demo content"},
        "Backup": backup,
        "App": {},
        "AppData": app_data or {},
    }
    if group_data is not None:
        body["GroupData"] = group_data
    if extension_data is not None:
        body["ExtensionData"] = extension_data
    return plistlib.dumps(body, fmt=plistlib.FMT_BINARY)


def record(file_type, owner=None, group=None, mode=None, mtime=None, xattrs=None,
           content_hash=b"", link_target=""):
    """One file's metadata record as the service stores it in manifests."""
    attributes = {"FileType": file_type}
    if owner is not None:
        attributes["FileOwnerAccountName"] = owner
    if group is not None:
        attributes["FileGroupOwnerAccountName"] = group
    if mode is not None:
        attributes["FilePosixPermissions"] = mode
    if mtime is not None:
        attributes["FileModificationDate"] = mtime
    return {
        "QLXManifestFileAttributes": attributes,
        "QLXManifestFileExtendedAttributes": dict(xattrs or {}),
        "QLXManifestFileHash": content_hash,
        "QLXManifestSymbolicLinkTargetFile": link_target,
    }


def records_for_tree(root, owner, mode, xattrs):
    """A "Backup" list for every object under root, keyed "/relative/path"."""
    backup = {}
    for folder, dirs, files in os.walk(root):
        for name in sorted(dirs) + sorted(files):
            path = os.path.join(folder, name)
            info = os.lstat(path)
            key = "/" + os.path.relpath(path, root)
            if stat.S_ISDIR(info.st_mode):
                backup[key] = record("Directory", owner, owner, 0o755)
            elif stat.S_ISREG(info.st_mode):
                with open(path, "rb") as f:
                    digest = hashlib.sha1(f.read()).digest()
                backup[key] = record("Regular", owner, owner, mode, None, xattrs, digest)
    return backup


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--key")
    parser.add_argument("--chain", help="PEM file, signer first")
    parser.add_argument("--payload-only", action="store_true")
    parser.add_argument("--root", required=True)
    parser.add_argument("--owner", default="mobile")
    parser.add_argument("--mode", default="0644")
    parser.add_argument("--xattr", action="append", default=[], metavar="NAME=VALUE")
    parser.add_argument("-o", "--output", required=True)
    args = parser.parse_args()
    if not args.payload_only and not (args.key and args.chain):
        parser.error("--key and --chain are needed unless --payload-only is given")
    xattrs = {}
    for item in args.xattr:
        name, _, value = item.partition("=")
        xattrs[name] = value.encode()
    backup = records_for_tree(args.root, args.owner, int(args.mode, 8), xattrs)
    body = payload(backup, info={"Name": "Sandbox demo content",
                                 "Created": datetime.datetime.now(datetime.timezone.utc)
                                 .replace(tzinfo=None, microsecond=0)})
    with open(args.output, "wb") as f:
        f.write(body if args.payload_only else envelope(body, args.key, args.chain))
    print(f"{'wrote' if args.payload_only else 'signed'} {len(backup)} records into {args.output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
