# The binary for macOS, cross-built on any system by Zig's compiler driver, and read back.

# Prints the path of the program zig: PALAVER_ZIG, or one on the PATH, or that of the Python package ziglang, also where
# .ci/run puts it. Fails where there is none.
find_zig() {
  local zig python
  if [ -n "${PALAVER_ZIG-}" ]; then
    "$PALAVER_ZIG" version >/dev/null 2>&1 || fail "PALAVER_ZIG is $PALAVER_ZIG, which is not a working zig"
    printf '%s\n' "$PALAVER_ZIG"
    return
  fi
  if zig=$(command -v zig) && "$zig" version >/dev/null 2>&1; then
    printf '%s\n' "$zig"
    return
  fi
  for python in python3 "$root/build/tools/zig/bin/python3"; do
    if zig=$("$python" -c 'import os, ziglang; print(os.path.join(os.path.dirname(ziglang.__file__), "zig"))' 2>/dev/null) &&
      "$zig" version >/dev/null 2>&1; then
      printf '%s\n' "$zig"
      return
    fi
  done
  return 1
}

check_macos_build() {
  local zig started=$SECONDS
  # A zig that PALAVER_ZIG names and that does not work is an error, not a reason to skip.
  [ -z "${PALAVER_ZIG-}" ] || find_zig >/dev/null
  if ! zig=$(find_zig); then
    note_unchecked "the arm64 build for macOS: it needs Zig (pip install ziglang, or PALAVER_ZIG=/path/to/zig)"
    return 0
  fi
  # Zig keeps the standard library that it builds first, for a minute or so, in the user's cache.
  if [ -z "${HOME-}${XDG_CACHE_HOME-}" ]; then export ZIG_GLOBAL_CACHE_DIR="${ZIG_GLOBAL_CACHE_DIR:-$root/build/zig-cache}"; fi
  # CMake keeps to the compiler that it began with.
  if ! grep -qsxF "PALAVER_ZIG:FILEPATH=$zig" build/macos-cross/CMakeCache.txt; then rm -rf build/macos-cross; fi
  PALAVER_ZIG=$zig build macos-cross
  local program=build/macos-cross/PalaverSTTHelper
  say "reading back (macos-cross): $program, $(wc -c <"$program" | tr -d ' ') bytes, by Zig $("$zig" version)"
  python3 tools/check-macho "$program" || fail "the binary for macOS is not as it has to be"
  # That the check finds damage, on this very binary.
  local log=build/logs/check-macho.log
  python3 tests/unit/tools/check_macho_test.py "$(project_version)" "$program" >"$log" 2>&1 ||
    show_failure "testing the check of the binary" "$log"
  note_part macos-cross "$(sed -n 's/^Ran \([0-9]*\) tests.*/\1/p' "$log")" 0 0 $((SECONDS - started))
}

project_version() { sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt; }
