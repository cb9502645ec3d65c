#!/usr/bin/env bash
# Builds and runs the whole test suite (default preset), installing any
# missing Debian package first, so it works as it stands on a new machine.
#
#   bash scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --workflow --preset default
