#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# How fast qdlogview reads, against grep and cat on the same files:
#   bench/qdlogview_bench.sh BUILD [ROUNDS] [MEGABYTES]   (default 7 rounds, 1000 MB)
exec python3 "$(dirname "$0")/qdlogview_bench.py" "$@"
