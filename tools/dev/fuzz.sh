# Runs each fuzzer for some seconds. Writes findings to build/fuzz-findings and the corpus to build/fuzz-corpus.

can_fuzz() {
  command -v clang++-14 >/dev/null &&
    find /usr/lib/llvm-14/lib/clang -name 'libclang_rt.fuzzer-*.a' 2>/dev/null | grep -q .
}

fuzz_one() {  # program, seconds
  local name log corpus
  name=$(basename "$1")
  log=build/logs/$name.log
  corpus=build/fuzz-corpus/$name
  mkdir -p "$corpus" "build/fuzz-findings/$name"
  say "fuzzing $name for $2 s"
  set -- "$1" "-max_total_time=$2" -print_final_stats=1 "-artifact_prefix=build/fuzz-findings/$name/" "$corpus"
  if [ -d "fuzz/corpus/${name#fuzz_}" ]; then set -- "$@" "fuzz/corpus/${name#fuzz_}"; fi
  "$@" >"$log" 2>&1 </dev/null || show_failure "$name" "$log"
  grep 'stat::number_of_executed_units' "$log" || true
}

run_fuzzers() {  # seconds
  case $1 in '' | *[!0-9]*) fail_usage "fuzz takes a number of seconds, not '$1'" ;; esac
  if ! can_fuzz; then
    note_skipped "fuzzing; it needs clang-14 and libclang-rt-14-dev (packages/debian-fuzz.txt)"
    return 0
  fi
  set_up build test
  build fuzz
  local program found=0
  for program in build/fuzz/fuzz/*; do
    if [ ! -f "$program" ] || [ ! -x "$program" ]; then continue; fi
    found=1
    fuzz_one "$program" "$1"
  done
  [ "$found" = 1 ] || note_skipped "fuzzing; no fuzzer is built by fuzz/CMakeLists.txt"
}
