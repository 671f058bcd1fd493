#!/usr/bin/env python3
"""qlx-manifest end to end: the manifests it writes are read by an
independent property-list reader, and diff answers with the record
comparison codes.

usage: qlx_manifest_test.py PATH/TO/qlx-manifest
"""
import hashlib
import os
import plistlib
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest

TOOL = None
KEYS = [
    "QLXManifestFileAttributes",
    "QLXManifestFileExtendedAttributes",
    "QLXManifestFileHash",
    "QLXManifestSymbolicLinkTargetFile",
]


def run(*args, user=None):
    command = [TOOL, *args]
    if user is not None:
        command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", *command]
    return subprocess.run(command, capture_output=True, text=True)


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="qlx-manifest-test-")
        os.chmod(self.dir, 0o755)

    def tearDown(self):
        shutil.rmtree(self.dir)

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def write(self, relative, data=b""):
        full = self.path(relative)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.write(data)
        return full

    def create(self, root, *options, user=None):
        out = self.path("manifest-%d.plist" % len(os.listdir(self.dir)))
        result = run("create", root, *options, "-o", out, user=user)
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(out, "rb") as f:
            return plistlib.load(f), out, result.stderr


class CreateTest(ToolTest):
    def test_every_entry_carries_the_four_keys_and_the_real_hash(self):
        big = os.urandom(600_000)
        self.write("t/big", big)
        self.write("t/empty")
        self.write("t/sub/x", b"x")
        os.symlink("big", self.path("t/link"))
        os.setxattr(self.path("t/big"), "user.b", b"\x00two")
        os.setxattr(self.path("t/big"), "user.a", b"one")
        manifest, _, _ = self.create(self.path("t"), "--inclusive")

        self.assertEqual(sorted(manifest), ["/", "/big", "/empty", "/link", "/sub", "/sub/x"])
        self.assertEqual(list(manifest)[-1], "/")
        for path, record in manifest.items():
            self.assertEqual(list(record), KEYS, path)
        big_record = manifest["/big"]
        self.assertEqual(big_record["QLXManifestFileHash"], hashlib.sha1(big).digest())
        self.assertEqual(big_record["QLXManifestFileAttributes"]["FileType"], "Regular")
        self.assertEqual(big_record["QLXManifestFileAttributes"]["FileSize"], len(big))
        self.assertEqual(big_record["QLXManifestFileExtendedAttributes"],
                         {"user.a": b"one", "user.b": b"\x00two"})
        self.assertEqual(list(big_record["QLXManifestFileExtendedAttributes"]),
                         os.listxattr(self.path("t/big")))
        self.assertEqual(manifest["/empty"]["QLXManifestFileHash"], hashlib.sha1(b"").digest())
        self.assertEqual(manifest["/sub"]["QLXManifestFileHash"], b"")
        self.assertEqual(manifest["/link"]["QLXManifestFileHash"], b"")
        self.assertEqual(manifest["/link"]["QLXManifestSymbolicLinkTargetFile"], "big")
        self.assertEqual(manifest["/sub"]["QLXManifestFileExtendedAttributes"], {})
        self.assertEqual(manifest["/"]["QLXManifestFileAttributes"]["FileType"], "Directory")

    def test_streamed_and_whole_encodings_hold_the_same_entries(self):
        # Written to a file, records are streamed as the walk collects them;
        # to standard output the whole manifest is encoded at the end.
        for i in range(300):
            self.write("t/d%d/f%03d" % (i % 7, i), os.urandom(i * 3))
            if i % 50 == 0:
                os.setxattr(self.path("t/d%d/f%03d" % (i % 7, i)), "user.n", b"%d" % i)
        self.write("t/d1/\u00e9t\u00e9", b"utf-16 in the file")
        os.symlink("d1/f001", self.path("t/link"))
        streamed, out, _ = self.create(self.path("t"), "--inclusive")
        result = subprocess.run([TOOL, "create", self.path("t"), "--inclusive", "-o", "-"],
                                capture_output=True)
        self.assertEqual(result.returncode, 0, result.stderr)
        at_end = plistlib.loads(result.stdout)
        self.assertEqual(list(streamed), list(at_end))
        self.assertEqual(streamed, at_end)
        self.assertEqual(len(streamed), 300 + 7 + 1 + 1 + 1)
        # Nothing but the manifest is left beside it.
        self.assertEqual(sorted(n for n in os.listdir(self.dir) if n.startswith(".")), [])

    def test_a_data_area_is_relative_to_its_parent(self):
        self.write("private/var/mobile/Media/photo", b"jpg")
        self.write("private/var/mobile/Containers/app/data", b"secret")
        self.write("private/var/mobile/ContainersX/kept")
        base = self.path("private")
        manifest, _, _ = self.create(
            self.path("private/var"), "--relative-to", base, "--inclusive",
            "--skip", self.path("private/var/mobile/Containers"))
        self.assertEqual(list(manifest), [
            "/var/mobile", "/var/mobile/ContainersX", "/var/mobile/ContainersX/kept",
            "/var/mobile/Media", "/var/mobile/Media/photo", "/var"])

    def test_special_files_are_logged_and_left_out(self):
        self.write("t/a")
        os.mkfifo(self.path("t/fifo"))
        server = socket.socket(socket.AF_UNIX)
        server.bind(self.path("t/sock"))
        server.close()
        manifest, _, log = self.create(self.path("t"))
        self.assertEqual(list(manifest), ["/a"])
        self.assertIn(self.path("t/fifo") + " is special file. Leave it along", log)
        self.assertIn(self.path("t/sock") + " is special file. Leave it along", log)

    @unittest.skipUnless(os.geteuid() == 0, "needs root to act as another user")
    def test_an_unreadable_file_still_gets_a_record(self):
        locked = self.write("t/locked", b"secret")
        self.write("t/open", b"o")
        os.chmod(locked, 0)
        os.mkdir(self.path("out"), 0o777)
        os.chmod(self.path("out"), 0o777)
        out = self.path("out/manifest.plist")
        result = run("create", self.path("t"), "-o", out, user=65534)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("Cannot read file " + locked, result.stderr)
        self.assertIn("Maybe it's an Skylet file (" + locked + ")?", result.stderr)
        with open(out, "rb") as f:
            manifest = plistlib.load(f)
        self.assertEqual(manifest["/locked"]["QLXManifestFileHash"], b"")
        self.assertEqual(manifest["/open"]["QLXManifestFileHash"], hashlib.sha1(b"o").digest())

    def test_progress_rises_to_above_a_hundred(self):
        for i in range(20):
            self.write("t/d%d/f" % (i % 4), os.urandom(1000 * (i + 1)))
        _, _, log = self.create(self.path("t"), "--progress", "--inclusive")
        sent = [int(line.split()[1]) for line in log.splitlines() if line.startswith("Progress:")]
        self.assertTrue(sent)
        self.assertEqual(sent, sorted(set(sent)))
        self.assertGreater(sent[-1], 100)

    def test_bad_arguments_and_missing_files_are_trouble(self):
        self.assertEqual(run("create", self.path("x")).returncode, 2)
        self.assertEqual(run("frobnicate").returncode, 2)
        self.assertEqual(run("show", self.path("none.plist")).returncode, 2)
        not_a_manifest = self.write("list.plist", plistlib.dumps([1, 2]))
        self.assertEqual(run("diff", not_a_manifest, not_a_manifest).returncode, 2)


class ShowAndDiffTest(ToolTest):
    def test_show_lists_every_entry_as_text(self):
        self.write("t/a", b"hello\n")
        os.symlink("a", self.path("t/link"))
        os.setxattr(self.path("t/a"), "user.k", b"val")
        _, out, _ = self.create(self.path("t"))
        shown = run("show", out)
        self.assertEqual(shown.returncode, 0, shown.stderr)
        lines = shown.stdout.splitlines()
        self.assertTrue(lines[0].startswith("/a  Regular  0644"), lines[0])
        self.assertIn("sha1=f572d396fae9206628714fb2ce00f72e94f2258f", lines[0])
        self.assertEqual(lines[1], "    user.k = 0x76616c")
        self.assertTrue(lines[2].startswith("/link  SymbolicLink") and lines[2].endswith("-> a"))

    def test_diff_names_each_difference_by_its_comparison_code(self):
        self.write("t/content", b"one")
        self.write("t/mode")
        self.write("t/xattr")
        self.write("t/gone")
        self.write("t/kind")
        self.write("t/same")
        os.symlink("x", self.path("t/link"))
        _, before, _ = self.create(self.path("t"))
        self.assertEqual(run("diff", before, before).returncode, 0)

        self.write("t/content", b"two")
        os.chmod(self.path("t/mode"), 0o600)
        os.setxattr(self.path("t/xattr"), "user.new", b"1")
        os.remove(self.path("t/gone"))
        os.remove(self.path("t/kind"))
        os.mkdir(self.path("t/kind"))
        os.remove(self.path("t/link"))
        os.symlink("y", self.path("t/link"))
        self.write("t/added")
        os.utime(self.path("t/same"), (0, 0))
        _, after, _ = self.create(self.path("t"))

        result = run("diff", before, after)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertEqual(result.stdout.splitlines(), [
            "+ /added: 0 only in " + after,
            "! /content: 2 contents differ",
            "- /gone: 0 only in " + before,
            "! /kind: 1 file type differs",
            "! /link: 3 link target differs",
            "! /mode: 4 owner, group or permissions differ",
            "! /xattr: 5 extended attributes differ",
        ])


if __name__ == "__main__":
    TOOL = os.path.abspath(sys.argv.pop(1))
    unittest.main()
