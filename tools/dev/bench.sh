# Runs the benchmarks of bench/. They report and never fail for being slow.

benchmark_target() {  # name
  case $1 in
    path | throughput | latency | startup | memory | worker) echo palaver_bench ;;
    kernels | accuracy) echo "palaver_$1" ;;
    channels) echo PalaverSTTHelper ;;
    *) fail_usage "there is no benchmark '$1'; there are path, its parts throughput, latency, startup, memory and worker, kernels, accuracy, and channels" ;;
  esac
}

benchmark_program() {  # target
  case $1 in
    palaver_accuracy) echo build/bench/bench/accuracy/palaver_accuracy ;;
    PalaverSTTHelper) echo build/bench/PalaverSTTHelper ;;
    *) echo "build/bench/bench/$1" ;;
  esac
}

run_benchmarks() {  # names...
  local name targets="" program
  [ "$(uname -s)" = Linux ] || fail "the benchmarks need Linux: they use its pipes and /proc"
  [ $# -gt 0 ] || set -- path kernels accuracy channels
  for name in "$@"; do targets="$targets $(benchmark_target "$name")"; done
  # shellcheck disable=SC2086 # one word per target
  build bench $targets
  for name in "$@"; do
    program=$(benchmark_program "$(benchmark_target "$name")")
    say "benchmark $name"
    case $name in
      throughput | latency | startup | memory | worker) "$program" "$name" ;;
      channels) python3 bench/channels.py "$program" ;;
      *) "$program" ;;
    esac
  done
}
