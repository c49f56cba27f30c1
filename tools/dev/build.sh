# Configures and builds a preset. The output goes to build/logs; the terminal shows how far it is.

show_progress() {  # preset; reads the build's output
  local line
  if [ -t 1 ]; then
    while IFS= read -r line; do
      case $line in \[*/*\]*) printf '\r\033[K%s' "building ($1) ${line%%]*}]" ;; esac
    done
    printf '\r\033[K'
  else
    cat >/dev/null
  fi
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
  [ -t 1 ] || say "building ($preset)"
  with_fixed_addresses "$preset" cmake --preset "$preset" >"$log" 2>&1 </dev/null ||
    show_failure "configuring ($preset)" "$log"
  if [ $# -gt 0 ]; then set -- --target "$@"; fi
  # pipefail makes the build's status the pipeline's.
  NINJA_STATUS='[%f/%t] ' with_fixed_addresses "$preset" cmake --build --preset "$preset" "$@" 2>&1 </dev/null |
    tee -a "$log" | show_progress "$preset" || show_failure "building ($preset)" "$log"
  say "built ($preset) in $((SECONDS - started)) s"
}
