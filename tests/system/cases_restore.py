"""Attribute restore from signed manifests: which signers a development device
accepts, which file list a container type picks, and what the files end up
with."""
import datetime
import hashlib
import os
import plistlib
import signal
import struct
import subprocess
import time
from fractions import Fraction

import signed_manifest as sm
from harness import (SIGNING, case, ctl, entering, expect, expect_equal, expect_fail,
                     expect_pass, mobile_ids, mode_of, owner_of, prepare_work_container, remove,
                     secure_boot, write)

STAGING = "/private/var/QLXWorkContainer/QLX_staging"
SIGNED = "/private/var/mobile/Media/Downloads/content.signed"
METHOD = "-[QLXSignedManifest {}]"
MTIME = datetime.datetime(2024, 2, 29, 12, 30, 0)


def stage():
    """Staged files whose attributes are all wrong before the restore."""
    remove(STAGING)
    write(f"{STAGING}/Info.plist", b"info", 0o600)
    write(f"{STAGING}/Data/level.dat", b"level", 0o600)
    write(f"{STAGING}/Group/shared.db", b"shared", 0o600)


def good_record(content, mode=0o640):
    return sm.record("Regular", "mobile", "mobile", mode, MTIME, {"user.velmor.origin": b"store"},
                     hashlib.sha1(content).digest())


BACKUP = {"/Info.plist": good_record(b"info"), "/Data/level.dat": good_record(b"level", 0o600)}


def sign(body, signer="development", **envelope_args):
    os.makedirs(os.path.dirname(SIGNED), exist_ok=True)
    with open(SIGNED, "wb") as f:
        f.write(sm.envelope(body, f"{SIGNING}/{signer}/signer.key",
                            f"{SIGNING}/{signer}/chain.pem", **envelope_args))


def restore(log, content_type=None, identifier=None):
    parameter = {"StagingRootPath": STAGING, "ManifestPath": SIGNED}
    if content_type is not None:
        parameter["ContentType"] = content_type
    if identifier is not None:
        parameter["Identifier"] = identifier
    return ctl("restoreAttributes:", parameter, log=log), parameter


def expect_restored(path, mode):
    expect_equal(owner_of(path), ("mobile", "mobile"), f"owner of {path}")
    expect_equal(oct(mode_of(path)), oct(mode), f"mode of {path}")
    expect_equal(os.getxattr(path, "user.velmor.origin"), b"store", f"xattr of {path}")
    expect_equal(int(os.stat(path).st_mtime),
                 int(MTIME.replace(tzinfo=datetime.timezone.utc).timestamp()), f"mtime of {path}")


def expect_untouched(path):
    expect_equal(owner_of(path), ("root", "root"), f"owner of {path}")
    expect_equal(oct(mode_of(path)), oct(0o600), f"mode of {path}")


@case("restore")
def development_content_on_development_device(log):
    stage()
    sign(sm.payload(BACKUP))
    reply, parameter = restore(log)
    expect_pass(reply)
    log.expect(entering("restoreAttributes:", parameter))
    log.expect("Loading signed manifest.")
    log.expect("Manifest passed signature check.")
    expect_restored(f"{STAGING}/Info.plist", 0o640)
    expect_restored(f"{STAGING}/Data/level.dat", 0o600)
    expect_untouched(f"{STAGING}/Group/shared.db")


@case("restore")
def development_content_refused_where_fuse_is_set_or_unknown(log):
    for fuse in (1, None):
        stage()
        sign(sm.payload(BACKUP))
        with secure_boot(fuse):
            reply, _ = restore(log)
        expect_fail(reply)
        log.expect(f"{METHOD.format('verifyManifestSignature:')}: Certificate not valid.")
        expect_untouched(f"{STAGING}/Info.plist")


@case("restore")
def production_content_passes_everywhere(log):
    stage()
    sign(sm.payload(BACKUP), signer="production")
    with secure_boot(1):
        expect_pass(restore(log)[0])
    expect_restored(f"{STAGING}/Info.plist", 0o640)


@case("restore")
def changed_payload_byte_fails_the_signature(log):
    stage()
    body = bytearray(sm.payload(BACKUP))
    outer = sm.envelope(bytes(body), f"{SIGNING}/development/signer.key",
                        f"{SIGNING}/development/chain.pem")
    # The payload is an embedded binary plist; flip one byte of its content.
    at = outer.index(bytes(body)) + len(body) // 2
    tampered = outer[:at] + bytes([outer[at] ^ 0x01]) + outer[at + 1:]
    with open(SIGNED, "wb") as f:
        f.write(tampered)
    expect_fail(restore(log)[0])
    log.expect_absent("Manifest passed signature check.")
    expect_untouched(f"{STAGING}/Info.plist")


@case("restore")
def envelope_and_payload_versions_are_checked(log):
    stage()
    sign(sm.payload(BACKUP), version=3)
    expect_fail(restore(log)[0])
    log.expect(f"{METHOD.format('initWithNSStream:')}: "
               "signed manifest version 3 is not supported yet")
    sign(sm.payload(BACKUP, version=5))
    expect_fail(restore(log)[0])
    log.expect(f"{METHOD.format('initWithNSStream:')}: raw manifest version 5 is not supported.")
    sign(sm.payload(BACKUP, version=4))
    expect_pass(restore(log)[0])


@case("restore")
def app_data_picks_the_manifest_of_the_app(log):
    stage()
    app_data = {"com.velmor.demo.Showcase": {"Manifest": BACKUP},
                "com.velmor.demo.NoManifest": {"Container": "x"}}
    sign(sm.payload({}, app_data=app_data))
    expect_pass(restore(log, "AppData", "com.velmor.demo.Showcase")[0])
    expect_restored(f"{STAGING}/Info.plist", 0o640)

    expect_fail(restore(log, "AppData", "com.velmor.demo.Missing")[0])
    log.expect("Couldn't load container data for AppData/com.velmor.demo.Missing")
    expect_fail(restore(log, "AppData", "com.velmor.demo.NoManifest")[0])
    log.expect("Couldn't load manifest dict for AppData/com.velmor.demo.NoManifest")


@case("restore")
def group_data_is_the_file_list_itself(log):
    stage()
    group = {"group.com.velmor.demo": {"/Group/shared.db": good_record(b"shared")}}
    sign(sm.payload({}, group_data=group))
    expect_pass(restore(log, "GroupData", "group.com.velmor.demo")[0])
    expect_restored(f"{STAGING}/Group/shared.db", 0o640)
    expect_untouched(f"{STAGING}/Info.plist")


@case("restore")
def unknown_type_and_missing_identifier(log):
    stage()
    sign(sm.payload(BACKUP))
    expect_fail(restore(log, "PhotoData", "com.velmor.demo.Showcase")[0])
    log.expect("Couldn't load manifest dict for PhotoData/com.velmor.demo.Showcase")
    expect_untouched(f"{STAGING}/Info.plist")
    # A type without an identifier restores the "Backup" list.
    expect_pass(restore(log, "AppData")[0])
    expect_restored(f"{STAGING}/Info.plist", 0o640)


@case("restore")
def file_missing_from_staging_fails_the_restore(log):
    stage()
    backup = dict(BACKUP)
    backup["/NotStaged.bin"] = good_record(b"absent")
    sign(sm.payload(backup))
    expect_fail(restore(log)[0])
    log.expect_prefix(f"Could not set file attributs at {STAGING}/NotStaged.bin with error - ")


@case("restore")
def missing_manifest_file(log):
    remove(SIGNED)
    expect_fail(restore(log)[0])
    log.expect("Loading signed manifest.")


UTC = datetime.timezone.utc
EPOCH_2001 = datetime.datetime(2001, 1, 1)
# Both calendar ends, the old 32-bit limits around 2001 (1932-12-13 and
# 2069-01-19) and 1970's (2038-01-19), with fractions on both sides of 2001.
DATE_EDGES = ["0001-01-01T00:00:00.000001", "1900-01-01T00:00:00.5", "1932-12-13T20:45:51.75",
              "2000-12-31T23:59:59.9", "2001-01-01T00:00:00", "2038-01-19T03:14:08.123456789",
              "2069-01-20T00:00:00.25", "2100-01-01T00:00:00", "9999-12-31T23:59:59.999999999"]


def stat_text(ns):
    """What `stat -c %y` prints in UTC for a time in nanoseconds since 1970
    (the civil date by hand: a binary date of 9999-12-31 23:59:59.999999
    is 10000-01-01 to a double, beyond Python's dates)."""
    days, second = divmod(ns // 10**9, 86400)
    era, day_of_era = divmod(days + 719468, 146097)
    year_of_era = (day_of_era - day_of_era // 1460 + day_of_era // 36524
                   - day_of_era // 146096) // 365
    day_of_year = day_of_era - (365 * year_of_era + year_of_era // 4 - year_of_era // 100)
    month = (5 * day_of_year + 2) // 153
    day = day_of_year - (153 * month + 2) // 5 + 1
    month = month + 3 if month < 10 else month - 9
    year = year_of_era + era * 400 + (month <= 2)
    return (f"{year:04d}-{month:02d}-{day:02d} {second // 3600:02d}:{second // 60 % 60:02d}:"
            f"{second % 60:02d}.{ns % 10**9:09d} +0000")


def text_ns(text):
    whole, _, frac = text.partition(".")
    since = datetime.datetime.fromisoformat(whole) - datetime.datetime(1970, 1, 1)
    return (since.days * 86400 + since.seconds) * 10**9 + int((frac + "0" * 9)[:9])


def double_ns(seconds_since_2001):
    """The nanosecond nearest a binary date's double, halves away from zero."""
    ns = Fraction(seconds_since_2001) * 10**9 + 978307200 * 10**9
    return int(ns + Fraction(1, 2)) if ns >= 0 else -int(-ns + Fraction(1, 2))


def placeholder(i):
    return datetime.datetime(2050, 1, 1) + datetime.timedelta(seconds=i)


def dated_payload(fmt, mtimes):
    """A payload whose /dates/N record carries mtimes[N]; XML dates get their
    text (fraction included) put in after plistlib, which writes whole
    seconds only."""
    backup = {f"/dates/{i}": sm.record("Regular", mtime=m if fmt == "binary" else placeholder(i))
              for i, m in enumerate(mtimes)}
    if fmt == "binary":
        return sm.payload(backup)
    body = {"Version": 3, "Info": {}, "Backup": backup, "App": {}, "AppData": {}}
    text = plistlib.dumps(body, fmt=plistlib.FMT_XML).decode()
    for i, m in enumerate(mtimes):
        text = text.replace(f"<date>{placeholder(i):%Y-%m-%dT%H:%M:%S}Z</date>", f"<date>{m}Z</date>")
    return text.encode()


@case("restore")
def dates_from_year_1_to_9999_land_exactly(log):
    for fmt in ("binary", "xml"):
        remove(STAGING)
        for i in range(len(DATE_EDGES)):
            write(f"{STAGING}/dates/{i}", b"x", 0o600)
        if fmt == "binary":
            # plistlib keeps microseconds and writes a double since 2001.
            mtimes = [datetime.datetime.fromisoformat(e[:26]) for e in DATE_EDGES]
            want = [double_ns((m - EPOCH_2001).total_seconds()) for m in mtimes]
        else:
            mtimes, want = DATE_EDGES, [text_ns(e) for e in DATE_EDGES]
        sign(dated_payload(fmt, mtimes))
        expect_pass(restore(log)[0])
        for i, ns in enumerate(want):
            shown = subprocess.run(["stat", "-c", "%y", f"{STAGING}/dates/{i}"], check=True,
                                   capture_output=True, text=True, env={"TZ": "UTC"}).stdout
            expect_equal(shown.strip(), stat_text(ns), f"{fmt} date {DATE_EDGES[i]}")


@case("restore")
def dates_beyond_what_a_file_can_hold_are_refused(log):
    remove(STAGING)
    write(f"{STAGING}/dates/0", b"x", 0o600)
    before = os.stat(f"{STAGING}/dates/0").st_mtime_ns
    body = dated_payload("binary", [placeholder(0)])
    old = b"\x33" + struct.pack(">d", (placeholder(0) - EPOCH_2001).total_seconds())
    sign(body.replace(old, b"\x33" + struct.pack(">d", 1e300)))
    expect_fail(restore(log)[0])
    log.expect(f"{METHOD.format('initWithNSStream:')}: Cannot convert to property list - binary "
               "property list date 1e+300 seconds from 2001 is beyond the dates this system can "
               "hold(0x3).")
    expect_equal(os.stat(f"{STAGING}/dates/0").st_mtime_ns, before, "mtime after a refused date")


def etc_state(names):
    """Owner, mode, times and extended attributes of /etc and the named
    entries in it, none followed."""
    state = {}
    for path in ["/etc"] + [f"/etc/{n}" for n in names]:
        st = os.lstat(path)
        xattrs = {}
        if not os.path.islink(path):
            xattrs = {a: os.getxattr(path, a, follow_symlinks=False)
                      for a in os.listxattr(path, follow_symlinks=False)}
        state[path] = (st.st_uid, st.st_gid, oct(st.st_mode), st.st_mtime_ns, xattrs)
    return state


def swap_for_etc_until(deadline, uid, gid, folders):
    """A child that, as mobile, keeps swapping each staged folder for a link
    to /etc and back until the deadline; answers its pid."""
    pid = os.fork()
    if pid:
        return pid
    try:
        os.setgroups([])
        os.setgid(gid)
        os.setuid(uid)
        while time.monotonic() < deadline:
            for folder in folders:
                try:
                    os.rename(folder, folder + ".real")
                    os.symlink("/etc", folder)
                    time.sleep(0.0005)
                    os.unlink(folder)
                    os.rename(folder + ".real", folder)
                except OSError:
                    pass
    finally:
        os._exit(0)


@case("restore")
def staged_folder_swapped_for_etc_mid_restore_leaves_etc_alone(log):
    # Staged files named like /etc's own, with records that would make them
    # mobile's and world-writable wherever a swapped folder led root.
    names = sorted(n for n in os.listdir("/etc")
                   if os.path.isfile(f"/etc/{n}") and not os.path.islink(f"/etc/{n}"))[:40]
    prepare_work_container()
    remove(STAGING)
    uid, gid = mobile_ids()
    for name in names:
        write(f"{STAGING}/Data/{name}", b"staged", 0o600)
    for folder, _, files in os.walk(STAGING):
        for path in [folder] + [os.path.join(folder, f) for f in files]:
            os.chown(path, uid, gid)
    folder_record = sm.record("Directory", "mobile", "mobile", 0o777, MTIME,
                              {"user.velmor.origin": b"store"})
    backup = {"/": folder_record, "/Data": folder_record}
    for name in names:
        backup[f"/Data/{name}"] = sm.record("Regular", "mobile", "mobile", 0o777, MTIME,
                                            {"user.velmor.origin": b"store"},
                                            hashlib.sha1(b"staged").digest())
    sign(sm.payload(backup))
    before = etc_state(names)

    deadline = time.monotonic() + 4
    swapper = swap_for_etc_until(deadline, uid, gid, [f"{STAGING}/Data", STAGING])
    restores = 0
    try:
        while time.monotonic() < deadline:
            ctl("restoreAttributes:", {"StagingRootPath": STAGING, "ManifestPath": SIGNED},
                timeout=5)
            restores += 1
    finally:
        os.kill(swapper, signal.SIGKILL)
        os.waitpid(swapper, 0)
    # The swapper may have been stopped halfway; the staging folder first,
    # as the other lies inside it.
    for folder in (STAGING, f"{STAGING}/Data"):
        if os.path.isdir(folder + ".real"):
            if os.path.islink(folder):
                os.unlink(folder)
            os.rename(folder + ".real", folder)

    # Replies are not judged here: which restores pass depends on the swaps.
    expect_equal(etc_state(names), before, "/etc after restores raced by folder swaps")
    expect(restores >= 3, f"only {restores} restores ran in the time given")
    # Unraced, the same content restores in full, once every raced client
    # is gone.
    log.wait_for(lambda m: log.messages().count("Ovix disconnected by client") >=
                 log.messages().count("Start to deal with new connection"), 5, "the disconnects")
    expect_pass(restore(log)[0])
    expect_equal(oct(mode_of(f"{STAGING}/Data/{names[0]}")), oct(0o777), "mode once unraced")
    remove(STAGING)
