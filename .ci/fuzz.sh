#!/usr/bin/env bash
# Builds the libFuzzer harnesses of the file readers with clang, replays the
# seed corpus and fuzzes each reader for a bounded time. Exits non-zero on any
# crash, sanitizer report, hang or failed build.
#   TARNWICK_FUZZ_DIR      build and work folder (default /tmp/tarnwick-fuzz-<uid>)
#   TARNWICK_FUZZ_SECONDS  fuzzing time per harness (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${TARNWICK_FUZZ_DIR:-/tmp/tarnwick-fuzz-$(id -u)}
seconds=${TARNWICK_FUZZ_SECONDS:-20}
cxx=$(command -v clang++ || command -v clang++-14 || true)
if [ -z "$cxx" ]; then
  echo "fuzz: clang++ not found" >&2
  exit 1
fi

harnesses=(pixmap tracks png jpeg)
declare -A sources=(
  [pixmap]="lib/CPixmap.cpp lib/CPixmapHeader.cpp lib/CAtomicFile.cpp lib/CTemporaryFile.cpp"
  [tracks]="lib/CUtility.cpp lib/CPixmap.cpp lib/CPixmapHeader.cpp lib/CAtomicFile.cpp lib/CTemporaryFile.cpp"
  [png]="lib/CPng.cpp"
  [jpeg]="lib/CJpeg.cpp"
)
# The system libraries behind the decoders (not instrumented themselves).
declare -A libraries=(
  [png]="-lpng"
  [jpeg]="-ljpeg"
)

common=(-std=c++17 -O1 -g -ffp-contract=off -fno-omit-frame-pointer
        -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
        -Ilib -Ifuzz -Wall -Wextra)
# The library's parallel loops run serially here; the readers have none.
libraryFlags=(-Wno-unknown-pragmas)

mkdir -p "$build"
# The harnesses make their scratch files below TMPDIR; a memory-backed folder
# keeps the per-input file writes of the track harness fast.
scratch=$(mktemp -d /dev/shm/tarnwick-fuzz-XXXXXX 2>/dev/null || mktemp -d "$build/scratch-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export TMPDIR="$scratch"

for name in "${harnesses[@]}"; do
  echo "fuzz: building fuzz_$name"
  objects=()
  for source in ${sources[$name]}; do
    object="$build/$name-$(basename "$source" .cpp).o"
    "$cxx" "${common[@]}" "${libraryFlags[@]}" -c "$source" -o "$object"
    objects+=("$object")
  done
  # shellcheck disable=SC2086  # the library list splits into words on purpose
  "$cxx" "${common[@]}" -Werror "fuzz/fuzz_$name.cpp" "${objects[@]}" ${libraries[$name]:-} -o "$build/fuzz_$name"
done

# The sanitizer's report and the saved input, without the shadow-memory dump.
report() {
  echo "fuzz: $1; report from $2:" >&2
  grep -E "^ *#[0-9]+ 0x" "$2" | head -n 25 >&2 || true
  grep -E "ERROR|SUMMARY|runtime error|Test unit written|deadly signal|timeout" "$2" >&2 || tail -n 40 "$2" >&2
}

status=0
for name in "${harnesses[@]}"; do
  binary="$build/fuzz_$name"
  seeds=(fuzz/corpus/"$name"/*)
  log="$build/$name.log"

  echo "fuzz: replaying ${#seeds[@]} seeds of $name"
  if ! "$binary" -artifact_prefix="$build/$name-" "${seeds[@]}" >"$log" 2>&1; then
    report "$name failed on a seed" "$log"
    status=1
    continue
  fi

  # New inputs go to a work corpus outside the repository; the seeds stay as they are.
  work="$build/corpus-$name"
  mkdir -p "$work"
  echo "fuzz: running $name for ${seconds} s"
  if ! "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
      -artifact_prefix="$build/$name-" "$work" "fuzz/corpus/$name" >"$log" 2>&1; then
    report "$name failed while fuzzing" "$log"
    status=1
    continue
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "fuzz: $name: ${runs:-unknown} executions in ${seconds} s, no crash"
done
exit "$status"
