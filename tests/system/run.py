#!/usr/bin/env python3
"""System tests of vexd_helper: the real daemon and vexdctl on a throw-away
device (scripts/device-sandbox), one group of scenarios per run.

    run.py GROUP [--build-dir DIR]

Every case prints PASS, FAIL or SKIP; the last line is "N passed, N failed".
Exit status: 0 all passed, 1 some failed, 77 skipped (not root, or no mount
and PID namespaces here). Whatever the outcome, the host is checked for
anything the device left behind."""
import argparse
import hashlib
import os
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PROJECT = os.path.dirname(os.path.dirname(HERE))
SANDBOX = os.path.join(PROJECT, "scripts", "device-sandbox")
INSIDE_GROUPS = ("frame", "containers", "manifest", "restore", "nvram", "storage", "faults",
                 "attack")
GROUPS = INSIDE_GROUPS + ("device",)
SKIPPED = 77
GROUP_TIMEOUT = 600
WATCHED = ("/private", "/var/backup", "/run/ovix", "/etc/ovix", "/usr/share/velmor",
           "/sys/firmware/efi")


# --- what the host looks like ---------------------------------------------------

def listing(root):
    if not os.path.lexists(root):
        return None
    found = {root}
    for folder, dirs, files in os.walk(root):
        found.update(os.path.join(folder, n) for n in dirs + files)
    return found


def digest(path):
    try:
        with open(path, "rb") as f:
            return hashlib.sha256(f.read()).hexdigest()
    except OSError:
        return None


def loop_backing():
    backing = {}
    for name in os.listdir("/sys/block"):
        try:
            with open(f"/sys/block/{name}/loop/backing_file") as f:
                backing[name] = f.read().strip()
        except OSError:
            pass
    return backing


class HostState:
    """The host as far as this run's devices could change it. Other devices
    (other runs on the same machine) live in their own namespaces and their
    own temporary folders, so they do not show here."""

    def __init__(self, scratch):
        with open("/proc/self/mountinfo") as f:
            self.mounts = {" ".join(line.split()[4:5] + line.split(" - ")[1].split()[:2])
                           for line in f}
        self.loops = loop_backing()
        self.accounts = {p: digest(p) for p in ("/etc/passwd", "/etc/group", "/etc/shadow")}
        self.files = {p: listing(p) for p in WATCHED}
        self.scratch = scratch
        self.sandboxes = set(os.listdir(scratch))
        with open("/proc/1/stat") as f:
            stat = f.read()
        self.init = stat[stat.rindex(")") + 2:].split()[19]  # its start time

    def left_behind(self, before):
        found = []
        for m in sorted(self.mounts - before.mounts):
            if "vexd-sandbox" in m or any(w in m.split()[0] for w in WATCHED):
                found.append(f"new mount {m}")
        for name, backing in sorted(self.loops.items()):
            if backing.startswith(self.scratch + "/"):
                found.append(f"loop device /dev/{name} still holds {backing}")
        for path, value in self.accounts.items():
            if value != before.accounts[path]:
                found.append(f"{path} changed")
        for path, names in self.files.items():
            new = (names or set()) - (before.files[path] or set())
            if new:
                found.append(f"new under {path}: {', '.join(sorted(new)[:5])}")
        for name in sorted(self.sandboxes - before.sandboxes):
            found.append(f"{self.scratch}/{name} was not removed")
        if self.init != before.init:
            found.append("the host's init process changed")
        return found


# --- running devices ------------------------------------------------------------

SCRATCH = None  # this run's folder for its devices' state


def sandbox(build_dir, command, *options, console=None, timeout=GROUP_TIMEOUT):
    """Runs command on a fresh device; ends it with TERM (so it tears down) on timeout."""
    args = [SANDBOX, "--build-dir", build_dir, *options]
    if console:
        args += ["--console", console]
    proc = subprocess.Popen(args + ["--", *command], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True,
                            env=dict(os.environ, TMPDIR=SCRATCH))
    try:
        out, err = proc.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        proc.terminate()
        out, err = proc.communicate(timeout=60)
        err += f"\n(the device was stopped after {timeout} s)"
    return proc.returncode, out, err


class Results:
    def __init__(self):
        self.passed = self.failed = self.skipped = 0

    def record(self, status, label, detail=""):
        print(f"{status} {label}" + (f": {detail}" if detail else ""), flush=True)
        if status == "PASS":
            self.passed += 1
        elif status == "SKIP":
            self.skipped += 1
        else:
            self.failed += 1

    def check(self, label, problems):
        self.record("FAIL" if problems else "PASS", label, "; ".join(problems))


def run_inside(group, build_dir, results, console):
    inside = os.path.join(HERE, "inside.py")
    code, out, err = sandbox(build_dir, ["/usr/bin/python3", inside, group], "--no-daemon",
                             console=console)
    seen = 0
    for line in out.splitlines():
        if line.startswith("@result "):
            status, rest = line[len("@result "):].split(" ", 1)
            label, _, detail = rest.partition(": ")
            results.record(status, label, detail)
            seen += 1
        else:
            print(line)
    for line in err.splitlines():
        if line.startswith("device-sandbox: ") or seen == 0:
            print(line)
    if code not in (0, 1) or seen == 0:
        results.record("FAIL", f"{group}.device", f"the device ended with status {code}")


def run_device_cases(build_dir, results, console):
    """Cases about the device itself: its own daemon, its reboot, its fallback."""
    code, out, err = sandbox(build_dir, ["vexdctl", "removeWorkContainer:", '"/private/var/none"'],
                             console=console, timeout=120)
    results.check("device.serves_its_client_from_start", [] if code == 0 and "Response pass" in out
                  else [f"status {code}, output {out.strip()!r}, errors {err.strip()[-300:]!r}"])

    script = 'vexdctl --timeout 10 reboot:; echo "vexdctl exited with $?"'
    code, out, err = sandbox(build_dir, ["/bin/sh", "-c", script], console=console, timeout=120)
    problems = []
    if code != 129:
        problems.append(f"the device ended with status {code}, not 129")
    if "Response" in out or "vexdctl exited" in out:
        problems.append(f"the client went on after the reboot: {out.strip()!r}")
    if "the device rebooted" not in err:
        problems.append("the sandbox did not say the device rebooted")
    with open(console, errors="replace") as f:
        if "Entering -[QLXHMessageResponder reboot:] with parameter: 1" not in f.read():
            problems.append("the console lacks the reboot request's entry line")
    results.check("device.reboot_ends_device_without_reply", problems)

    script = ("findmnt -n -o FSTYPE /private/var; [ -e /dev/rdisk0s1 ] || echo no-disk; "
              "vexdctl shrinkDataPartition:")
    code, out, err = sandbox(build_dir, ["/bin/sh", "-c", script], "--no-storage",
                             console=console, timeout=120)
    problems = []
    if out.split()[:2] != ["tmpfs", "no-disk"]:
        problems.append(f"/private/var is not a tmpfs without a disk: {out.strip()!r}")
    if "storage requests (shrinkDataPartition:, expandDataPartition:) are unavailable" not in err:
        problems.append("the sandbox did not say that storage requests are unavailable")
    if code != 1 or "Response fail" not in out:
        problems.append(f"a shrink without a disk did not fail: status {code}, {out.strip()!r}")
    results.check("device.without_storage_uses_tmpfs", problems)


def skip(reason):
    print(f"SKIP: {reason}")
    print("0 passed, 0 failed")
    sys.exit(SKIPPED)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("group", choices=GROUPS)
    parser.add_argument("--build-dir", default=os.path.join(PROJECT, "build"))
    args = parser.parse_args()
    build_dir = os.path.abspath(args.build_dir)

    if os.geteuid() != 0:
        skip("the system tests need root (they build a device with namespaces, mounts "
             "and a loop disk)")
    if subprocess.run(["unshare", "--mount", "--pid", "--fork", "true"],
                      capture_output=True).returncode != 0:
        skip("mount and PID namespaces are not available here")
    for binary in ("vexd_helper", "vexdctl"):
        if not os.access(os.path.join(build_dir, "bin", binary), os.X_OK):
            print(f"note: {build_dir}/bin/{binary} is not built; its cases fail")

    global SCRATCH
    SCRATCH = tempfile.mkdtemp(prefix="vexd-system.")
    before = HostState(SCRATCH)
    results = Results()
    started = time.monotonic()
    with tempfile.NamedTemporaryFile(prefix="vexd-system-console.", suffix=".log") as console:
        if args.group == "device":
            run_device_cases(build_dir, results, console.name)
        else:
            run_inside(args.group, build_dir, results, console.name)
        if results.failed:
            with open(console.name, errors="replace") as f:
                tail = f.read().splitlines()[-25:]
            if tail:
                print("--- the daemon's console, last lines:")
                print("\n".join(tail))
    results.check(f"{args.group}.host_left_as_it_was", HostState(SCRATCH).left_behind(before))
    if not os.listdir(SCRATCH):
        os.rmdir(SCRATCH)

    print(f"({args.group}: {time.monotonic() - started:.1f} s"
          + (f", {results.skipped} skipped)" if results.skipped else ")"))
    print(f"{results.passed} passed, {results.failed} failed")
    if results.failed:
        return 1
    return SKIPPED if results.passed <= 1 and results.skipped else 0


if __name__ == "__main__":
    sys.exit(main())
