#!/usr/bin/env bash
# Builds the optimised configuration and runs the benchmark of the whole
# labelling run. Arguments are passed on: --quick (320x240 only) or --full
# (reference path at 1280x960 as well).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target bench_run
exec build/bench/bench_run "$@"
