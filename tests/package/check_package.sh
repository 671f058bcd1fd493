#!/usr/bin/env bash
# Checks the package: what it holds, what it needs, that its maintainer
# scripts manage the socket, that `cmake --install` lays out the same files,
# and that lintian finds no error.
#   check_package.sh DEB BUILD_DIR
set -uo pipefail
deb=$1
build=$2
[ -f "$deb" ] || { echo "SKIP: no $deb (scripts/package makes it)"; exit 77; }
failed=0
fail() { echo "FAIL: $*"; failed=1; }

contents=$(dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's|^\./|/|; s|/$||' | sort)
for path in /usr/libexec/vexd_helper /usr/bin/vexdctl /usr/bin/qlx-manifest \
  /usr/bin/qlx-sign-manifest /usr/sbin/qlx-mapdisk \
  /lib/systemd/system/vexd_helper.service /lib/systemd/system/vexd_helper.socket \
  /lib/systemd/system/vexd-mapdisk.service /usr/lib/tmpfiles.d/vexd_helper.conf \
  /etc/ovix/entitlements.d /usr/share/velmor/trust/production /usr/share/velmor/trust/development \
  /usr/share/doc/vexd-helper/README.md /usr/share/doc/vexd-helper/deployment.md \
  /usr/share/doc/vexd-helper/copyright /usr/share/man/man1/vexdctl.1.gz \
  /usr/share/man/man1/qlx-manifest.1.gz /usr/share/man/man1/qlx-sign-manifest.1.gz \
  /usr/share/man/man8/vexd_helper.8.gz; do
  grep -qx "$path" <<<"$contents" || fail "$path is not in the package"
done
grep -q '^/private' <<<"$contents" && fail "the package ships the data area itself"
mode=$(dpkg-deb --fsys-tarfile "$deb" | tar -tv ./usr/libexec/vexd_helper | cut -c1-10)
[ "$mode" = "-rwxr-xr-x" ] || fail "vexd_helper has mode $mode"

depends=$(dpkg-deb -f "$deb" Depends)
for lib in libplist3 libssl3 libblkid1 libsystemd0; do
  grep -q "\b$lib\b" <<<"$depends" || fail "Depends lacks $lib: $depends"
done
ctl=$(mktemp -d)
trap 'rm -rf "$ctl"' EXIT
dpkg-deb -e "$deb" "$ctl"
grep -q 'enable vexd_helper.socket' "$ctl/postinst" || fail "postinst does not enable the socket"
grep -q 'stop vexd_helper.socket vexd_helper.service' "$ctl/prerm" ||
  fail "prerm does not stop the socket and the service"

# `cmake --install` puts the same files in the same places.
DESTDIR=$ctl/root cmake --install "$build" --prefix /usr >/dev/null
installed=$( (cd "$ctl/root" && find . -mindepth 1) | sed 's|^\./|/|' | sort)
packaged=$(grep -v -e '^/usr/share/doc/vexd-helper/copyright$' \
  -e '^/usr/share/doc/vexd-helper/changelog.gz$' -e '^/$' -e '^$' <<<"$contents")
if [ "$installed" != "$packaged" ]; then
  fail "cmake --install and the package differ:"
  diff <(echo "$installed") <(echo "$packaged") | head -20
fi

if command -v lintian >/dev/null; then
  errors=$(lintian --tag-display-limit 0 "$deb" 2>&1 | grep '^E:')
  [ -z "$errors" ] || fail "lintian: $errors"
else
  echo "lintian is not installed: not checked"
fi
[ $failed -eq 0 ] && echo "package checked: $(wc -l <<<"$contents") paths"
exit $failed
