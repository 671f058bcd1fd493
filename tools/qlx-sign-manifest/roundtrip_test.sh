#!/usr/bin/env bash
# qlx-sign-manifest against independent tools: Python's plistlib reads the
# envelope it writes, openssl verifies its signature over the exact payload
# bytes, and a manifest assembled by plistlib and "openssl dgst -sign"
# passes its own verify command.
set -euo pipefail
tool=$(realpath "${1:?usage: roundtrip_test.sh path/to/qlx-sign-manifest}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -days 30 \
  -subj /CN=test-root -addext basicConstraints=critical,CA:TRUE \
  -addext keyUsage=critical,keyCertSign 2>/dev/null
openssl req -newkey rsa:2048 -nodes -keyout leaf.key -out leaf.csr -subj /CN=test-signer 2>/dev/null
openssl x509 -req -in leaf.csr -CA root.pem -CAkey root.key -days 10 -set_serial 7 \
  -out leaf.pem 2>/dev/null
mkdir production development
cp root.pem production/

python3 - <<'PY'
import plistlib
payload = {"Version": 4, "Info": {"Name": "Window display"},
           "Backup": {"/": {"QLXManifestFileHash": b""}}, "App": [], "AppData": {}}
open("payload.plist", "wb").write(plistlib.dumps(payload, fmt=plistlib.FMT_XML))
PY

# Ours, checked by others.
"$tool" sign --key leaf.key --chain leaf.pem -o signed.plist payload.plist
python3 - <<'PY'
import plistlib
outer = plistlib.load(open("signed.plist", "rb"))
assert outer["Version"] == 2, outer["Version"]
assert isinstance(outer["Certificate"], list) and len(outer["Certificate"]) == 1
assert outer["Payload"] == open("payload.plist", "rb").read(), "payload bytes changed"
open("payload.bin", "wb").write(outer["Payload"])
open("signature.bin", "wb").write(outer["Signature"])
open("leaf.der", "wb").write(outer["Certificate"][0])
PY
openssl x509 -inform DER -in leaf.der -noout -pubkey > leaf.pub
openssl dgst -sha1 -verify leaf.pub -signature signature.bin payload.bin >/dev/null
"$tool" verify --production production --development development signed.plist >/dev/null 2>&1

# Others', checked by ours.
openssl dgst -sha1 -sign leaf.key -out other.sig payload.plist
openssl x509 -in leaf.pem -outform DER -out leaf2.der
python3 - <<'PY'
import plistlib
outer = {"Version": 2, "Certificate": [open("leaf2.der", "rb").read()],
         "Payload": open("payload.plist", "rb").read(), "Signature": open("other.sig", "rb").read()}
open("other.plist", "wb").write(plistlib.dumps(outer, fmt=plistlib.FMT_XML))
PY
"$tool" verify --production production --development development other.plist >/dev/null 2>&1

# A payload the device would refuse is not signed unless asked.
python3 -c 'import plistlib; open("bad.plist","wb").write(plistlib.dumps({"Version": 5}))'
if "$tool" sign --key leaf.key --chain leaf.pem -o bad-signed.plist bad.plist 2>/dev/null; then
  echo "signed a payload of version 5" >&2; exit 1
fi
"$tool" sign --key leaf.key --chain leaf.pem --unchecked -o bad-signed.plist bad.plist
if "$tool" verify --production production bad-signed.plist >/dev/null 2>&1; then
  echo "verified a payload of version 5" >&2; exit 1
fi
# A payload recorded from folders.
mkdir -p content/Data app/Library group
echo info >content/Info.plist
echo level >content/Data/level.dat
echo prefs >app/Library/demo.plist
echo shared >group/shared.db
chmod 0640 content/Info.plist
setfattr -n user.velmor.origin -v store content/Info.plist
"$tool" sign --key leaf.key --chain leaf.pem -o folder.plist --folder content \
  --app-data com.example.app=app --group-data group.com.example=group 2>/dev/null
python3 - <<'PY'
import hashlib, plistlib
outer = plistlib.load(open("folder.plist", "rb"))
payload = plistlib.loads(outer["Payload"])
assert payload["Version"] == 4
assert sorted(payload["Backup"]) == ["/Data", "/Data/level.dat", "/Info.plist"], sorted(payload["Backup"])
info = payload["Backup"]["/Info.plist"]
assert sorted(info) == ["QLXManifestFileAttributes", "QLXManifestFileExtendedAttributes",
                        "QLXManifestFileHash", "QLXManifestSymbolicLinkTargetFile"], sorted(info)
assert info["QLXManifestFileHash"] == hashlib.sha1(b"info\n").digest()
assert info["QLXManifestFileAttributes"]["FilePosixPermissions"] == 0o640
assert info["QLXManifestFileExtendedAttributes"]["user.velmor.origin"] == b"store"
assert payload["App"] == ["com.example.app"]
assert sorted(payload["AppData"]["com.example.app"]["Manifest"]) == ["/", "/Library", "/Library/demo.plist"]
assert sorted(payload["GroupData"]["group.com.example"]) == ["/", "/shared.db"]
assert "ExtensionData" not in payload
PY
"$tool" verify --production production folder.plist >/dev/null 2>&1

echo "qlx-sign-manifest round trip: ok"
