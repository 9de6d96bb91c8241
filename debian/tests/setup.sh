# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# A product of the test's own in an empty directory, and the source of a program that logs.
set -eu
TESTS=$(cd "$(dirname "$0")" && pwd)
cd "$(mktemp -d -p "${AUTOPKGTEST_TMP:-${TMPDIR:-/tmp}}")"
export ZOLTLOG_CFG_LOC="$PWD/zoltlog.conf"
mkdir log
qdlogcfg product add 5 --names test --file "$PWD/test.conf" >/dev/null
qdlogcfg set --product test "LogDirectory=$PWD/log" >/dev/null
cat >program.c <<'SOURCE'
#include <zoltlog.h>
int main(void) {
    LogHandle log = {0};
    if (zoltLogOpen(5, 7, &log) != ZOLTLOG_OK)
        return 1;
    if (zoltLogAppMsg(&log, ZOLTLOG_OUT_STDOUT, ZOLTLOG_SEVERITY_ERROR, 0, "disk %s is %d%% full", "/var", 93) != ZOLTLOG_OK)
        return 2;
    return zoltLogClose(&log) == ZOLTLOG_OK ? 0 : 3;
}
SOURCE

# The message is in the log once, and the plug-in of the packages made the copy on the console.
#   logged PROGRAM
logged() {
    said=$("$1")
    case $said in
        *' ERROR: disk /var is 93% full') ;;
        *)
            echo "$1 says '$said'" >&2
            exit 1
            ;;
    esac
    qdlogview --quiet -P test -o cat >read.txt
    if [ "$(cat read.txt)" != 'disk /var is 93% full' ]; then
        cat read.txt >&2
        echo "this is what $1 logged" >&2
        exit 1
    fi
}
