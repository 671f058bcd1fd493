"""Firmware variables in the device's emulated EFI variable folder."""
import glob
import os
import re
import subprocess

from harness import (case, ctl, entering, expect, expect_equal, expect_fail, expect_pass)

EFIVARS = "/sys/firmware/efi/efivars"
SECURE_BOOT = f"{EFIVARS}/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c"
GUID = re.compile(r"[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")


def variable_file(name):
    """The one file of a variable the service wrote, under its vendor GUID."""
    matches = [p for p in glob.glob(f"{EFIVARS}/{glob.escape(name)}-*")
               if GUID.fullmatch(os.path.basename(p)[len(name) + 1:])]
    expect(len(matches) <= 1, f"several files for variable {name}: {matches}")
    return matches[0] if matches else None


def folder_listing():
    return sorted(os.listdir(EFIVARS)), sorted(os.listdir(os.path.dirname(EFIVARS)))


def write_variable(log, name, value):
    parameter = {"Name": name, "Value": value}
    reply = ctl("writeNvram:", parameter, log=log)
    return reply, parameter


@case("nvram")
def written_variable_holds_attributes_then_utf8(log):
    reply, parameter = write_variable(log, "demo-mode", "retail é")
    expect_pass(reply)
    log.expect(entering("writeNvram:", parameter))
    path = variable_file("demo-mode")
    expect(path is not None, "no variable file for demo-mode")
    with open(path, "rb") as f:
        expect_equal(f.read(), b"\x07\x00\x00\x00" + "retail é".encode(), "variable file bytes")
    with open(SECURE_BOOT, "rb") as f:
        expect_equal(f.read(), b"\x07\x00\x00\x00\x00", "the Secure Boot variable")


@case("nvram")
def empty_value_is_four_bytes(log):
    expect_pass(write_variable(log, "demo-empty", "")[0])
    path = variable_file("demo-empty")
    expect(path is not None, "no variable file for demo-empty")
    expect_equal(os.path.getsize(path), 4, "size of an empty variable")


@case("nvram")
def immutable_variable_is_rewritten_and_deleted(log):
    expect_pass(write_variable(log, "demo-locked", "first")[0])
    path = variable_file("demo-locked")
    locked = subprocess.run(["chattr", "+i", path], capture_output=True).returncode == 0
    expect_pass(write_variable(log, "demo-locked", "second")[0])
    with open(variable_file("demo-locked"), "rb") as f:
        expect_equal(f.read(), b"\x07\x00\x00\x00second", "rewritten variable")
    expect_pass(ctl("deleteNvram:", "demo-locked", log=log))
    log.expect(entering("deleteNvram:", "demo-locked"))
    expect(variable_file("demo-locked") is None,
           "the variable survived its deletion" + ("" if locked else " (not made immutable)"))


@case("nvram")
def delete_of_missing_variable_keeps_serving(log):
    before = folder_listing()
    ctl("deleteNvram:", "demo-never-written", log=log)
    expect_equal(folder_listing(), before, "variable folders after deleting a missing variable")
    expect_pass(write_variable(log, "demo-after", "x")[0])


@case("nvram")
def names_that_leave_the_folder_are_refused(log):
    before = folder_listing()
    for name in ("../escape", "a/b", ""):
        expect_fail(write_variable(log, name, "x")[0])
        expect_fail(ctl("deleteNvram:", name, log=log))
    expect_equal(folder_listing(), before, "variable folders after refused names")
    expect(not os.path.exists("/sys/firmware/efi/escape"), "a variable escaped its folder")
