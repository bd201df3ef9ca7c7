#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures and builds into DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > "$dir.configure.log" 2>&1 \
  || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j2
