# Runs the benchmarks of bench/: reports, never tests.

benchmark_program() {  # name
  case $1 in
    path) echo build/release/bench/palaver_bench ;;
    kernels) echo build/release/bench/palaver_kernels ;;
    accuracy) echo build/release/bench/accuracy/palaver_accuracy ;;
    *) fail_usage "there is no benchmark '$1'; there are path, kernels and accuracy" ;;
  esac
}

run_benchmarks() {  # names...
  local name program
  [ $# -gt 0 ] || set -- path kernels accuracy
  for name in "$@"; do benchmark_program "$name" >/dev/null; done
  build release
  for name in "$@"; do
    program=$(benchmark_program "$name")
    if [ ! -x "$program" ]; then
      note_skipped "the benchmark $name; it is not built on this machine"
      continue
    fi
    say "benchmark $name"
    "$program"
  done
}
