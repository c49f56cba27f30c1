# Runs the decoding of the wire on the instructions of Apple silicon, with a cross compiler and an emulator.

# Prints why that cannot be done here, or nothing.
why_no_arm64_tests() {
  case $(uname -m) in aarch64 | arm64) echo "the tests of this machine run on them"; return ;; esac
  if ! command -v aarch64-linux-gnu-g++ >/dev/null || ! command -v qemu-aarch64 >/dev/null; then
    echo "./dev test arm64 installs the compiler and the emulator (packages/debian-arm64.txt)"
  fi
}

check_arm64() {
  local reason started=$SECONDS status=0 log=build/logs/arm64.log
  reason=$(why_no_arm64_tests)
  if [ -n "$reason" ]; then
    note_unchecked "the vector instructions of Apple silicon in an emulator: $reason"
    return 0
  fi
  mkdir -p build/logs
  say "building (arm64)"
  { cmake -S tests/arm64 -B build/arm64 -G Ninja && cmake --build build/arm64; } >"$log" 2>&1 </dev/null ||
    show_failure "building (arm64)" "$log"
  say "testing (arm64)"
  log=build/logs/test-arm64.log
  (cd build/arm64 && ctest -j "$(processors)") 2>&1 </dev/null | tee "$log" | show_test_progress arm64 || status=$?
  note_ctest arm64 "$log" "$status" "$started"
}
