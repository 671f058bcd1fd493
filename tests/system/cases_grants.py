"""Grants limited to some accounts: the same program is served when it runs
as an account its grant names, and gets silence otherwise."""
import concurrent.futures
import os
import plistlib
import shutil

from harness import (DAEMON, VEXDCTL, case, ctl, entering, expect, expect_pass, expect_silence,
                     remove)

GRANTS = "/etc/ovix/entitlements.d"
ENTITLEMENT = "com.velmor.private.quillex.quillexd"
NO_DATA = "-[QLXHMessageResponder hasEntitlementQuillexd]: No data received."
NOT_ENTITLED = "The client does not have proper entitlement"


def granted_copy(name, **accounts):
    """A copy of vexdctl at its own path, granted the entitlement for the
    accounts given ("Users", "Groups" as the grant spells them)."""
    program = f"/usr/local/bin/{name}"
    shutil.copy(VEXDCTL, program)
    os.chmod(program, 0o755)
    path = f"{GRANTS}/{name}.plist"
    with open(path, "wb") as f:
        plistlib.dump({"Program": program, "Entitlements": {ENTITLEMENT: True}, **accounts}, f)
    os.chmod(path, 0o644)
    return program


def expect_served(log, program, user, target):
    remove(target)
    expect_pass(ctl("prepareWorkContainer:", target, program=program, user=user, log=log))
    log.expect(entering("prepareWorkContainer:", target))
    expect(os.path.isdir(target), f"{target} was not made for {user}")
    remove(target)


def expect_refused(log, attempts):
    """Each (program, user) asks for a folder of its own and gets silence:
    nothing done, the refusal logged, the daemon serving on. All at once, so
    the wait for silence is paid once."""
    targets = [f"/private/var/grant-refused-{i}" for i in range(len(attempts))]
    for target in targets:
        remove(target)
    before = log.messages().count(NOT_ENTITLED)
    with concurrent.futures.ThreadPoolExecutor(len(attempts)) as pool:
        replies = list(pool.map(
            lambda a: ctl("prepareWorkContainer:", a[1], program=a[0][0], user=a[0][1], timeout=2),
            zip(attempts, targets)))
    for (program, user), target, reply in zip(attempts, targets, replies):
        expect_silence(reply)
        expect(not os.path.exists(target), f"{program} was served as {user}, who is not entitled")
    log.wait_for(lambda m: log.messages().count(NOT_ENTITLED) >= before + len(attempts), 5,
                 "every refusal")
    log.expect(NO_DATA)
    expect(DAEMON.running(), "the daemon stopped after a refused request")


@case("frame")
def grant_for_root_does_not_serve_mobile(log):
    program = granted_copy("vexdctl-root-only", Users=["root"])
    expect_served(log, program, "root", "/private/var/grant-root-only")
    # The sandbox's own vexdctl is granted the same way.
    expect_refused(log, [(program, "mobile"), (VEXDCTL, "mobile"), (VEXDCTL, "nobody")])


@case("frame")
def grant_for_mobile_serves_mobile_only(log):
    program = granted_copy("vexdctl-mobile-only", Users=["mobile"])
    expect_served(log, program, "mobile", "/private/var/grant-mobile-only")
    expect_refused(log, [(program, "root"), (program, "nobody")])


@case("frame")
def grant_by_group_and_malformed_lists(log):
    program = granted_copy("vexdctl-mobile-group", Groups=["mobile"])
    expect_served(log, program, "mobile", "/private/var/grant-group")
    # A list that cannot be read as written voids the grant for everyone.
    one_name = granted_copy("vexdctl-one-name", Users="mobile")
    bad_entry = granted_copy("vexdctl-bad-entry", Users=["mobile", True])
    expect_refused(log, [(program, "nobody"), (one_name, "mobile"), (one_name, "root"),
                         (bad_entry, "mobile"), (bad_entry, "root")])
