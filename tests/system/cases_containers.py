"""Containers and the preferences file: what ends up on disk, owned by whom,
with which mode."""
import os

from harness import (case, ctl, entering, expect, expect_equal, expect_fail, expect_pass,
                     mode_of, owner_of, remove, write)

ROOT_PREFS = "/var/root/Library/Preferences/com.velmor.Quillex.plist"
MOBILE_PREFS = "/var/mobile/Library/Preferences/com.velmor.Quillex.plist"
PREFS_BYTES = b"bplist00\xd0\x08\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00" \
              b"\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x09"


def fresh(path, mode=None):
    remove(path)
    if mode is not None:
        os.makedirs(path)
        os.chmod(path, mode)


@case("containers")
def work_container_is_made_open_to_everyone(log):
    path = "/private/var/containers-test/Work"
    fresh("/private/var/containers-test")
    expect_pass(ctl("prepareWorkContainer:", path, log=log))
    log.expect(entering("prepareWorkContainer:", path))
    expect(os.path.isdir(path), f"{path} was not made with its missing parent")
    expect_equal(oct(mode_of(path)), oct(0o777), "mode of a new work container")
    expect_equal(owner_of(path), ("root", "root"), "owner of a new work container")


@case("containers")
def opening_keeps_owner_bits_and_special_bits(log):
    for before, after in ((0o700, 0o777), (0o500, 0o577), (0o1700, 0o1777), (0o2750, 0o2777)):
        path = f"/private/var/containers-mode-{before:o}"
        fresh(path, before)
        expect_pass(ctl("prepareWorkContainer:", path, log=log))
        expect_equal(oct(mode_of(path)), oct(after), f"mode of a container that was {before:o}")
        remove(path)


@case("containers")
def preparing_clears_only_the_staging_tree(log):
    path = "/private/var/containers-staging"
    fresh(path, 0o755)
    write(f"{path}/QLX_staging/app/file", "staged")
    write(f"{path}/keep.txt", "kept")
    expect_pass(ctl("prepareWorkContainer:", path, log=log))
    expect(not os.path.exists(f"{path}/QLX_staging"), "the staging tree survived")
    expect(os.path.isfile(f"{path}/keep.txt"), "a sibling of the staging tree was removed")
    remove(path)


@case("containers")
def removing_a_container_and_a_missing_one_both_pass(log):
    path = "/private/var/containers-remove"
    write(f"{path}/deep/er/file", "x")
    expect_pass(ctl("removeWorkContainer:", path, log=log))
    expect(not os.path.exists(path), f"{path} is still there")
    expect_pass(ctl("removeWorkContainer:", path, log=log))


@case("containers")
def log_container_gives_only_daemon_logs_to_mobile(log):
    path = "/private/var/logs/containers-test"
    fresh(path, 0o755)
    for name in ("vexd-today.log", "other.log", "x-vexd-1"):
        write(f"{path}/{name}", name)
    expect_pass(ctl("prepareLogContainer:", path, log=log))
    expect_equal(oct(mode_of(path)), oct(0o777), "mode of the log container")
    expect_equal(owner_of(f"{path}/vexd-today.log"), ("mobile", "mobile"),
                 "owner of vexd-today.log")
    expect_equal(owner_of(f"{path}/other.log"), ("root", "root"), "owner of other.log")
    expect_equal(owner_of(f"{path}/x-vexd-1"), ("root", "root"), "owner of x-vexd-1")
    remove(path)


@case("containers")
def log_container_outside_the_log_folders_is_refused(log):
    path = "/var/mobile/containers-logs"
    remove(path)
    expect_fail(ctl("prepareLogContainer:", path, log=log))
    expect(not os.path.exists(path), f"{path} was made although refused")
    # The refusal's placeholders are given no values and print empty.
    log.expect(": creating logs under  is not allowed.")


@case("containers")
def log_folder_rule_is_a_plain_prefix_test(log):
    for path in ("/var/logs/containers-a", "/private/var/logsX"):
        remove(path)
        expect_pass(ctl("prepareLogContainer:", path, log=log))
        expect(os.path.isdir(path), f"{path} was not made")
        remove(path)


@case("containers")
def preferences_move_to_mobile_once(log):
    remove(ROOT_PREFS)
    remove(MOBILE_PREFS)
    write(ROOT_PREFS, PREFS_BYTES, 0o600)
    expect_pass(ctl("migratePreferencesFile:", log=log))
    log.expect(entering("migratePreferencesFile:", True))
    expect(not os.path.exists(ROOT_PREFS), "the root user's preferences file is still there")
    with open(MOBILE_PREFS, "rb") as f:
        expect_equal(f.read(), PREFS_BYTES, "moved preferences contents")
    expect_equal(owner_of(MOBILE_PREFS), ("mobile", "mobile"), "owner of the moved preferences")
    # Nothing left to move: a failure, and nothing logged beyond the entry.
    again = type(log)(log.path)
    expect_fail(ctl("migratePreferencesFile:", log=again))
    expect_equal(again.messages().count(entering("migratePreferencesFile:", True)), 1,
                 "entry lines of the second migration")
    expect(not any(m.startswith("Couldn't") for m in again.messages()),
           "a migration with nothing to move logged a failure")


@case("containers")
def preferences_never_overwrite_mobile_copy(log):
    write(ROOT_PREFS, b"root copy", 0o600)
    write(MOBILE_PREFS, b"mobile copy", 0o644)
    expect_fail(ctl("migratePreferencesFile:", log=log))
    with open(ROOT_PREFS, "rb") as f:
        expect_equal(f.read(), b"root copy", "root's preferences after a refused migration")
    with open(MOBILE_PREFS, "rb") as f:
        expect_equal(f.read(), b"mobile copy", "mobile's preferences after a refused migration")
    remove(ROOT_PREFS)
    remove(MOBILE_PREFS)
