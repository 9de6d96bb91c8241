#!/usr/bin/env bash
# How fast qdlogview reads, against grep and cat on the same files:
#   bench/qdlogview_bench.sh BUILD [ROUNDS] [MEGABYTES]   (default 7 rounds, 1000 MB)
exec python3 "$(dirname "$0")/qdlogview_bench.py" "$@"
