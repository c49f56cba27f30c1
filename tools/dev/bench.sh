# Runs the benchmarks of bench/. They report and never fail for being slow.

benchmark_target() {  # name
  case $1 in
    path | throughput | latency | startup | memory | worker | plots) echo palaver_bench ;;
    kernels) echo palaver_kernels ;;
    accuracy | channels | footprint | peer) echo PalaverSTTHelper ;;
    *) fail_usage "there is no benchmark '$1'; there are path, its parts throughput, latency, startup, memory and worker, kernels, accuracy, channels, footprint, plots and peer" ;;
  esac
}

# Makes an environment with the server that the peer benchmark compares with, and starts the comparison.
run_peer_benchmark() {  # helper
  local folder=build/peer
  if [ ! -d "$folder/server" ]; then
    say "fetching the server of sherpa-onnx (20 MB)"
    mkdir -p build/logs
    { python3 -m venv "$folder/venv" &&
        "$folder/venv/bin/python3" -m pip --disable-pip-version-check --retries 1 --timeout 15 download --no-deps \
          --require-hashes --only-binary :all: --dest "$folder/wheels" --requirement packages/python-peer.txt &&
        "$folder/venv/bin/python3" -m pip install --no-deps "$folder"/wheels/websockets-*.whl &&
        python3 -m zipfile -e "$folder"/wheels/sherpa_onnx_bin-*.whl "$folder/server.new" &&
        mv "$folder/server.new" "$folder/server"; } >build/logs/peer.log 2>&1 </dev/null ||
      { note_skipped "the peer benchmark, since the server of sherpa-onnx could not be fetched (log: build/logs/peer.log)"; return 0; }
  fi
  local server
  server=$(find "$folder/server" -name sherpa-onnx-online-websocket-server)
  chmod +x "$server"
  "$folder/venv/bin/python3" bench/peer "$1" "$server" build/speech/sherpa-onnx-core/sherpa_onnx/lib
}

run_benchmarks() {  # names...
  local name targets=""
  [ "$(uname -s)" = Linux ] || fail "the benchmarks need Linux: they use its pipes and /proc"
  [ $# -gt 0 ] || set -- path kernels accuracy channels
  for name in "$@"; do targets="$targets $(benchmark_target "$name")"; done
  # shellcheck disable=SC2086 # one word per target
  build bench $targets
  for name in "$@"; do
    say "benchmark $name"
    case $name in
      throughput | latency | startup | memory | worker) build/bench/bench/palaver_bench "$name" ;;
      path) build/bench/bench/palaver_bench ;;
      kernels) build/bench/bench/palaver_kernels ;;
      plots) python3 bench/plots.py build/bench/bench/palaver_bench docs/performance ;;
      accuracy) python3 bench/accuracy build/bench/PalaverSTTHelper --json build/accuracy.json ;;
      channels) python3 bench/channels.py build/bench/PalaverSTTHelper ;;
      footprint) python3 bench/footprint.py build/bench/PalaverSTTHelper ;;
      peer) run_peer_benchmark build/bench/PalaverSTTHelper ;;
    esac
  done
}
