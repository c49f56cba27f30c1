# Configures and builds a preset. The output goes to build/logs; the terminal shows progress.

show_progress() {  # preset; reads the build's output
  local terminal=0
  [ ! -t 1 ] || terminal=1
  awk -v preset="$1" -v terminal="$terminal" '
    /^\[[0-9]+\/[0-9]+\]/ {
      split(substr($1, 2), step, /[\/\]]/)
      if (terminal) { printf "\r\033[Kbuilding (%s) step %d of %d", preset, step[1], step[2]; shown = 1 }
      else if (step[2] >= 8 && int(step[1] * 4 / step[2]) > quarter && step[1] < step[2]) {
        quarter = int(step[1] * 4 / step[2])
        printf "building (%s) step %d of %d\n", preset, step[1], step[2]
      }
      fflush()
    }
    END { if (shown) printf "\r\033[K" }' >&2
}

show_failure() {  # step, log
  tail -n 60 "$2" >&2
  fail "$1 failed; the whole log is in $2"
}

build() {  # preset, targets...
  local preset=$1 started=$SECONDS
  shift
  mkdir -p build/logs
  local log=build/logs/$preset.log
  say "building ($preset)"
  with_fixed_addresses "$preset" cmake --preset "$preset" >"$log" 2>&1 </dev/null ||
    show_failure "configuring ($preset)" "$log"
  if [ $# -gt 0 ]; then set -- --target "$@"; fi
  # pipefail makes the build's status the pipeline's.
  NINJA_STATUS='[%f/%t] ' with_fixed_addresses "$preset" cmake --build --preset "$preset" "$@" 2>&1 </dev/null |
    tee -a "$log" | show_progress "$preset" || show_failure "building ($preset)" "$log"
  say "built ($preset) in $((SECONDS - started)) s"
}
