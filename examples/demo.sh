#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From nothing to log files on the screen: configuration, messages of several
# programs at a time, rollover, recycling, reading, and a count of everything.
#
#   examples/demo.sh [DIRECTORY]     (default ./demo-out; ./dev demo builds first)
#
# Everything is made inside DIRECTORY. Ends with a failure when a count is wrong.
set -Eeuo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
build=${QDUL_BUILD:-$source_dir/build/release}
bin=$build/bin
examples=$build/examples
out=${1:-demo-out}

# ---- how the steps are told --------------------------------------------------

step=0
tell() { # a heading, and lines that explain it
    step=$((step + 1))
    printf '\n%d. %s\n' "$step" "$1"
    shift
    [ $# -eq 0 ] || printf '   %s\n' "$@"
    echo
}
run() { # shows a command, then its output, indented
    local word shown=
    for word in "$@"; do
        word=${word#"$bin/"} word=${word#"$examples/"} word=${word#"$out/"}
        [[ $word =~ ^[A-Za-z0-9_./=:,-]+$ ]] || word=${word@Q}
        shown+=" $word"
    done
    printf '   $%s\n' "$shown"
    "$@" 2>&1 | sed 's/^/     /'
}
fail() {
    printf '\ndemo: FAILED: %s\n' "$*" >&2
    exit 1
}
trap 'printf "\ndemo: FAILED at line %d: %s\n" "$LINENO" "$BASH_COMMAND" >&2' ERR
have() { [ -x "$bin/$1" ]; }

for program in "$bin/qdlogger" "$bin/qdlogcfg" "$examples/server" "$examples/secure_audit" "$examples/logfiles"; do
    [ -x "$program" ] || fail "$program is missing; build first: ./dev build"
done

# ---- a place of our own ------------------------------------------------------

if [ -e "$out" ] && [ ! -e "$out/.qdul-demo" ]; then
    fail "$out exists and is not from an earlier demo; give another directory"
fi
rm -rf -- "$out"
mkdir -p -- "$out"
out=$(cd "$out" && pwd)
touch "$out/.qdul-demo"
mkdir "$out/etc" "$out/log" "$out/scratch"
export ZOLTLOG_CFG_LOC=$out/etc/zoltlog.conf
export QDLIS_CATALOG=$build/share/qdul/catalogue/diskd
export NO_COLOR=1

echo "This is a logging system: programs write messages into series of log files;"
echo "a configuration says where, how large, and how many files are kept."

# ---- configuration -----------------------------------------------------------

SERVER=7 IMPORT=8 NOISY=9
KEPT=3

tell "The configuration: one product with three components and a log set." \
    "Product 5 'demo' has the components ('originators') 7 server, 8 import and 9 noisy," \
    "and a log set 'jobs', which several components share. Files of 7 and 8 are full at" \
    "24 and 128 KB; of 9 only the $KEPT newest files are kept; those of the log set are" \
    "replaced every second."
cfg() { "$bin/qdlogcfg" "$@" >/dev/null || fail "qdlogcfg $*"; }
cfg product add 5 --names demo --file "$out/etc/demo.conf"
cfg set -P demo "LogDirectory=$out/log" RolloverMode=FileSize MaxLogFileSizeKB=64 \
    DiagnosticLevel=3
cfg set -P demo -u $SERVER OIDNames=server MaxLogFileSizeKB=24
cfg set -P demo -u $IMPORT OIDNames=import MaxLogFileSizeKB=128 NumberOfLogFiles=3
cfg set -P demo -u $NOISY OIDNames=noisy MaxLogFileSizeKB=16 NumberOfLogFiles=$KEPT LogRecycle=true
cfg set -P demo -L Default "LogDirectory=$out/log" RolloverMode=Periodic RolloverPeriodInSeconds=1 \
    DiagnosticLevel=3
cfg set -P demo -L jobs FileName=nightly
run sed '/^#/d' "$out/etc/demo.conf"
run "$bin/qdlogcfg" explain -P demo -u server -k diag --level 2

# ---- messages ----------------------------------------------------------------

find /usr/share/common-licenses /usr/share/doc /etc -maxdepth 2 -type f -readable -size -300k ! -name '*.gz' 2>/dev/null |
    LC_ALL=C sort | head -n 300 >"$out/scratch/requests" || true
[ -s "$out/scratch/requests" ] || fail "no readable text file was found on this machine"
printf '/no/such/file\n%.0s' 1 2 3 4 5 >>"$out/scratch/requests"
requests=$(wc -l <"$out/scratch/requests")

tell "A server with four threads, in two processes at a time, writes one series." \
    "Each request (count the words of a file of this machine) is a context: its token is" \
    "in all messages of the request. Both processes append to the same file and go on to" \
    "the next one together. What each process has sent:"
for process in 1 2; do
    "$examples/server" 5 $SERVER 4 <"$out/scratch/requests" >"$out/scratch/sent.$process" &
    pids[process]=$!
done
for process in 1 2; do
    wait "${pids[process]}" || fail "server $process ended with status $?"
    printf '     process %d: %s\n' "$process" "$(cat "$out/scratch/sent.$process")"
done
sent() { awk -v kind="$1" '{ for (i = 1; i < NF; i++) if ($i == kind) n += $(i + 1) } END { print n + 0 }' "$out"/scratch/sent.[12]; }

# Real text: the package log of this machine and, while that is short, licence texts
LINES_WANTED=4000
{
    cat /var/log/dpkg.log 2>/dev/null || true
    find /usr/share/common-licenses -type f -exec cat {} + || true
} 2>/dev/null | head -n $LINES_WANTED >"$out/scratch/text" || true
lines=$(grep -c '' "$out/scratch/text") || fail "there is neither a package log nor a licence text"

tell "qdlogger sends real text: $lines lines of this machine's package log (and licence texts)." \
    "Each line is a message." \
    "First to the component 'import', under the context 'import-1'; then the same as" \
    "diagnostic messages of two jobs to the log set; then to the component 'noisy'."
"$bin/qdlogger" -P demo -u import -t import -x import-1 <"$out/scratch/text" || fail "qdlogger"
half=$(((lines + 1) / 2))
head -n "$half" "$out/scratch/text" | "$bin/qdlogger" -P demo -u import -L jobs -k diag -t job-1 || fail "qdlogger"
sleep 1.1 # the period of the log set's files
tail -n +$((half + 1)) "$out/scratch/text" | "$bin/qdlogger" -P demo -u noisy -L jobs -k diag -t job-2 ||
    fail "qdlogger"
"$bin/qdlogger" -P demo -u noisy <"$out/scratch/text" || fail "qdlogger"
echo "     sent: $lines to import, $lines to the log set, $lines to noisy"

tell "Copies on the console are made on request, here with --stdout."
run "$bin/qdlogger" -P demo -u import --stdout -p warning -t demo 'disk /var is 93% full'
run "$bin/qdlogger" -P demo -u import --stdout -k diag -l 2 -t demo 'a line with an escape: '$'\e''[31m'
run "$bin/qdlogger" -P demo -u import --stdout -k audit --subject alice --outcome 0 'an audit message is not copied'
extra_application=1 extra_diagnostic=1 extra_audit=1

tell "A secure audit message goes to the system log only (and with -e to standard error)." \
    "Its words come from a message catalogue."
if [ -e /dev/log ]; then
    echo "     (left out: this machine has a system log, and the demo leaves nothing behind)"
else
    run "$examples/secure_audit" -e 5 $SERVER alice host-b
fi

# ---- reading -----------------------------------------------------------------

tell "The files: name = product, component, host, day, counter; or product, log set, time."
if have qdlogmgr; then # no more than five files of each series
    run "$bin/qdlogmgr" list -P demo | awk '$1 == 5 { series = $1 $2 $3; if (series != last) { more(); last = series }
            if (++n > 5) next } { print } END { more() }
        function more() { if (n > 5) printf "     ...  %d more\n", n - 5; n = 0 }'
    run "$bin/qdlogmgr" usage -P demo
else
    run "$examples/logfiles" list 5
fi

tell "The newest records of each series."
if have qdlogview; then
    for originator in server import noisy; do
        run "$bin/qdlogview" --no-pager -q -P demo --file-originator=$originator -n 4
    done
    run "$bin/qdlogview" --no-pager -q -P demo -L jobs -n 4
else
    run "$examples/logfiles" newest 5 4
fi

tell "Surplus files: more than the configuration keeps (NumberOfLogFiles=3 of 'import')." \
    "They may be archived or removed; with LogRecycle=true this happens by itself, as for 'noisy'."
if have qdlogmgr; then
    run "$bin/qdlogmgr" surplus -P demo
else
    run "$examples/logfiles" surplus 5
fi

# ---- does everything add up? --------------------------------------------------

# records PATTERN TYPE: how many records of a type the files with this pattern hold
records() { { grep -h "^$2," "$out"/log/$1 || true; } | wc -l; }
checked=0
check() { # what, sent, found
    printf '     %-44s %7d sent %7d found\n' "$1" "$2" "$3"
    [ "$2" -eq "$3" ] || fail "$1: $2 were sent, $3 are in the files"
    checked=$((checked + $3))
}

tell "Does it add up? What was sent, and what is in the files."
check "server: application" "$(sent application)" "$(records "5-$SERVER-*.log" 2)"
check "server: diagnostic" "$(sent diagnostic)" "$(records "5-$SERVER-*.log" 1)"
check "server: audit" "$(sent audit)" "$(records "5-$SERVER-*.log" 4)"
contexts=$({ grep -h '^3,' "$out"/log/5-$SERVER-*.log || true; } | grep -o 'req-[0-9]*-[0-9]*' | sort -u | wc -l)
check "server: requests (contexts)" $((2 * requests)) "$contexts"
check "import: application" $((lines + extra_application)) "$(records "5-$IMPORT-*.log" 2)"
check "import: diagnostic" $extra_diagnostic "$(records "5-$IMPORT-*.log" 1)"
check "import: audit" $extra_audit "$(records "5-$IMPORT-*.log" 4)"
check "log set jobs: diagnostic" "$lines" "$(records "5-nightly-*.log" 1)"

if have qdlogview; then
    shown=0
    for query in "--file-originator=server -k app,diag,audit" "--file-originator=import -k app,diag,audit" \
        "-L jobs -k diag"; do
        # shellcheck disable=SC2086
        shown=$((shown + $("$bin/qdlogview" -q -P demo $query --count)))
    done
    printf '     %-44s %7d\n' "all but the contexts, as qdlogview counts" "$shown"
    [ "$shown" -eq $((checked - contexts)) ] || fail "qdlogview counts $shown records of $((checked - contexts))"
fi

files() { find "$out/log" -name "$1" | wc -l; }
printf '     %-44s %7d of %d\n' "noisy: files kept by recycling" "$(files "5-$NOISY-*.log")" $KEPT
[ "$(files "5-$NOISY-*.log")" -eq $KEPT ] || fail "noisy: $(files "5-$NOISY-*.log") files are kept, not $KEPT"
last=$(tail -n 1 "$out/scratch/text")
grep -qF -- "${last:0:60}" "$(find "$out/log" -name "5-$NOISY-*.log" | LC_ALL=C sort | tail -n 1)" ||
    fail "noisy: the last line is not in the newest file"
[ "$(files "5-$SERVER-*.log")" -gt 1 ] || fail "the server's files did not roll over"
[ "$(files "5-nightly-*.log")" -gt 1 ] || fail "the log set's files did not roll over"
if have qdlogmgr; then
    run "$bin/qdlogmgr" verify -P demo || fail "qdlogmgr found problems in the files"
fi
if have qdlogview; then
    run "$bin/qdlogview" -P demo --gaps || fail "qdlogview found gaps in the sequence numbers"
fi
for file in "$out"/log/*.log; do
    [ "$(grep -c '^\$Header ' "$file")" = 1 ] || fail "$file does not have exactly one header line"
    [ "$(head -c 8 "$file")" = "\$Header " ] || fail "$file does not begin with its header line"
done

cat <<TEXT

Everything adds up: of $checked messages not one is missing, in $(files '*.log') files. Look around:

  configuration   $out/etc
  log files       $out/log
  more            ZOLTLOG_CFG_LOC=$ZOLTLOG_CFG_LOC $bin/qdlogcfg show -P demo
TEXT
if have qdlogview; then
    echo "                  ZOLTLOG_CFG_LOC=$ZOLTLOG_CFG_LOC $bin/qdlogview -P demo"
fi
