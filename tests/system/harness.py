"""What the system tests use inside the device sandbox: the daemon they start
and stop themselves, vexdctl runs, the daily log file read message by message,
and the case registry with its pass/fail/skip bookkeeping."""
import contextlib
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import time
import traceback

SERVICE = "com.velmor.quillexdhelper"
SOCKET = f"/run/ovix/{SERVICE}"
LOG_FOLDER = "/private/var/logs/vexd"
CONSOLE = "/run/vexd-sandbox/console.log"
HELPER = os.environ.get("VEXD_HELPER", "")
VEXDCTL = os.environ.get("VEXDCTL", "")
STORAGE = os.environ.get("VEXD_STORAGE") == "1"
STORAGE_REASON = os.environ.get("VEXD_STORAGE_REASON", "")
# Only a machine without loop devices or btrfs excuses the storage cases.
STORAGE_LACKING = os.environ.get("VEXD_STORAGE_LACKING") == "1"
SIGNING = os.environ.get("VEXD_SIGNING_DIR", "/etc/vexd-sandbox/signing")
PROJECT = os.environ.get("VEXD_PROJECT_DIR", "")
WORK = "/private/var/QLXWorkContainer"
DEVICE_MANIFEST = f"{WORK}/DeviceManifest.plist"
RESPONDER = "-[QLXHMessageResponder {}]"


class Failure(AssertionError):
    pass


class Skip(Exception):
    pass


def expect(condition, message):
    if not condition:
        raise Failure(message)


def expect_equal(actual, expected, what):
    if actual != expected:
        raise Failure(f"{what}: expected {expected!r}, got {actual!r}")


# --- the daemon -----------------------------------------------------------

class Daemon:
    """vexd_helper as this test run's own child, so its exit status is known."""

    def __init__(self):
        self.proc = None
        self.log_file = None

    def start(self, wrapper=()):
        """wrapper: a command line the daemon runs under (strace, for one)."""
        if not os.access(HELPER, os.X_OK):
            raise Failure(f"vexd_helper is not built ({HELPER})")
        stale = _socket_identity()
        console = open(CONSOLE, "ab")
        self.proc = subprocess.Popen([*wrapper, HELPER], stdin=subprocess.DEVNULL, stdout=console,
                                     stderr=console, cwd="/")
        console.close()
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise Failure(f"vexd_helper exited at start with status {self.proc.returncode}:"
                              f" {console_tail()}")
            # A new socket file, not a dead daemon's; waiting for it rather than
            # connecting keeps test connections out of the log.
            current = _socket_identity()
            if current is not None and current != stale:
                time.sleep(0.1)  # from bind to listen
                # The file is fixed at start: the local day the daemon began.
                self.log_file = f"{LOG_FOLDER}/vexd_helper-{time.strftime('%Y%m%d')}.log"
                return
            time.sleep(0.05)
        raise Failure(f"vexd_helper does not listen on {SOCKET} after 10 s")

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def ensure(self):
        if not self.running():
            self.start()

    def wait_exit(self, timeout=10):
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise Failure(f"vexd_helper still runs {timeout} s later")

    def terminate(self):
        if self.running():
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()

    def kill(self):
        self.proc.kill()
        self.proc.wait()


def _socket_identity():
    try:
        st = os.stat(SOCKET)
    except FileNotFoundError:
        return None
    return st.st_ino, st.st_ctime_ns


def console_tail(lines=5):
    try:
        with open(CONSOLE, errors="replace") as f:
            return " | ".join(f.read().splitlines()[-lines:])
    except OSError:
        return "(no console output)"


def console_text():
    with open(CONSOLE, errors="replace") as f:
        return f.read()


DAEMON = Daemon()


# --- the daily log file -----------------------------------------------------

STAMP = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000 ", re.M)


class Log:
    """The daemon's daily log file from a mark on, split into messages (a
    message may span lines: dictionaries print over several)."""

    def __init__(self, path):
        self.path = path
        self.start = os.path.getsize(path) if os.path.exists(path) else 0

    def text(self):
        try:
            with open(self.path, "rb") as f:
                f.seek(self.start)
                return f.read().decode(errors="replace")
        except FileNotFoundError:
            return ""

    def messages(self):
        text = self.text()
        starts = [m.start() for m in STAMP.finditer(text)]
        out = []
        for i, s in enumerate(starts):
            end = starts[i + 1] if i + 1 < len(starts) else len(text)
            body = text[s:end]
            out.append(STAMP.sub("", body, count=1).removesuffix("\n"))
        return out

    def has(self, message):
        return message in self.messages()

    def expect(self, message):
        if message not in self.messages():
            raise Failure(f"log lacks {message!r}; it has: {self.summary()}")

    def expect_prefix(self, prefix):
        if not any(m.startswith(prefix) for m in self.messages()):
            raise Failure(f"log lacks a message starting {prefix!r}; it has: {self.summary()}")

    def expect_absent(self, message):
        if message in self.messages():
            raise Failure(f"log should not have {message!r}")

    def wait_for(self, predicate, timeout, what):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for m in self.messages():
                if predicate(m):
                    return m
            time.sleep(0.05)
        raise Failure(f"no {what} in the log after {timeout} s; it has: {self.summary()}")

    def summary(self, last=8):
        return " | ".join(m.replace("\n", " ") for m in self.messages()[-last:]) or "(nothing)"


def entering(handler, parameter):
    return f"Entering {RESPONDER.format(handler)} with parameter: {describe(parameter)}"


def describe(value, indent=0):
    """A value as "%@" prints it: strings bare at the top, containers in the
    old-style property-list form."""
    pad = "    "
    if isinstance(value, bool):
        return "1" if value else "0"
    if isinstance(value, int):
        return str(value)
    if isinstance(value, str):
        if indent == 0 or re.fullmatch(r"[A-Za-z0-9_./$:-]+", value):
            return value
        return '"' + value.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n") + '"'
    if isinstance(value, dict):
        lines = ["{"]
        for k, v in value.items():
            lines.append(f"{pad * (indent + 1)}{describe(k, indent + 1)} = "
                         f"{describe(v, indent + 1)};")
        return "\n".join(lines + [pad * indent + "}"])
    raise TypeError(value)


# --- vexdctl ----------------------------------------------------------------

class Reply:
    def __init__(self, proc, request):
        self.code = proc.returncode
        self.out = proc.stdout
        self.err = proc.stderr
        self.request = request
        lines = self.out.splitlines()
        self.responses = [line.split()[1] for line in lines if line.startswith("Response ")]
        self.progress = [int(line.split()[1]) for line in lines if line.startswith("Progress ")]

    def __repr__(self):
        return f"exit {self.code}, output {self.out.strip()!r}, errors {self.err.strip()!r}"


def ctl(request=None, parameter=None, *, message=None, timeout=10, program=None, log=None,
        user=None):
    """Runs vexdctl once (as root, or as the account user names). A request
    the daemon does not serve yet shows as such."""
    args = [program or VEXDCTL, "--timeout", str(timeout)]
    if message is not None:
        args += ["--message", json.dumps(message)]
    else:
        args.append(request)
        if parameter is not None:
            args.append(json.dumps(parameter))
    if not os.access(args[0], os.X_OK):
        raise Failure(f"vexdctl is not built ({args[0]})")
    if user is not None:
        import pwd
        entry = pwd.getpwnam(user)
        args = ["setpriv", f"--reuid={entry.pw_uid}", f"--regid={entry.pw_gid}",
                "--init-groups"] + args
    proc = subprocess.run(args, capture_output=True, text=True, timeout=timeout + 60)
    reply = Reply(proc, request)
    if log is not None and reply.code == 2:
        for key in ([request] if message is None else list(message)):
            unknown = f"QLXHMessageResponder does not respond to {key}."
            if log.has(unknown):
                raise Failure(f"this daemon does not serve {key} yet ({unknown!r})")
    return reply


def expect_pass(reply):
    if reply.code != 0 or reply.responses != ["pass"] * len(reply.responses) or not reply.responses:
        raise Failure(f"expected a pass reply to {reply.request}: {reply!r}")


def expect_fail(reply):
    if reply.code != 1 or "fail" not in reply.responses:
        raise Failure(f"expected a fail reply to {reply.request}: {reply!r}")


def expect_silence(reply):
    if reply.code != 2 or reply.responses:
        raise Failure(f"expected no reply to {reply.request}: {reply!r}")


# --- a raw Ovix client, for messages vexdctl will not send ------------------

class Blob(bytes):
    """A data value on the wire."""


def _encode_value(value):
    if isinstance(value, bool):
        return b"\x01" + bytes([value])
    if isinstance(value, int):
        return b"\x02" + struct.pack("<q", value)
    if isinstance(value, str):
        raw = value.encode()
        return b"\x05" + struct.pack("<I", len(raw)) + raw
    if isinstance(value, Blob):
        return b"\x06" + struct.pack("<I", len(value)) + bytes(value)
    if isinstance(value, list):
        return b"\x09" + struct.pack("<I", len(value)) + b"".join(map(_encode_value, value))
    if isinstance(value, dict):
        return b"\x0a" + _encode_body(value)
    raise TypeError(value)


def _encode_body(dictionary):
    out = struct.pack("<I", len(dictionary))
    for key, value in dictionary.items():
        raw = key.encode()
        out += struct.pack("<I", len(raw)) + raw + _encode_value(value)
    return out


def frame(dictionary):
    body = _encode_body(dictionary)
    return b"OVXF" + struct.pack("<HHI", 1, 0, len(body)) + body


def _decode_reply(payload):
    """The service's replies: one key, a boolean or an integer."""
    (count,) = struct.unpack_from("<I", payload, 0)
    expect(count == 1, f"a reply with {count} keys")
    (length,) = struct.unpack_from("<I", payload, 4)
    key = payload[8:8 + length].decode()
    tag, rest = payload[8 + length], payload[9 + length:]
    return {key: bool(rest[0]) if tag == 1 else struct.unpack("<q", rest[:8])[0]}


def raw_exchange(data, wait=2.0):
    """Sends raw bytes as a client and collects the replies until the
    service is silent for wait seconds or hangs up."""
    replies = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(SOCKET)
        s.sendall(data)
        s.settimeout(wait)
        buffer = b""
        try:
            while True:
                chunk = s.recv(65536)
                if not chunk:
                    break
                buffer += chunk
                while len(buffer) >= 12:
                    (length,) = struct.unpack_from("<I", buffer, 8)
                    if len(buffer) < 12 + length:
                        break
                    replies.append(_decode_reply(buffer[12:12 + length]))
                    buffer = buffer[12 + length:]
        except socket.timeout:
            pass
    return replies


@contextlib.contextmanager
def python_entitled():
    """This interpreter, run as root, granted the entitlement for a while, so
    that a test can speak the wire format itself."""
    import plistlib
    path = "/etc/ovix/entitlements.d/zz-system-test-python.plist"
    with open(path, "wb") as f:
        plistlib.dump({"Program": os.path.realpath(sys.executable),
                       "Entitlements": {"com.velmor.private.quillex.quillexd": True},
                       "Users": ["root"]}, f)
    os.chmod(path, 0o644)
    try:
        yield
    finally:
        os.unlink(path)


# --- the device -------------------------------------------------------------

def mobile_ids():
    import pwd
    entry = pwd.getpwnam("mobile")
    return entry.pw_uid, entry.pw_gid


def owner_of(path):
    import grp
    import pwd
    st = os.lstat(path)
    return pwd.getpwuid(st.st_uid).pw_name, grp.getgrgid(st.st_gid).gr_name


def mode_of(path):
    return os.lstat(path).st_mode & 0o7777


def write(path, data=b"", mode=None):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())
    if mode is not None:
        os.chmod(path, mode)


def remove(path):
    if os.path.islink(path) or os.path.isfile(path):
        os.unlink(path)
    elif os.path.isdir(path):
        subprocess.run(["chattr", "-R", "-i", path], capture_output=True)
        subprocess.run(["rm", "-rf", path], check=True)


def prepare_work_container():
    """The work container as the demo daemon prepares it before a manifest."""
    os.makedirs(WORK, exist_ok=True)
    os.chmod(WORK, 0o777)


# --- cases --------------------------------------------------------------------

CASES = []


def case(group, needs_storage=False, needs_daemon=True):
    def register(fn):
        CASES.append((group, fn.__name__, fn, needs_storage, needs_daemon))
        return fn
    return register


def run_group(group):
    passed = failed = skipped = 0
    for g, name, fn, needs_storage, needs_daemon in CASES:
        if g != group:
            continue
        label = f"{group}.{name}"
        try:
            if needs_storage and not STORAGE:
                if STORAGE_LACKING:
                    raise Skip(f"loop devices or btrfs are unavailable ({STORAGE_REASON})")
                raise Failure(f"the device has no data disk: {STORAGE_REASON}")
            log = None
            if needs_daemon:
                DAEMON.ensure()
                log = Log(DAEMON.log_file)
            fn(log) if needs_daemon else fn()
            print(f"@result PASS {label}", flush=True)
            passed += 1
        except Skip as e:
            print(f"@result SKIP {label}: {e}", flush=True)
            skipped += 1
        except Failure as e:
            print(f"@result FAIL {label}: {e}", flush=True)
            failed += 1
        except Exception:
            detail = traceback.format_exc().strip().replace("\n", "\n    ")
            print(f"@result FAIL {label}: unexpected error\n    {detail}", flush=True)
            failed += 1
    DAEMON.terminate()
    return passed, failed, skipped


@contextlib.contextmanager
def secure_boot(value):
    """The Secure Boot variable set to value (None: absent) for a while."""
    path = "/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c"
    with open(path, "rb") as f:
        saved = f.read()
    if value is None:
        os.unlink(path)
    else:
        with open(path, "wb") as f:
            f.write(b"\x07\x00\x00\x00" + bytes([value]))
    try:
        yield
    finally:
        with open(path, "wb") as f:
            f.write(saved)


def main_inside(modules):
    group = sys.argv[1]
    for module in modules:
        __import__(module)
    if not any(g == group for g, *_ in CASES):
        print(f"no system test group {group!r}", file=sys.stderr)
        return 2
    passed, failed, skipped = run_group(group)
    return 1 if failed else 0
