# Runs tests, shows progress and failures, and sums up all parts at the end.

test_parts=""    # one line per part: "name|passed|failed|skipped|seconds"
test_skipped=""  # one line per skipped test or part
test_status=0

# Filters ctest's output: drops passed tests, keeps failures with their output, shows progress.
show_test_progress() {  # preset
  local terminal=0
  [ ! -t 1 ] || terminal=1
  awk -v preset="$1" -v terminal="$terminal" '
    function progress(done, total) {
      if (terminal) { printf "\r\033[Ktesting (%s) %d of %d", preset, done, total; shown = 1 }
      else if (total > 0 && int(done * 4 / total) > quarter) {
        quarter = int(done * 4 / total)
        if (quarter < 4) printf "testing (%s) %d of %d\n", preset, done, total
      }
      fflush()
    }
    function clear() { if (shown) printf "\r\033[K"; shown = 0 }
    /^Test project / || /^ *Start +[0-9]+: / || /^Label Time Summary:/ || /sec\*proc/ { next }
    /^ *[0-9]+\/[0-9]+ Test +#/ {
      split($1, position, "/")
      if (/\*\*\*Skipped|\*\*\*Not Run/) { progress(position[1], position[2]); next }
      if (/   Passed /) { failing = 0; progress(position[1], position[2]); next }
      clear(); failing = 1; print; fflush(); next
    }
    /^The following tests did not run:/ { listing = 1; next }
    listing && /\(Skipped\)/ { next }
    /^The following tests FAILED:/ { listing = 0 }
    /^ *$/ && !failing { next }
    { clear(); print; fflush() }
    END { clear() }'
}

# Notes the outcome of one part for the closing report.
note_part() {  # name, passed, failed, skipped, seconds
  test_parts="$test_parts$1|$2|$3|$4|$5
"
  [ "$3" -eq 0 ] || test_status=1
}

# Notes a part or a test that did not run, and why.
note_unchecked() {  # text
  note_skipped "$1"
  test_skipped="$test_skipped$1
"
}

# Notes the outcome of a part that ctest ran.
note_ctest() {  # name, log, exit status, when it began
  local name=$1 log=$2 status=$3 started=$4 total failed skipped
  total=$(sed -n 's/^[0-9]*% tests passed, .* out of \([0-9]*\).*/\1/p' "$log")
  failed=$(sed -n 's/^[0-9]*% tests passed, \([0-9]*\) tests failed .*/\1/p' "$log")
  if [ -z "$total" ]; then
    say "error: the tests ($name) ended without a verdict; log: $log"
    note_part "$name" 0 1 0 $((SECONDS - started))
    return 0
  fi
  skipped=$(grep -c '\*\*\*Skipped\|\*\*\*Not Run' "$log" || true)
  if [ "$status" -ne 0 ] && [ "$failed" -eq 0 ]; then failed=1; fi
  note_part "$name" $((total - failed - skipped)) "$failed" "$skipped" $((SECONDS - started))
  test_skipped="$test_skipped$(sed -n 's/^[[:space:]]*[0-9]* - \(.*\) (Skipped)$/\1 ('"$name"')/p' "$log")
"
}

run_tests() {  # preset, then ctest's options
  local preset=$1 started=$SECONDS status=0 log
  shift
  build "$preset"
  say "testing ($preset)"
  mkdir -p build/logs
  log=build/logs/test-$preset.log
  # pipefail makes ctest's status the pipeline's.
  XDG_DATA_HOME=$root/build/no-user-data with_fixed_addresses "$preset" ctest --preset "$preset" -j "$(processors)" "$@" 2>&1 </dev/null | tee "$log" |
    show_test_progress "$preset" || status=$?
  note_ctest "$preset" "$log" "$status" "$started"
}

# Prints the counts of all parts. The last line is their sum.
report_tests() {
  [ -n "$test_parts$test_skipped" ] || return 0
  if [ -n "$(printf '%s' "$test_skipped" | sed '/^$/d')" ]; then
    printf 'not checked:\n'
    printf '%s' "$test_skipped" | sed -e '/^$/d' -e 's/^/  /'
  fi
  printf '%s' "$test_parts" | awk -F '|' '
    { printf "%-14s %5d passed, %d failed, %d skipped (%d s)\n", $1, $2, $3, $4, $5; p += $2; f += $3; s += $4 }
    END { printf "%d passed, %d failed, %d skipped\n", p, f, s }'
  return "$test_status"
}
