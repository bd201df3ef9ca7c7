#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures and builds into DIR; with
# PELKO_TARGET set, only that target.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > "$dir.configure.log" 2>&1 \
  || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j2 ${PELKO_TARGET:+--target "$PELKO_TARGET"}
