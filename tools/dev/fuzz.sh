# Runs the fuzzers, merges what they found into the corpus, and measures what the corpus covers. docs/fuzzing.md describes it.
#
#   fuzz/corpus/NAME               the inputs of the repository
#   fuzz/dictionaries              words that the fuzzers insert
#   build/fuzz-corpus/fuzz_NAME    inputs that runs on this machine have found
#   build/fuzz-findings/fuzz_NAME  inputs that a target rejects

fuzz_programs=build/fuzz/fuzz

can_fuzz() {
  command -v clang++-14 >/dev/null &&
    find /usr/lib/llvm-14/lib/clang -name 'libclang_rt.fuzzer-*.a' 2>/dev/null | grep -q .
}

# Prints the names of all targets.
fuzz_targets() { for source in fuzz/fuzz_*.cpp; do basename "$source" .cpp | sed 's/^fuzz_//'; done; }

# Prints the dictionaries of a target.
dictionaries_of() {  # name
  case $1 in
    channel | command | event) echo json command ;;
    scenario) echo json scenario ;;
    sound) echo wave ;;
    vocabulary) echo json ;;
    worker_frames) echo frames ;;
    *) echo "$1" ;;
  esac
}

# Writes the dictionaries of a target to one file, and prints its path.
join_dictionaries() {  # name
  local joined=build/fuzz-dictionaries/$1.dict part
  mkdir -p build/fuzz-dictionaries
  for part in $(dictionaries_of "$1"); do cat "fuzz/dictionaries/$part.dict"; done >"$joined"
  echo "$joined"
}

# Runs one fuzzer. Writes "name|executions|seconds|finding" to build/logs/fuzz_NAME.result; a finding is the path of its input,
# or the log for an end that left none.
fuzz_one() {  # name, seconds
  local name=fuzz_$1 seconds=$2 status=0 started=$SECONDS log corpus dictionary finding=""
  log=build/logs/$name.log
  corpus=build/fuzz-corpus/$name
  mkdir -p "$corpus" "build/fuzz-findings/$name"
  dictionary=$(join_dictionaries "$1")
  set -- "$corpus"
  if [ -d "fuzz/corpus/${name#fuzz_}" ]; then set -- "$@" "fuzz/corpus/${name#fuzz_}"; fi
  say "fuzzing $name for $seconds s"
  "$fuzz_programs/$name" "-max_total_time=$seconds" -timeout=60 -print_final_stats=1 "-dict=$dictionary" \
    "-artifact_prefix=build/fuzz-findings/$name/" "$@" >"$log" 2>&1 </dev/null || status=$?
  if [ "$status" -ne 0 ]; then
    finding=$(sed -n 's/.*Test unit written to \(.*\)$/\1/p' "$log" | tail -n 1)
    finding=${finding:-$log}
  fi
  printf '%s|%s|%s|%s\n' "$name" "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" $((SECONDS - started)) "$finding" \
    >"build/logs/$name.result"
}

# Prints what is needed to work on a finding. The Base64 text is the input, where the file does not outlive the run.
show_finding() {  # program, path of the input or of the log
  local log=build/logs/$1.log
  printf 'FINDING of %s: %s\n' "$1" "$(grep -m 1 -E '^fuzzer: |^SUMMARY: |: runtime error: ' "$log" || tail -n 1 "$log")"
  if [ "$2" != "$log" ]; then
    printf '  input: %s\n  reproduce: %s %s\n' "$2" "$fuzz_programs/$1" "$2"
    sed -n 's/^Base64: /  the input in Base64: /p' "$log"
  fi
  printf '  log: %s\n' "$log"
}

# Runs every fuzzer, several at once. A finding does not keep the others from running. Fails when there is one.
fuzz_all() {  # seconds, jobs, names...
  local seconds=$1 jobs=$2 job workers="" worker name result program finding findings=0
  shift 2
  mkdir -p build/logs
  for name in "$@"; do rm -f "build/logs/fuzz_$name.result"; done
  for ((job = 0; job < jobs; ++job)); do
    (
      number=0
      for name in "$@"; do
        if [ $((number++ % jobs)) -eq "$job" ]; then fuzz_one "$name" "$seconds"; fi
      done
    ) &
    workers="$workers $!"
  done
  for worker in $workers; do wait "$worker" || fail "a part of the fuzzing ended early"; done
  for name in "$@"; do cat "build/logs/fuzz_$name.result"; done |
    awk -F '|' '{ printf "%-20s %12d executions, %6d s, %s\n", $1, $2, $3, $4 == "" ? "no finding" : "FINDING" }'
  for name in "$@"; do
    IFS='|' read -r program _ _ finding <"build/logs/fuzz_$name.result"
    if [ -n "$finding" ]; then
      show_finding "$program" "$finding"
      findings=$((findings + 1))
    fi
  done
  [ "$findings" -eq 0 ] || fail "$findings of the fuzzers have a finding"
}

# Makes the corpus of a target anew from its inputs and those found on this machine: of the inputs that reach the same code, the
# smallest stays. Inputs with a name of their own, such as a finding's, always stay.
merge_one() {  # name
  local corpus=fuzz/corpus/$1 found=build/fuzz-corpus/fuzz_$1 merged=build/fuzz-merged/$1 log=build/logs/fuzz_$1.merge.log
  rm -rf "$merged"
  mkdir -p "$merged" "$corpus" "$found" build/logs
  find "$corpus" -type f | grep -vE '/[0-9a-f]{40}$' | while IFS= read -r file; do cp "$file" "$merged"; done || true
  "$fuzz_programs/fuzz_$1" -merge=1 -use_counters=0 -timeout=60 "$merged" "$corpus" "$found" >"$log" 2>&1 </dev/null ||
    show_failure "merging the corpus of $1" "$log"
  rm -rf "$corpus"
  cp -R "$merged" "$corpus"
  printf '%-20s %5d inputs, %8d bytes\n' "$1" "$(find "$corpus" -type f | wc -l)" "$(cat "$corpus"/* | wc -c)"
}

measure_coverage() {  # names...
  if ! command -v llvm-profdata-14 >/dev/null || ! command -v llvm-cov-14 >/dev/null; then
    note_skipped "the coverage of the fuzzers; it needs llvm-profdata-14 and llvm-cov-14 (Debian's package llvm-14)"
    return 0
  fi
  build fuzz-coverage fuzz/all
  for name in "$@"; do join_dictionaries "$name" >/dev/null; done
  python3 tools/dev/fuzz_coverage.py "$@"
}

run_fuzzers() {  # arguments of ./dev fuzz
  local mode=run seconds=60 jobs=1 names="" name
  while [ $# -gt 0 ]; do
    case $1 in
      --merge) mode=merge ;;
      --coverage) mode=coverage ;;
      --jobs)
        jobs=${2-}
        [ $# -lt 2 ] || shift
        ;;
      --jobs=*) jobs=${1#*=} ;;
      -*) fail_usage "fuzz has no option '$1'" ;;
      *[!0-9]*)
        [ -f "fuzz/fuzz_$1.cpp" ] ||
          fail_usage "fuzz takes a number of seconds and names of targets, not '$1'; there are $(fuzz_targets | tr '\n' ' ')"
        names="$names $1"
        ;;
      *) seconds=$1 ;;
    esac
    shift
  done
  case $seconds in '' | 0*) fail_usage "fuzz takes a number of seconds from 1, not '$seconds'" ;; esac
  case $jobs in '' | 0* | *[!0-9]*) fail_usage "--jobs takes a number from 1, not '$jobs'" ;; esac
  [ -n "$names" ] || names=$(fuzz_targets)
  if is_debian; then set_up build test fuzz; fi
  if ! can_fuzz; then
    note_skipped "fuzzing; it needs clang-14 and libclang-rt-14-dev (packages/debian-fuzz.txt)"
    return 0
  fi
  build fuzz fuzz/all
  # shellcheck disable=SC2086 # one word per target
  case $mode in
    run) fuzz_all "$seconds" "$jobs" $names ;;
    merge) for name in $names; do merge_one "$name"; done ;;
    coverage) measure_coverage $names ;;
  esac
}
