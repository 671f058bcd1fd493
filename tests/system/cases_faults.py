"""Faults during a device-manifest walk of the whole data area: the client
dies, the daemon dies, the data partition is full. The previous manifest must
always stay whole and readable."""
import errno
import json
import os
import plistlib
import subprocess

from harness import (DAEMON, DEVICE_MANIFEST, VEXDCTL, Failure, case, ctl, expect,
                     expect_equal, expect_pass, prepare_work_container, remove, write)

BULK = "/private/var/mobile/Media/Bulk"
SMALL = "/private/var/mobile/Media/Small"
WHOLE = {"Path": "/private/var", "Inclusive": True}


def make_bulk():
    """Enough bytes to hash that a walk runs for seconds: sparse files cost
    the disk nothing and the hashing reads zeros."""
    os.makedirs(BULK, exist_ok=True)
    for i in range(16):
        with open(f"{BULK}/chunk{i:02}.bin", "wb") as f:
            f.truncate(256 << 20)


def make_small(tag):
    remove(SMALL)
    for i in range(12):
        write(f"{SMALL}/file{i:02}-{tag}.txt", f"{tag} {i}\n" * 40)


def previous_manifest(log):
    """A device manifest of the small tree, as a later failure must leave it."""
    prepare_work_container()
    make_small("before")
    expect_pass(ctl("createDeviceManifest:", {"Path": SMALL, "Inclusive": True}, log=log))
    with open(DEVICE_MANIFEST, "rb") as f:
        return f.read()


def expect_manifest_is(previous):
    with open(DEVICE_MANIFEST, "rb") as f:
        data = f.read()
    expect(data == previous, f"DeviceManifest.plist changed ({len(previous)} -> {len(data)} bytes)")
    plistlib.loads(data)


def start_whole_walk():
    return subprocess.Popen([VEXDCTL, "--timeout", "120", "createDeviceManifest:",
                             json.dumps(WHOLE)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def wait_until_walking(log, client):
    def walking(message):
        if message == "QLXHMessageResponder does not respond to createDeviceManifest:.":
            raise Failure("this daemon does not serve createDeviceManifest: yet")
        return message.startswith("Percentage increased to ")
    try:
        log.wait_for(walking, 60, "progress of the whole-area walk")
    except Failure:
        client.kill()
        client.communicate()
        raise


@case("faults")
def client_killed_mid_walk_leaves_daemon_serving(log):
    make_bulk()
    prepare_work_container()
    pid = DAEMON.proc.pid
    client = start_whole_walk()
    wait_until_walking(log, client)
    client.kill()
    client.communicate()
    log.wait_for(lambda m: m == "Device manifest created (for /private/var)", 120,
                 "the end of the walk")
    log.expect("Ovix disconnected by client")
    expect(DAEMON.running() and DAEMON.proc.pid == pid, "the daemon did not survive its client")
    expect_pass(ctl("prepareWorkContainer:", "/private/var/QLXWorkContainer", log=log))
    expect("/var/mobile/Media/Bulk/chunk00.bin" in plistlib.load(open(DEVICE_MANIFEST, "rb")),
           "the finished walk's manifest lacks the bulk files")


@case("faults")
def daemon_killed_mid_walk_leaves_previous_manifest(log):
    make_bulk()
    previous = previous_manifest(log)
    client = start_whole_walk()
    wait_until_walking(log, client)
    DAEMON.kill()
    out, _ = client.communicate(timeout=130)
    expect_equal(client.returncode, 2, "vexdctl's exit status when the daemon died")
    expect("Response" not in out, f"a reply arrived from a killed daemon: {out!r}")
    expect_manifest_is(previous)
    DAEMON.start()
    expect_pass(ctl("removeWorkContainer:", "/private/var/faults-none", log=log))


def fill(folder):
    """Fills the file system of folder until even small writes fail."""
    filler = f"{folder}/filler"
    os.makedirs(filler, exist_ok=True)
    size, n = 1 << 30, 0
    while size >= 4096:
        path = f"{filler}/{n}"
        try:
            fd = os.open(path, os.O_WRONLY | os.O_CREAT, 0o600)
            try:
                os.posix_fallocate(fd, 0, size)
            finally:
                os.close(fd)
            n += 1
        except OSError as e:
            if e.errno not in (errno.ENOSPC, errno.EDQUOT):
                raise
            os.unlink(path)
            size //= 2
    os.sync()
    return filler


@case("faults")
def full_data_partition_answers_as_walk_did(log):
    remove(BULK)
    previous = previous_manifest(log)
    make_small("after")
    filler = fill("/private/var/mobile")
    try:
        reply = ctl("createDeviceManifest:", {"Path": SMALL, "Inclusive": True})
        # The write's failure is not reported: the walk succeeded.
        expect_pass(reply)
        expect_manifest_is(previous)
    finally:
        remove(filler)
        os.sync()
    expect(DAEMON.running(), "the daemon stopped on a full data partition")
    remove(SMALL)
