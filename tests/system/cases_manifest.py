"""The device manifest, hard links into staging and the move to /var/backup."""
import hashlib
import os
import plistlib

from harness import (DEVICE_MANIFEST, case, ctl, entering, expect, expect_equal, expect_fail,
                     expect_pass, mode_of, prepare_work_container, remove, write)

TREE = "/private/var/mobile/Media/ManifestTree"
SHA1_EMPTY = hashlib.sha1(b"").digest()


def make_tree():
    """A small content tree with one of each kind of object the walk meets."""
    remove(TREE)
    write(f"{TREE}/a.txt", b"alpha\n", 0o640)
    write(f"{TREE}/empty", b"")
    write(f"{TREE}/sub/b.bin", bytes(range(256)) * 5)
    write(f"{TREE}/sub/.deep-hidden", b"kept: only the top level's hidden entries are skipped")
    write(f"{TREE}/.cache/skipped", b"hidden at the top")
    os.symlink("does-not-exist", f"{TREE}/dangling")
    os.mkfifo(f"{TREE}/pipe")
    os.setxattr(f"{TREE}/a.txt", "user.velmor.tag", b"demo\x00bytes")


def read_manifest():
    with open(DEVICE_MANIFEST, "rb") as f:
        data = f.read()
    expect(data.startswith(b"bplist00"), "DeviceManifest.plist is not a binary property list")
    return plistlib.loads(data)


def attributes(manifest, key):
    return manifest[key]["QLXManifestFileAttributes"]


@case("manifest")
def tree_manifest_records_every_kind_of_object(log):
    prepare_work_container()
    make_tree()
    parameter = {"Path": TREE, "Inclusive": True}
    reply = ctl("createDeviceManifest:", parameter, log=log)
    expect_pass(reply)
    expect_equal(reply.progress, [], "progress of a walk below the data area")
    log.expect(entering("createDeviceManifest:", parameter))
    log.expect("Will create device manifest...")
    log.expect(f"Device manifest created (for {TREE})")
    log.expect(f"{TREE}/pipe is special file. Leave it along")

    manifest = read_manifest()
    expect_equal(sorted(manifest), sorted(["/", "/a.txt", "/empty", "/sub", "/sub/b.bin",
                                           "/sub/.deep-hidden", "/dangling"]), "manifest keys")
    a = manifest["/a.txt"]
    expect_equal(a["QLXManifestFileHash"], hashlib.sha1(b"alpha\n").digest(), "hash of a.txt")
    expect_equal(a["QLXManifestFileExtendedAttributes"], {"user.velmor.tag": b"demo\x00bytes"},
                 "extended attributes of a.txt")
    expect_equal(a["QLXManifestSymbolicLinkTargetFile"], "", "link target of a regular file")
    expect_equal(attributes(manifest, "/a.txt")["FileType"], "Regular", "type of a.txt")
    expect_equal(attributes(manifest, "/a.txt")["FilePosixPermissions"], 0o640, "mode of a.txt")
    expect_equal(attributes(manifest, "/a.txt")["FileSize"], 6, "size of a.txt")
    expect_equal(attributes(manifest, "/a.txt")["FileOwnerAccountName"], "root", "owner of a.txt")
    expect_equal(manifest["/empty"]["QLXManifestFileHash"], SHA1_EMPTY, "hash of an empty file")
    expect_equal(manifest["/sub"]["QLXManifestFileHash"], b"", "hash of a folder")
    expect_equal(attributes(manifest, "/sub")["FileType"], "Directory", "type of sub")
    expect_equal(manifest["/dangling"]["QLXManifestSymbolicLinkTargetFile"], "does-not-exist",
                 "target of a dangling link")
    expect_equal(manifest["/dangling"]["QLXManifestFileHash"], b"", "hash of a link")
    expect_equal(attributes(manifest, "/dangling")["FileType"], "SymbolicLink", "type of a link")
    expect_equal(oct(mode_of(DEVICE_MANIFEST) & 0o004), oct(0o004),
                 "DeviceManifest.plist must be readable by the unprivileged daemon")


@case("manifest")
def inclusive_flag_absent_true_or_one(log):
    prepare_work_container()
    make_tree()
    for inclusive, has_root in ((None, False), (True, True), (1, True), (False, False)):
        parameter = {"Path": TREE} if inclusive is None else {"Path": TREE, "Inclusive": inclusive}
        expect_pass(ctl("createDeviceManifest:", parameter, log=log))
        expect_equal("/" in read_manifest(), has_root, f"a '/' entry with Inclusive {inclusive!r}")


@case("manifest")
def whole_data_area_reports_progress_and_skips_containers(log):
    prepare_work_container()
    make_tree()
    write("/private/var/mobile/Containers/Data/app/secret", b"never walked")
    write("/private/var/containers/Shared/x", b"never walked")
    write("/private/var/mobile/ContainersX/kept", b"walked: only the exact folder is skipped")
    write("/private/var/mobile/Media/Large/video.mov", os.urandom(1 << 20))
    reply = ctl("createDeviceManifest:", {"Path": "/private/var/", "Inclusive": True},
                timeout=60, log=log)
    expect_pass(reply)
    expect(reply.progress, "no progress for a walk of the whole data area")
    expect_equal(reply.progress, sorted(set(reply.progress)), "progress must only rise")
    expect(reply.progress[-1] >= 100, f"progress ended at {reply.progress[-1]}")
    log.expect("Device manifest created (for /private/var/)")
    manifest = read_manifest()
    expect("/var" in manifest, "the data area itself is not recorded under /var")
    expect("/var/mobile/Media/ManifestTree/a.txt" in manifest,
           "paths are not relative to /private")
    expect("/var/mobile/ContainersX/kept" in manifest, "a sibling of a skipped folder is missing")
    for skipped in ("/var/mobile/Containers", "/var/containers"):
        expect(not any(k == skipped or k.startswith(skipped + "/") for k in manifest),
               f"{skipped} was walked")
    for path in ("/private/var/mobile/Containers", "/private/var/containers",
                 "/private/var/mobile/ContainersX", "/private/var/mobile/Media/Large"):
        remove(path)


@case("manifest")
def var_alone_is_an_ordinary_walk(log):
    prepare_work_container()
    make_tree()
    reply = ctl("createDeviceManifest:", {"Path": "/private/var/mobile/Media", "Inclusive": False},
                log=log)
    expect_pass(reply)
    expect_equal(reply.progress, [], "progress of a walk below the data area")
    expect("/ManifestTree/a.txt" in read_manifest(), "paths are not relative to the walked folder")


@case("manifest")
def doubled_slashes_skip_the_same_hidden_entries(log):
    prepare_work_container()
    make_tree()
    write("/private/var/mobile/Media/.hid", b"hidden directly under the walked folder")
    write("/private/var/.tophidden", b"hidden directly under the data area")
    for path, hidden, shown in (("/private/var/mobile//Media", "/.hid", "/ManifestTree/a.txt"),
                                ("/private//var", "/.tophidden", "/mobile/Media/.hid")):
        reply = ctl("createDeviceManifest:", {"Path": path}, timeout=60, log=log)
        expect_pass(reply)
        expect_equal(reply.progress, [], f"progress of a walk of {path}")
        # The caller's text is logged as it was given.
        log.expect(f"Device manifest created (for {path})")
        manifest = read_manifest()
        expect(shown in manifest, f"{shown} missing from the walk of {path}")
        expect(hidden not in manifest, f"{hidden} recorded by the walk of {path}")
    remove("/private/var/mobile/Media/.hid")
    remove("/private/var/.tophidden")


@case("manifest")
def hard_link_into_staging(log):
    source = "/private/var/mobile/Media/Downloads/app.bin"
    link = "/private/var/QLXWorkContainer/QLX_staging/app.bin"
    remove("/private/var/QLXWorkContainer/QLX_staging")
    write(source, b"payload", 0o644)
    os.makedirs(os.path.dirname(link))
    parameter = {"FilePath": source, "StagingPath": link}
    expect_pass(ctl("createHardLink:", parameter, log=log))
    log.expect(entering("createHardLink:", parameter))
    expect_equal(os.stat(link).st_ino, os.stat(source).st_ino, "inode of the link")
    expect_equal(os.stat(source).st_nlink, 2, "link count of the source")

    expect_fail(ctl("createHardLink:", parameter, log=log))
    log.expect_prefix(f"Could not link {source} to {link} with error -")
    expect_equal(os.stat(source).st_nlink, 2, "link count after a refused second link")
    remove(source)
    remove(os.path.dirname(link))


@case("manifest")
def staging_replaces_backup_in_one_move(log):
    staging = "/private/var/QLXWorkContainer/QLX_staging"
    remove(staging)
    write(f"{staging}/app/Info.plist", b"new")
    write("/var/backup/old/file", b"old backup")
    expect_pass(ctl("moveStagingToFinal:", staging, log=log))
    log.expect("Move the whole thing together.")
    expect(not os.path.exists(staging), "the staging tree is still in place")
    with open("/var/backup/app/Info.plist", "rb") as f:
        expect_equal(f.read(), b"new", "moved content")
    expect(not os.path.exists("/var/backup/old"), "the previous backup survived the move")
    remove("/var/backup")


@case("manifest")
def staging_that_is_not_a_folder_is_refused(log):
    staging = "/private/var/QLXWorkContainer/not-a-folder"
    write(staging, b"file")
    write("/var/backup/untouched", b"still here")
    expect_fail(ctl("moveStagingToFinal:", staging, log=log))
    log.expect(f"Staging path {staging} looks wrong.")
    expect(os.path.isfile("/var/backup/untouched"), "/var/backup was touched")
    expect_fail(ctl("moveStagingToFinal:", "/private/var/QLXWorkContainer/missing", log=log))
    remove(staging)
    remove("/var/backup")
