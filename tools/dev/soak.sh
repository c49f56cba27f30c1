# Runs what continuous integration leaves out, one part after the other, and writes one report to build/soak-report.txt.

soak_parts="meeting day analyzer-day sanitizers explore faults ends fuzz mutations"

# Prints how to run a part, as one command.
soak_command() {  # part
  case $1 in
    meeting) echo "python3 bench/soak.py build/bench/PalaverSTTHelper --minutes 60" ;;
    day) echo "python3 bench/soak.py build/bench/simulator/PalaverSTTSimulator --minutes 480 --turns --fast build/bench/PalaverSpeechWorker" ;;
    analyzer-day) echo "python3 bench/soak.py build/bench/simulator/PalaverSTTSimulator --minutes 480 --turns --analyzer" ;;
    sanitizers) echo "soak_sanitizers" ;;
    explore) echo "build/release/simulator/PalaverSTTSimulator explore --seeds 1..70000 --jobs $(processors)" ;;
    faults) echo "tools/explore-faults" ;;
    ends) echo "python3 tests/process/kill_matrix_test.py $root/build/release/PalaverSTTHelper --table" ;;
    fuzz) echo "./dev fuzz 3600 --jobs $(processors)" ;;
    mutations) echo "tools/mutate legacy analyzer core modes" ;;
    *) fail_usage "soak has no part '$1'; there are $soak_parts" ;;
  esac
}

# All tests under each sanitizer. A preset that fails does not keep the next one from running.
soak_sanitizers() {
  local preset status=0
  for preset in address thread apple-address apple-thread; do ./dev test "$preset" || status=1; done
  return "$status"
}

run_soak() {  # parts...
  local part command started status failed="" report=build/soak-report.txt
  [ "$(uname -s)" = Linux ] || fail "soak needs Linux, as most of its parts do"
  # shellcheck disable=SC2086 # one word per part
  [ $# -gt 0 ] || set -- $soak_parts
  for part in "$@"; do soak_command "$part" >/dev/null; done
  mkdir -p build/logs
  : >"$report"
  case " $* " in *" meeting "*) build bench PalaverSTTHelper ;; esac
  case " $* " in *"day "*) build bench PalaverSTTSimulator PalaverSpeechWorker ;; esac
  case " $* " in *" explore "* | *" ends "*) build release PalaverSTTSimulator PalaverSTTHelper ;; esac
  for part in "$@"; do
    command=$(soak_command "$part")
    say "$part: $command (log: build/logs/soak-$part.log)"
    started=$SECONDS
    # shellcheck disable=SC2086 # one word per argument
    if $command >"build/logs/soak-$part.log" 2>&1 </dev/null; then status=passed; else status=FAILED failed="$failed $part"; fi
    { printf '== %s: %s in %d s\n' "$part" "$status" "$((SECONDS - started))"; tail -n 40 "build/logs/soak-$part.log"; echo; } >>"$report"
  done
  cat "$report"
  say "the report is $report"
  [ -z "$failed" ] || fail "failed:$failed"
}
