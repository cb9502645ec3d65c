#!/usr/bin/env bash
# The main job: build the library, install it into build/stage, check that
# a separate program builds against the installed tree, then run the
# installed media session demo (about 20 s; extra arguments go to it, see
# sharedlib-demo --help).
#
#   bash scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default -DSHAREDLIB_BUILD_TESTS=OFF
cmake --build --preset default
cmake --install build/default --prefix "$PWD/build/stage"
cmake -S examples/consumer -B build/consumer -DCMAKE_PREFIX_PATH="$PWD/build/stage"
cmake --build build/consumer
build/consumer/consumer
build/stage/bin/sharedlib-demo -o "$PWD/build/demo.rec" "$@"
