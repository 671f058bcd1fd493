"""Shrinking and expanding the data partition on the sandbox's loop disk: the
GPT entry, the kernel's partition and the mounted btrfs must agree, the data
on it must survive, and so must every byte of the Update partition that each
resize moves, even when the daemon is killed in the middle of the move."""
import fcntl
import hashlib
import os
import re
import shutil
import stat
import struct
import subprocess

from harness import (DAEMON, Daemon, Failure, case, ctl, entering, expect, expect_equal,
                     expect_pass, remove)

DISK = "/dev/rdisk0s1"
LOOP = os.path.basename(os.environ.get("VEXD_LOOP", ""))
KEEP = "/private/var/mobile/Media/keep.bin"
BLKSSZGET = 0x1268
SHRINK_LINE = re.compile(r"freeSize = (\d+)\(bytes\), totalSize = (\d+)\(bytes\), "
                         r"newSize = (\d+)\(bytes\)\n\n")


class Table:
    """The primary GPT as it is on the disk."""

    def __init__(self):
        with open(DISK, "rb") as f:
            self.block = struct.unpack("i", fcntl.ioctl(f, BLKSSZGET, b"\0" * 4))[0]
            f.seek(self.block)
            header = f.read(92)
            f.seek(2 * self.block)
            raw = f.read(self.block)
        self.first_usable, self.last_usable = struct.unpack_from("<QQ", header, 40)
        count = struct.unpack_from("<I", header, 80)[0]
        self.entries = {}
        for i in range(min(count, 8)):
            first, last = struct.unpack_from("<QQ", raw, i * 128 + 32)
            name = raw[i * 128 + 56:i * 128 + 128].decode("utf-16-le").rstrip("\0")
            self.entries[name] = (i, first, last)

    def blocks(self, name):
        _, first, last = self.entries[name]
        return last - first + 1


def kernel_partition(number):
    """Start and size of the kernel's mapping of a partition, in bytes."""
    base = f"/sys/class/block/{LOOP}p{number}"
    with open(f"{base}/start") as s, open(f"{base}/size") as n:
        return int(s.read()) * 512, int(n.read()) * 512


def btrfs_size():
    out = subprocess.run(["btrfs", "filesystem", "show", "--raw", "/private/var"],
                         capture_output=True, text=True, check=True).stdout
    match = re.search(r"devid\s+1\s+size\s+(\d+)", out)
    expect(match, f"no device size in: {out!r}")
    return int(match.group(1))


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha1(f.read()).hexdigest()


def partition_node(name):
    """A fresh node for the named partition: a move gives it a new device number."""
    number = Table().entries[name][0] + 1
    with open(f"/sys/class/block/{LOOP}p{number}/dev") as f:
        major, minor = map(int, f.read().split(":"))
    node = f"/dev/vexd-test-{name.lower()}"  # the device's own /dev takes nodes; /tmp does not
    if os.path.lexists(node):
        os.unlink(node)
    os.mknod(node, 0o600 | stat.S_IFBLK, os.makedev(major, minor))
    return node


UPDATE_HASH = []


def update_hash():
    """The hash of all of Update, read through its node."""
    h = hashlib.sha256()
    with open(partition_node("Update"), "rb") as f:
        while chunk := f.read(1 << 20):
            h.update(chunk)
    return h.hexdigest()


def keep_update():
    """Update full of random bytes (once per device); their hash."""
    if not UPDATE_HASH:
        size = Table().blocks("Update") * Table().block
        with open(partition_node("Update"), "wb") as f:
            for _ in range(size >> 20):
                f.write(os.urandom(1 << 20))
            os.fsync(f.fileno())
        UPDATE_HASH.append(update_hash())
    return UPDATE_HASH[0]


def keep_file():
    if not os.path.exists(KEEP):
        os.makedirs(os.path.dirname(KEEP), exist_ok=True)
        with open(KEEP, "wb") as f:
            f.write(os.urandom(8 << 20))
        os.sync()
    return digest(KEEP)


def expect_consistent(table, blocks, data_hash):
    """GPT entry, kernel partition and file system all of blocks blocks."""
    index, first, _ = table.entries["Data"]
    expect_equal(table.blocks("Data"), blocks, "Data's size in the GPT, in blocks")
    expect_equal(kernel_partition(index + 1), (first * table.block, blocks * table.block),
                 "the kernel's Data partition (start, size)")
    expect_equal(btrfs_size(), blocks * table.block, "btrfs device size")
    verify = subprocess.run(["sgdisk", "-v", DISK], capture_output=True, text=True)
    expect(verify.returncode == 0 and "No problems found" in verify.stdout,
           f"sgdisk -v does not accept the disk: {verify.stdout.strip()}")
    expect_equal(digest(KEEP), data_hash, "hash of the file on the data partition")


def expect_disk_consistent(update):
    """Update's bytes where its entry says, a table both tools accept and the
    kernel's partitions as the table lists them."""
    table = Table()
    expect_equal(update_hash(), update, "hash of all of Update")
    verify = subprocess.run(["sgdisk", "-v", DISK], capture_output=True, text=True)
    expect(verify.returncode == 0 and "No problems found" in verify.stdout,
           f"sgdisk -v does not accept the disk: {verify.stdout.strip()}")
    verify = subprocess.run(["sfdisk", "--verify", DISK], capture_output=True, text=True)
    expect(verify.returncode == 0 and "No errors detected" in verify.stdout,
           f"sfdisk --verify does not accept the disk: {verify.stdout.strip()}")
    for name, (index, first, last) in table.entries.items():
        expect_equal(kernel_partition(index + 1),
                     (first * table.block, (last - first + 1) * table.block),
                     f"the kernel's {name} partition (start, size)")


@case("storage", needs_storage=True)
def shrink_keeps_used_space_and_half_the_free(log):
    data_hash = keep_file()
    update = keep_update()
    before = Table()
    reply = ctl("shrinkDataPartition:", log=log, timeout=60)
    expect_pass(reply)
    log.expect(entering("shrinkDataPartition:", True))
    line = log.wait_for(lambda m: SHRINK_LINE.fullmatch(m), 1, "the shrink's size line")
    free, total, new_size = map(int, SHRINK_LINE.fullmatch(line).groups())
    expect_equal(new_size, total - free // 2, "newSize from freeSize and totalSize")
    log.expect("entering adjust_partition")
    log.expect(f"Resizing existing partition with GPT index {before.entries['Data'][0]}")
    log.expect("Wrote GPT header back to disk")
    after = Table()
    blocks = -(-new_size // after.block)
    expect(blocks < before.blocks("Data"), f"Data did not shrink ({before.blocks('Data')} blocks)")
    expect_consistent(after, blocks, data_hash)
    expect_equal(after.entries["System"], before.entries["System"], "System's entry")
    expect_disk_consistent(update)


@case("storage", needs_storage=True)
def expand_takes_every_block_the_others_leave(log):
    data_hash = keep_file()
    update = keep_update()
    reply = ctl("expandDataPartition:", log=log, timeout=60)
    expect_pass(reply)
    log.expect(entering("expandDataPartition:", True))
    table = Table()
    others = sum(table.blocks(n) for n in table.entries if n != "Data")
    available = table.last_usable - table.first_usable + 1 - others
    log.expect(f"Block numbers that could be used as data partition = {available}")
    log.expect(f"newSize = {available * table.block}(bytes)")
    expect_consistent(table, available, data_hash)
    # Update follows Data, in the table and in the kernel's mapping.
    index, first, last = table.entries["Update"]
    expect_equal(first, table.entries["Data"][2] + 1, "Update's first block")
    expect_equal(kernel_partition(index + 1),
                 (first * table.block, (last - first + 1) * table.block),
                 "the kernel's Update partition (start, size)")
    expect_disk_consistent(update)
    expect_file_system_sound()


def expect_file_system_sound():
    scrub = subprocess.run(["btrfs", "scrub", "start", "-B", "/private/var"],
                           capture_output=True, text=True)
    expect(scrub.returncode == 0, f"btrfs scrub found errors: {scrub.stdout} {scrub.stderr}")
    # The daemon keeps its log on it: checked mounted, read-only.
    check = subprocess.run(["btrfs", "check", "--readonly", "--force", partition_node("Data")],
                           capture_output=True, text=True)
    expect(check.returncode == 0, f"btrfs check found errors: {check.stdout} {check.stderr}")


@case("storage", needs_storage=True)
def expand_at_full_size_changes_nothing(log):
    ctl("expandDataPartition:", log=log, timeout=60)
    before = Table()
    size = btrfs_size()
    again = type(log)(log.path)
    expect_pass(ctl("expandDataPartition:", log=again, timeout=60))
    again.expect("no change in size")
    again.expect_absent("Wrote GPT header back to disk")
    expect_equal(Table().entries, before.entries, "GPT entries")
    expect_equal(btrfs_size(), size, "btrfs device size")
    remove(KEEP)


def traced_daemon(*strace_args):
    """vexd_helper under strace: its disk writes are the pwrite64 calls."""
    if not shutil.which("strace"):
        raise Failure("strace is missing (scripts/setup installs it)")
    daemon = Daemon()
    daemon.start(wrapper=["strace", "-f", "-qq", *strace_args])
    return daemon


@case("storage", needs_storage=True)
def a_move_killed_midway_is_finished_when_the_disk_is_mapped_again(log):
    data_hash = keep_file()
    update = keep_update()
    DAEMON.terminate()
    # How many writes a move of Update takes: a shrink, traced.
    trace = "/tmp/vexd-move-trace"
    daemon = traced_daemon("-e", "trace=pwrite64", "-o", trace)
    expect_pass(ctl("shrinkDataPartition:", timeout=60))
    ctl("quitHelper:")
    daemon.wait_exit(30)
    with open(trace) as f:
        writes = sum("pwrite64(" in line for line in f)
    expect(writes > 10, f"a move took only {writes} writes")
    expect_disk_consistent(update)

    # Killed once the first record is on disk, in the copy, at the table,
    # while the record is cleared: mapping finishes the move every time.
    for at in sorted({2, writes // 2, writes - 4, writes - 1}):
        table = Table()
        shrunk = table.entries["Update"][2] < table.last_usable
        request = "expandDataPartition:" if shrunk else "shrinkDataPartition:"
        daemon = traced_daemon("-o", "/dev/null", "-e",
                               f"inject=pwrite64:signal=SIGKILL:when={at}")
        ctl(request, timeout=60)
        status = daemon.wait_exit(30)
        expect(status in (-9, 137), f"{request} was not killed at write {at} (status {status})")
        mapped = subprocess.run(["qlx-mapdisk", DISK], capture_output=True, text=True)
        expect(mapped.returncode == 0, f"qlx-mapdisk failed: {mapped.stderr.strip()}")
        after = Table()
        expect_equal(after.entries["Update"][2] < after.last_usable, not shrunk,
                     f"Update moved by the {request} killed at write {at}")
        expect_disk_consistent(update)
    expect_equal(digest(KEEP), data_hash, "hash of the file on the data partition")
    expect_file_system_sound()
