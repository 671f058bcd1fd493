"""Local attackers against the daemon: sockets handed on to programs
without the entitlement, and a flood of unentitled clients of two accounts
while an entitled client works. Nothing an unentitled client asks for may
happen, and nothing may reach it or disturb the entitled client."""
import json
import os
import plistlib
import shutil
import subprocess
import sys
import time

from harness import (DAEMON, SOCKET, case, ctl, expect, expect_equal, expect_pass,
                     prepare_work_container, remove)

GRANTS = "/etc/ovix/entitlements.d"
ENTITLEMENT = "com.velmor.private.quillex.quillexd"
NOT_ENTITLED = "The client does not have proper entitlement"
PYTHON = os.path.realpath(sys.executable)
GRANTED_PYTHON = "/usr/local/bin/python3-granted"
NVRAM = "/sys/firmware/efi/efivars"

# The wire format, for the clients below, which run as programs of their own.
WIRE = r'''
import json, os, socket, struct, sys, time
def value(v):
    if isinstance(v, bool): return b"\x01" + bytes([v])
    if isinstance(v, int): return b"\x02" + struct.pack("<q", v)
    if isinstance(v, str):
        r = v.encode(); return b"\x05" + struct.pack("<I", len(r)) + r
    if isinstance(v, dict): return b"\x0a" + body(v)
def body(d):
    out = struct.pack("<I", len(d))
    for k, v in d.items():
        r = k.encode(); out += struct.pack("<I", len(r)) + r + value(v)
    return out
def frame(d):
    b = body(d); return b"OVXF" + struct.pack("<HHI", 1, 0, len(b)) + b
def replies(s, quiet):
    """Raw reply bytes until the service is quiet for that long."""
    s.settimeout(quiet); got = b""
    try:
        while True:
            c = s.recv(65536)
            if not c: break
            got += c
    except socket.timeout:
        pass
    return got
'''

# Every request key, each with a parameter naming "intruder", so that a served
# one shows as an "Entering" line with that word, or as a file or variable;
# the removals aim at things made beforehand ("attack-keep"), which must stay.
ATTACKS = {
    "migratePreferencesFile:": "/etc/intruder-prefs",
    "prepareLogContainer:": "/etc/intruder-log",
    "prepareWorkContainer:": "/etc/intruder-work",
    "removeWorkContainer:": "/private/var/attack-keep",
    "createDeviceManifest:": {"Path": "/etc/intruder", "Inclusive": True},
    "createHardLink:": {"FilePath": "/etc/passwd", "StagingPath": "/private/var/intruder-link"},
    "moveStagingToFinal:": "/private/var/intruder-staging",
    "restoreAttributes:": {"StagingRootPath": "/private/var/intruder-staging",
                           "ManifestPath": "/private/var/intruder.plist",
                           "ContentType": "intruder", "Identifier": "intruder"},
    "deleteNvram:": "attack-keep",
    "writeNvram:": {"Name": "intruder-var", "Value": "intruder"},
    "shrinkDataPartition:": {"intruder": 1},
    "expandDataPartition:": {"intruder": 1},
    "quitHelper:": "intruder",
    "reboot:": "intruder",
    "sendPassResponse": "intruder",
    "sendProgress:": 7,
    "setConnection:": "intruder",
    "connection": "intruder",
    "hasEntitlementQuillexd": "intruder",
}

# Connects again and again for a while: whole requests, one key at a time,
# half a frame, or nothing; some connections stay open. Prints how many
# reply bytes ever arrived (there must be none).
FLOOD = WIRE + r'''
attacks = json.loads(sys.argv[1]); end = time.monotonic() + float(sys.argv[2])
received = sent = 0; held = []
every = frame(attacks)
while time.monotonic() < end:
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        s.connect(SERVICE_SOCKET)
        mode = sent % 4
        if mode == 0: s.sendall(every)
        elif mode == 1:
            for k, v in attacks.items(): s.sendall(frame({k: v}))
        elif mode == 2: s.sendall(every[:len(every) // 2])
        s.setblocking(False)
        try:
            received += len(s.recv(65536))
        except BlockingIOError:
            pass
    except OSError:
        pass
    sent += 1
    held.append(s)
    if len(held) > 6:
        old = held.pop(0)
        old.setblocking(True)
        received += len(replies(old, 0.01))
        old.close()
for s in held:
    received += len(replies(s, 0.2))
print(json.dumps({"received": received, "connections": sent}))
'''.replace("SERVICE_SOCKET", repr(SOCKET))


def granted_python():
    """A copy of this interpreter at its own path, granted for root only: an
    entitled program that can hand its socket on."""
    shutil.copy(PYTHON, GRANTED_PYTHON)
    os.chmod(GRANTED_PYTHON, 0o755)
    path = f"{GRANTS}/python3-granted.plist"
    with open(path, "wb") as f:
        plistlib.dump({"Program": GRANTED_PYTHON, "Entitlements": {ENTITLEMENT: True},
                       "Users": ["root"]}, f)
    os.chmod(path, 0o644)


# The entitled parent: served, then its socket goes to a plain python3 by
# fork and exec, then by SCM_RIGHTS; its own requests before and after.
HANDED_ON = WIRE + r'''
plain = sys.argv[1]
child_code = WIRE_SRC + """
s = socket.socket(fileno=int(sys.argv[1]))
s.sendall(frame({"prepareWorkContainer:": sys.argv[2]}))
print(len(replies(s, 1.5)))
"""
receiver_code = WIRE_SRC + """
import array
pair = socket.socket(fileno=int(sys.argv[1]))
msg, fds, _, _ = socket.recv_fds(pair, 1, 1)
s = socket.socket(fileno=fds[0])
s.sendall(frame({"prepareWorkContainer:": sys.argv[2]}))
print(len(replies(s, 1.5)))
"""
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM); s.connect(SERVICE_SOCKET)
out = {}
s.sendall(frame({"prepareWorkContainer:": "/private/var/handed-parent-1"}))
out["before"] = len(replies(s, 1.0))
os.set_inheritable(s.fileno(), True)
child = subprocess.run([plain, "-c", child_code, str(s.fileno()), "/private/var/handed-exec"],
                       capture_output=True, text=True, close_fds=False)
out["exec"] = child.stdout.strip() or child.stderr.strip()
a, b = socket.socketpair()
os.set_inheritable(b.fileno(), True)
receiver = subprocess.Popen([plain, "-c", receiver_code, str(b.fileno()), "/private/var/handed-rights"],
                            stdout=subprocess.PIPE, text=True, pass_fds=[b.fileno()])
socket.send_fds(a, [b"x"], [s.fileno()])
out["rights"] = receiver.communicate()[0].strip()
s.sendall(frame({"prepareWorkContainer:": "/private/var/handed-parent-2"}))
out["after"] = len(replies(s, 1.0))
print(json.dumps(out))
'''.replace("SERVICE_SOCKET", repr(SOCKET))
HANDED_ON = "import subprocess\n" + HANDED_ON.replace("WIRE_SRC", repr(WIRE))


def as_user(user, args):
    import pwd
    entry = pwd.getpwnam(user)
    return ["setpriv", f"--reuid={entry.pw_uid}", f"--regid={entry.pw_gid}", "--init-groups",
            *args]


@case("attack")
def handed_on_sockets_serve_only_their_entitled_writer(log):
    granted_python()
    targets = ["/private/var/handed-parent-1", "/private/var/handed-parent-2",
               "/private/var/handed-exec", "/private/var/handed-rights"]
    for t in targets:
        remove(t)
    refusals = log.messages().count(NOT_ENTITLED)
    run = subprocess.run([GRANTED_PYTHON, "-c", HANDED_ON, PYTHON], capture_output=True,
                         text=True, timeout=30)
    expect(run.returncode == 0, f"the entitled client failed: {run.stderr.strip()}")
    out = json.loads(run.stdout)
    expect(out["before"] > 0 and out["after"] > 0,
           f"the entitled parent was not served on its own socket: {out}")
    expect_equal(out["exec"], "0", "reply bytes to the exec'd program")
    expect_equal(out["rights"], "0", "reply bytes to the program given the socket")
    for t in targets[:2]:
        expect(os.path.isdir(t), f"{t} was not made for the entitled parent")
    for t in targets[2:]:
        expect(not os.path.exists(t), f"{t} was made for a program without the entitlement")
    log.wait_for(lambda m: log.messages().count(NOT_ENTITLED) >= refusals + 2, 5,
                 "a refusal for each handed-on socket")
    for t in targets:
        remove(t)


def attack_evidence(log):
    """Anything an unentitled request could have left behind."""
    found = [m.replace("\n", " ") for m in log.messages()
             if m.startswith("Entering ") and "intruder" in m]
    found += [f"/etc/{n}" for n in os.listdir("/etc") if n.startswith("intruder")]
    found += [f"/private/var/{n}" for n in os.listdir("/private/var") if n.startswith("intruder")]
    found += [f"{NVRAM}/{n}" for n in os.listdir(NVRAM) if n.startswith("intruder")]
    if not os.path.isdir("/private/var/attack-keep"):
        found.append("/private/var/attack-keep was removed")
    if not any(n.startswith("attack-keep-") for n in os.listdir(NVRAM)):
        found.append("the variable attack-keep was deleted")
    return found


@case("attack")
def unentitled_flood_changes_nothing_for_an_entitled_client(log):
    os.makedirs("/private/var/attack-keep", exist_ok=True)
    expect_pass(ctl("writeNvram:", {"Name": "attack-keep", "Value": "kept"}))
    prepare_work_container()
    seconds = 8
    flooders = [subprocess.Popen(as_user(user, [PYTHON, "-c", FLOOD, json.dumps(ATTACKS),
                                               str(seconds)]),
                                 stdout=subprocess.PIPE, text=True)
                for user in ("mobile", "mobile", "nobody", "nobody")]
    try:
        time.sleep(0.5)
        manifest = subprocess.Popen(
            [sys.executable, "-c",
             "import harness, json; r = harness.ctl('createDeviceManifest:', "
             "{'Path': '/private/var/', 'Inclusive': True}, timeout=60); "
             "print(json.dumps([r.code, r.responses, r.progress]))"],
            stdout=subprocess.PIPE, text=True, cwd=os.path.dirname(__file__))
        stream = 0
        while manifest.poll() is None or stream < 10:
            target = f"/private/var/entitled-{stream}"
            reply = ctl("prepareWorkContainer:", target, timeout=30)
            expect_equal(reply.responses, ["pass"], f"reply to entitled request {stream}")
            expect(os.path.isdir(target), f"{target} was not made")
            remove(target)
            stream += 1
        code, responses, progress = json.loads(manifest.communicate(timeout=60)[0])
        expect_equal((code, responses), (0, ["pass"]), "the whole-area manifest's reply")
        expect(progress and progress == sorted(set(progress)) and progress[-1] >= 100,
               f"the manifest's progress was disturbed: {progress}")
    finally:
        results = [json.loads(f.communicate(timeout=seconds + 30)[0]) for f in flooders]
    expect(all(r["received"] == 0 for r in results), f"unentitled clients received: {results}")
    expect(sum(r["connections"] for r in results) > 100, f"the flood was too thin: {results}")
    expect(DAEMON.running(), "the daemon stopped during the flood")
    expect_equal(attack_evidence(log), [], "effects of unentitled requests")
    remove("/private/var/attack-keep")
    expect_pass(ctl("deleteNvram:", "attack-keep"))
