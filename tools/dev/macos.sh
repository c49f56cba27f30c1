# Cross-builds the binary for macOS with Zig and reads it back.

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
  # A PALAVER_ZIG that does not work is an error, not a reason to skip.
  [ -z "${PALAVER_ZIG-}" ] || find_zig >/dev/null
  if ! zig=$(find_zig); then
    note_unchecked "the arm64 build for macOS: it needs Zig (pip install ziglang, or PALAVER_ZIG=/path/to/zig)"
    return 0
  fi
  # Zig caches the standard library that it builds in the first minute.
  if [ -z "${HOME-}${XDG_CACHE_HOME-}" ]; then export ZIG_GLOBAL_CACHE_DIR="${ZIG_GLOBAL_CACHE_DIR:-$root/build/zig-cache}"; fi
  # CMake cannot change the compiler of a build directory.
  if ! grep -qsxF "PALAVER_ZIG:FILEPATH=$zig" build/macos-cross/CMakeCache.txt; then rm -rf build/macos-cross; fi
  PALAVER_ZIG=$zig build macos-cross
  local program=build/macos-cross/PalaverSTTHelper
  say "reading back (macos-cross): $program, $(wc -c <"$program" | tr -d ' ') bytes, by Zig $("$zig" version)"
  python3 tools/check-macho "$program" || fail "the binary for macOS is not as it has to be"
  # Shows that the check finds damage, on this binary.
  local log=build/logs/check-macho.log
  python3 tests/unit/tools/check_macho_test.py "$(project_version)" "$program" >"$log" 2>&1 ||
    show_failure "testing the check of the binary" "$log"
  note_part macos-cross "$(sed -n 's/^Ran \([0-9]*\) tests.*/\1/p' "$log")" 0 0 $((SECONDS - started))
}

# Prints the path of each program zig whose libc++ the sources are checked with: the one above, and the one of 0.13, with the
# libc++ 18 of about Xcode 16, where .ci/run puts it.
find_libcxx_zigs() {
  local old
  find_zig || return 1
  for old in "$root"/build/tools/zig-0.13/lib/python3*/site-packages/ziglang/zig; do
    if [ -x "$old" ]; then printf '%s\n' "$old"; fi
  done
}

# Checks that all C++ and Objective-C++ of the preset macos compiles, with the tests and the tools.
check_macos_sources() {
  local zig zigs started=$SECONDS log=build/logs/macos-sources.log status=0 good bad
  if is_mac; then note_unchecked "the sources of macOS against several versions of libc++: a Mac compiles them itself"; return; fi
  if ! zigs=$(find_libcxx_zigs); then
    note_unchecked "the sources of macOS: they need Zig (pip install ziglang, or PALAVER_ZIG=/path/to/zig)"
    return 0
  fi
  case $zigs in *zig-0.13*) ;; *) note_unchecked "the sources of macOS with libc++ 18: .ci/run installs Zig 0.13 for it" ;; esac
  zig=$(printf '%s\n' "$zigs" | head -n 1)
  mkdir -p build/logs
  say "checking (macos-sources)"
  # Configured only. The libraries of the tests are this machine's, for their headers.
  PALAVER_ZIG=$zig cmake -S . -B build/macos-sources -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/zig-macos-arm64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPALAVER_TESTS=ON -DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY \
    -DCMAKE_PREFIX_PATH=/usr -DCMAKE_LIBRARY_ARCHITECTURE="$(cc -print-multiarch 2>/dev/null || true)" >"$log" 2>&1 </dev/null ||
    show_failure "configuring (macos-sources)" "$log"
  local paths=() path
  while IFS= read -r path; do paths+=("$path"); done <<<"$zigs"
  tools/check-macos-sources build/macos-sources/compile_commands.json "${paths[@]}" 2>&1 | tee -a "$log" || status=$?
  good=$(sed -n 's/^\([0-9]*\) of [0-9]* sources compile .*/\1/p' "$log" | awk '{ n += $1 } END { print n + 0 }')
  bad=$(sed -n 's/^\([0-9]*\) of \([0-9]*\) sources compile .*/\1 \2/p' "$log" | awk '{ n += $2 - $1 } END { print n + 0 }')
  if [ "$status" -ne 0 ] && [ "$bad" -eq 0 ]; then bad=1; fi
  note_part macos-sources "$good" "$bad" 0 $((SECONDS - started))
}

project_version() { sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt; }
