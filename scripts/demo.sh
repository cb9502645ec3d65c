#!/usr/bin/env bash
# The main job: build the library, install it into build/stage, then build
# and run the example program against the installed tree.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default -DSHAREDLIB_BUILD_TESTS=OFF
cmake --build --preset default
cmake --install build/default --prefix "$PWD/build/stage"
cmake -S examples/consumer -B build/consumer -DCMAKE_PREFIX_PATH="$PWD/build/stage"
cmake --build build/consumer
build/consumer/consumer
