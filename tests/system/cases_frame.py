"""The service frame end to end: start-up lines, who is served, how requests
of one message are answered, and how the daemon ends."""
import os
import plistlib
import shutil
import socket
import time

from harness import (DAEMON, HELPER, LOG_FOLDER, SOCKET, VEXDCTL, WORK, Blob, case,
                     console_text, ctl, entering, expect, expect_equal, expect_pass,
                     expect_silence, frame, python_entitled, raw_exchange, remove)

GRANTS = "/etc/ovix/entitlements.d"
ENTITLEMENT = "com.velmor.private.quillex.quillexd"
HAS_ENTITLEMENT = "-[QLXHMessageResponder hasEntitlementQuillexd]"
NOT_ENTITLED = "The client does not have proper entitlement"


def client_copy(name, grant=None, grant_mode=0o644):
    """A copy of vexdctl at its own path, granted the entitlement with the
    given value (or not at all)."""
    program = f"/usr/local/bin/{name}"
    shutil.copy(VEXDCTL, program)
    os.chmod(program, 0o755)
    if grant is not None:
        path = f"{GRANTS}/{name}.plist"
        with open(path, "wb") as f:
            plistlib.dump({"Program": program, "Entitlements": {ENTITLEMENT: grant}}, f)
        os.chmod(path, grant_mode)
    return program


def expect_refused(log, program, target):
    """An unserved client: no reply at all, nothing done, the daemon serving on."""
    reply = ctl("prepareWorkContainer:", target, program=program, timeout=2)
    expect_silence(reply)
    expect(not os.path.exists(target), f"{target} was made for a client that is not entitled")
    log.expect(NOT_ENTITLED)
    expect(DAEMON.running(), "the daemon stopped after an unentitled request")
    expect_pass(ctl("removeWorkContainer:", target, log=log))


@case("frame", needs_daemon=False)
def start_line_reaches_console_only():
    DAEMON.terminate()
    DAEMON.start()
    started = f"{HELPER} started"
    expect(started in console_text().splitlines(), f"the console lacks {started!r}")
    expect(os.path.basename(DAEMON.log_file) in os.listdir(LOG_FOLDER),
           f"no daily log file {DAEMON.log_file}")
    with open(DAEMON.log_file) as f:
        expect(started not in f.read(), f"{started!r} reached the daily log file")


@case("frame")
def entitled_client_is_served_and_logged(log):
    target = "/private/var/frame-entitled"
    expect_pass(ctl("prepareWorkContainer:", target, log=log))
    log.expect(entering("prepareWorkContainer:", target))
    expect(os.path.isdir(target), f"{target} was not made")
    for expected in ("It's an OVIX_TYPE_CONNECTION", "Start to deal with new connection",
                     "Received an Ovix request?", "QLXH: Received a Ovix request",
                     "Message handled", "Ovix disconnected by client"):
        log.wait_for(lambda m, e=expected: m == e, 5, repr(expected))
    remove(target)


@case("frame")
def client_without_grant_gets_silence(log):
    program = client_copy("vexdctl-ungranted")
    expect_refused(log, program, "/private/var/frame-ungranted")
    log.expect(f"{HAS_ENTITLEMENT}: No data received.")


@case("frame")
def grant_with_false_value_gets_silence(log):
    program = client_copy("vexdctl-false-grant", grant=False)
    expect_refused(log, program, "/private/var/frame-false")
    expect(not any(m.startswith(HAS_ENTITLEMENT) for m in log.messages()),
           "a false grant should log only the refusal")


@case("frame")
def grant_with_text_value_is_format_error(log):
    program = client_copy("vexdctl-text-grant", grant="YES")
    expect_refused(log, program, "/private/var/frame-text")
    log.expect(f"{HAS_ENTITLEMENT}: format not correct: YES")


@case("frame")
def grant_writable_by_group_does_not_count(log):
    program = client_copy("vexdctl-loose-grant", grant=True, grant_mode=0o664)
    expect_refused(log, program, "/private/var/frame-loose")


@case("frame")
def unknown_key_stops_without_reply(log):
    target = "/private/var/frame-after-unknown"
    reply = ctl(message={"noSuchRequest:": True, "prepareWorkContainer:": target}, timeout=2)
    expect_silence(reply)
    log.expect("QLXHMessageResponder does not respond to noSuchRequest:.")
    expect(not os.path.exists(target), "a key after the unknown one was served")


@case("frame")
def two_keys_get_two_replies_in_order(log):
    target = "/private/var/frame-two-keys"
    reply = ctl(message={"prepareWorkContainer:": target, "removeWorkContainer:": target},
                log=log)
    expect_equal(reply.responses, ["pass", "pass"], "replies")
    expect_equal(reply.code, 0, "vexdctl exit status")
    expect(not os.path.exists(target), f"{target} was made but not removed again")
    made = log.messages().index(entering("prepareWorkContainer:", target))
    removed = log.messages().index(entering("removeWorkContainer:", target))
    expect(made < removed, "the keys were not served in the order written")


@case("frame")
def empty_message_gets_no_reply(log):
    with python_entitled():
        replies = raw_exchange(frame({}))
    expect_equal(replies, [], "replies to an empty message")
    log.wait_for(lambda m: m == "Message handled", 5, "the handled message")
    expect(DAEMON.running(), "the daemon stopped after an empty message")


@case("frame")
def unsupported_values_are_dropped_and_siblings_served(log):
    target = "/private/var/frame-dropped"
    os.makedirs(target, exist_ok=True)
    message = {"prepareWorkContainer:": ["an array"], "removeWorkContainer:": target,
               "writeNvram:": {"Name": Blob(b"data"), "Value": "x"}}
    with python_entitled():
        replies = raw_exchange(frame(message))
    log.expect("The value for key prepareWorkContainer: has a type that is not supported yet")
    log.expect("The value for key Name has a type that is not supported yet")
    expect_equal(replies[:1], [{"Response": True}], "the reply to the surviving removal")
    expect(not os.path.exists(target), "the key beside a dropped one was not served")
    # The nested dictionary lost only its data value: the write had no name.
    log.expect(entering("writeNvram:", {"Value": "x"}))


@case("frame")
def broken_frame_ends_only_its_connection(log):
    with python_entitled():
        expect_equal(raw_exchange(b"OVXG" + frame({})[4:]), [], "replies to a wrong magic")
        expect_equal(raw_exchange(frame({"removeWorkContainer:": "/private/var/none"})),
                     [{"Response": True}], "replies on a new connection after a broken one")
    expect(DAEMON.running(), "the daemon stopped on a broken frame")


@case("frame")
def client_that_only_connects_is_noted(log):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(SOCKET)
    # The previous case's client may be noted leaving after this case began:
    # only a disconnect after this connection's start counts.
    def noted():
        messages = log.messages()
        start = "Start to deal with new connection"
        return start in messages and "Ovix disconnected by client" in messages[
            messages.index(start):]
    log.wait_for(lambda m: noted(), 5, "this connection's start and then its disconnect")
    expect(DAEMON.running(), "the daemon stopped after a silent client")


@case("frame")
def no_daemon_means_cannot_connect(log):
    DAEMON.terminate()
    reply = ctl("prepareWorkContainer:", WORK, timeout=2)
    expect_equal(reply.code, 3, "vexdctl exit status without a daemon")
    expect(reply.err.strip() != "", "vexdctl said nothing about the failed connection")


@case("frame")
def quit_ends_with_status_zero_and_no_reply(log):
    reply = ctl("quitHelper:", timeout=3, log=log)
    expect_silence(reply)
    expect_equal(DAEMON.wait_exit(), 0, "exit status after quitHelper:")
    log.expect(entering("quitHelper:", True))


@case("frame")
def terminate_signal_ends_with_status_zero(log):
    DAEMON.proc.terminate()
    expect_equal(DAEMON.wait_exit(), 0, "exit status after SIGTERM")
    log.wait_for(lambda m: m == "Ovix connection will be closed", 2, "the closing line")


@case("frame")
def stale_socket_is_replaced_at_start(log):
    DAEMON.kill()
    expect(os.path.exists(SOCKET), "the killed daemon left no socket file to replace")
    DAEMON.start()
    expect_pass(ctl("removeWorkContainer:", "/private/var/frame-none", log=log))


@case("frame")
def log_lines_carry_utc_stamp(log):
    ctl("removeWorkContainer:", "/private/var/frame-none", log=log)
    text = log.text()
    expect(text, "nothing was written to the daily log file")
    first = text.splitlines()[0]
    stamp = time.strftime("%Y-%m-%d", time.gmtime())
    expect(first.startswith(stamp) and first[19:26] == " +0000 ",
           f"log line {first!r} does not start with a UTC time stamp")
