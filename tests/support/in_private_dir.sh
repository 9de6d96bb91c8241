#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs a test script in a new empty directory and removes it afterwards.
dir=$(mktemp -d "${TMPDIR:-/tmp}/qdul-test.XXXXXX") || exit 1
trap 'chmod -R u+rwX "$dir" 2>/dev/null; rm -rf "$dir"' EXIT
cd "$dir" || exit 1
unset ZOLTLOG_CFG_LOC QDLIS_CATALOG
"$@"
