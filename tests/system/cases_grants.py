"""Grants limited to some accounts: the same program is served when it runs
as an account its grant names, and gets silence otherwise."""
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


def expect_refused(log, program, user, target):
    """Silence, nothing done, the refusal logged, the daemon serving on."""
    remove(target)
    before = log.messages().count(NOT_ENTITLED)
    expect_silence(ctl("prepareWorkContainer:", target, program=program, user=user, timeout=2))
    expect(not os.path.exists(target), f"{target} was made for {user}, who is not entitled")
    log.wait_for(lambda m: log.messages().count(NOT_ENTITLED) > before, 5,
                 f"the refusal of {user}")
    log.expect(NO_DATA)
    expect(DAEMON.running(), "the daemon stopped after a refused request")


@case("frame")
def grant_for_root_does_not_serve_mobile(log):
    program = granted_copy("vexdctl-root-only", Users=["root"])
    expect_refused(log, program, "mobile", "/private/var/grant-root-only")
    expect_served(log, program, "root", "/private/var/grant-root-only")
    # The sandbox's own vexdctl is granted the same way.
    for user in ("mobile", "nobody"):
        expect_refused(log, VEXDCTL, user, f"/private/var/grant-vexdctl-{user}")


@case("frame")
def grant_for_mobile_serves_mobile_only(log):
    program = granted_copy("vexdctl-mobile-only", Users=["mobile"])
    expect_served(log, program, "mobile", "/private/var/grant-mobile-only")
    expect_refused(log, program, "root", "/private/var/grant-mobile-only")
    expect_refused(log, program, "nobody", "/private/var/grant-mobile-only")


@case("frame")
def grant_by_group_and_malformed_lists(log):
    program = granted_copy("vexdctl-mobile-group", Groups=["mobile"])
    expect_served(log, program, "mobile", "/private/var/grant-group")
    expect_refused(log, program, "nobody", "/private/var/grant-group")
    # A list that cannot be read as written voids the grant for everyone.
    for name, accounts in (("vexdctl-one-name", {"Users": "mobile"}),
                           ("vexdctl-bad-entry", {"Users": ["mobile", True]})):
        program = granted_copy(name, **accounts)
        for user in ("mobile", "root"):
            expect_refused(log, program, user, f"/private/var/grant-{name}")
