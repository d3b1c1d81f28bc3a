#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)
# into build-fuzz/ and runs each for SECONDS (default 60), one after another. Each run starts
# from the seeds in fuzz/corpus/ and the corpus earlier runs grew in build-fuzz/corpus/. A
# finding (crash, sanitizer report, broken check, hang) is written to build-fuzz/findings/ and
# fails the script after the other targets have run.
#   bash scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
build=build-fuzz
targets=(lineFraming frameDecoder httpEndpoint)
node_include="$(node -p "require('path').resolve(process.execPath, '..', '..', 'include', 'node')")"

CXX=clang++ cmake -S . -B "$build" -DKESH_FUZZ=ON -DNODE_INCLUDE_DIR="$node_include" >/dev/null
# The add-on too, though nothing here loads it: clang must build the whole project without a
# warning (the fuzz build treats warnings as errors).
cmake --build "$build" --parallel 2 --target "${targets[@]/#/fuzz-}" ostrale-kesh

mkdir -p "$build/findings"
status=0
for target in "${targets[@]}"; do
  mkdir -p "$build/corpus/$target"
  max_len=4096
  # Room for a request head beyond the endpoint's 16 KiB bound.
  [ "$target" = httpEndpoint ] && max_len=20000
  log="$build/$target.log"
  if UBSAN_OPTIONS=print_stacktrace=1 "$build/fuzz-$target" -max_total_time="$seconds" \
    -timeout=10 -max_len="$max_len" -dict="fuzz/$target.dict" -print_final_stats=1 \
    -artifact_prefix="$build/findings/$target-" "$build/corpus/$target" "fuzz/corpus/$target" \
    >"$log" 2>&1; then
    runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
    echo "fuzz $target: $runs executions in $seconds s, no finding"
  else
    echo "fuzz $target: FAILED (log $log, input in $build/findings/)"
    tail -n 60 "$log"
    status=1
  fi
done
exit "$status"
