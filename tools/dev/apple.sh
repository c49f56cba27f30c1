# Runs the macOS sources on Linux. They need the CoreFoundation and libdispatch of a Swift toolchain, which no package provides.

# Prints why they cannot run here, or nothing. Searches the places that cmake/SwiftToolchain.cmake searches.
why_no_apple_tests() {
  local place
  if is_mac; then echo "a Mac runs them as what they are"; return; fi
  if [ "$(uname -m)" != x86_64 ]; then echo "they run on x86-64 only"; return; fi
  for place in "${PALAVER_SWIFT_BIN:+$PALAVER_SWIFT_BIN/swiftc}" "$(command -v swiftc || true)"; do
    if [ -n "$place" ] && [ -x "$place" ]; then
      # The project does not install what the compiler itself needs, such as libncurses6.
      "$place" --version >/dev/null 2>&1 || { echo "$place does not start"; return; }
      set_up apple
      command -v clang++-14 >/dev/null || echo "clang++-14 is missing (packages/debian-apple.txt)"
      return
    fi
  done
  echo "there is no Swift toolchain (swiftc on the PATH, or PALAVER_SWIFT_BIN=/path/to/bin)"
}

# preset, then ctest's options
run_apple_tests() {
  local reason
  reason=$(why_no_apple_tests)
  if [ -n "$reason" ]; then
    note_unchecked "the macOS sources on Linux ($1) were neither compiled nor run: $reason"
    return 0
  fi
  run_tests "$@"
}
