#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The demonstration succeeds, keeps to its directory, and notices what is missing.
set -euo pipefail
demo=$QDUL_SOURCE/examples/demo.sh
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

for round in first second; do # the second replaces what the first has left
    "$demo" out >said 2>errors || { cat said errors; fail "$round run"; }
    grep -q '^Everything adds up' said || fail "no conclusion"
    [ ! -s errors ] || fail "errors were told: $(cat errors)"
    [ "$(ls -A | tr '\n' ' ')" = "errors out said " ] || fail "left behind: $(ls -A)"
done
[ -s out/etc/zoltlog.conf ] || fail "no configuration"
ls out/log/5-7-*.log out/log/5-8-*.log out/log/5-9-*.log out/log/5-nightly-*.log >/dev/null || fail "no log files"
grep -q 'WARNING demo: disk /var is 93% full' said || fail "no console copy"
grep -q ', 0 gaps' said || fail "gaps are told where nothing is missing"
! grep -q $'\e' said || fail "control characters in the output"
[ "$(grep -c '^[0-9]*\. ' said)" = 9 ] || fail "not all steps are told"

mkdir foreign
touch foreign/precious
if "$demo" foreign >said 2>&1; then fail "a foreign directory was taken"; fi
[ -e foreign/precious ] || fail "a foreign directory was emptied"

# One message too few has to be noticed.
mkdir -p build/bin
for part in examples share lib; do ln -s "$QDUL_BUILD/$part" build/; done
ln -s "$QDUL_BUILD"/bin/* build/bin/
rm build/bin/qdlogger
cat >build/bin/qdlogger <<SCRIPT
#!/bin/sh
case "\$*" in
    *"-x import-1"*) sed 1d | "$QDUL_BUILD/bin/qdlogger" "\$@" ;;
    *) "$QDUL_BUILD/bin/qdlogger" "\$@" ;;
esac
SCRIPT
chmod +x build/bin/qdlogger
if QDUL_BUILD=$PWD/build "$demo" out >said 2>&1; then fail "a lost message was not noticed"; fi
grep -q 'demo: FAILED: import: application: [0-9]* were sent, [0-9]* are in the files' said || { tail said; fail "the loss was not told"; }
