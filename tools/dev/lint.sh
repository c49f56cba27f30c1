# Checks the sources: format, layers, clang-tidy. Each check runs even when an earlier one failed.

# Prints the files of the repository, including new ones, or all files where there is no repository.
tree_files() {
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files --cached --others --exclude-standard
  else
    find . \( -name .git -o -name build -o -name __pycache__ \) -prune -o -type f -print | sed 's|^\./||'
  fi | while IFS= read -r file; do if [ -f "$file" ]; then printf '%s\n' "$file"; fi; done
}

check_format() {
  tree_files | grep -E '\.(h|c|cpp|mm|m)$' | tr '\n' '\0' | xargs -0 -n 40 clang-format-14 --dry-run --Werror
}

# Checks the sources that the preset dev compiles, except the tests, which would double the time.
check_tidy() {
  local sources
  sources=$(sed -n 's|^  "file": "'"$root"'/\(.*\)",\{0,1\}$|\1|p' build/dev/compile_commands.json | grep -v '^tests/' | sort -u)
  [ -n "$sources" ] || { say "build/dev/compile_commands.json names no source"; return 1; }
  # Clang 14 takes the standard library's coroutines and Asio's for absent, as their feature macros are GCC's.
  printf '%s\n' "$sources" | tr '\n' '\0' | xargs -0 -n 2 -P "$(processors)" \
    clang-tidy-14 -p build/dev --quiet --header-filter="^$root/" \
    --extra-arg=-DASIO_HAS_CO_AWAIT --extra-arg=-DASIO_HAS_STD_COROUTINE --extra-arg=-D__cpp_impl_coroutine=201902L \
    --extra-arg=-Wno-unknown-warning-option 2>build/logs/clang-tidy-noise.log
}

# Checks the sources of macOS as the preset apple compiles them on Linux.
check_tidy_macos() {
  find platform/macos -name '*.cpp' -o -name '*.mm' | sort | tr '\n' '\0' | xargs -0 -n 2 -P "$(processors)" \
    clang-tidy-14 -p build/apple --quiet --header-filter="^$root/(analyzer|core|platform)/" 2>build/logs/clang-tidy-macos-noise.log
}

run_check() {  # description, function
  local started=$SECONDS
  if "$2"; then
    say "passed: $1 ($((SECONDS - started)) s)"
  else
    say "FAILED: $1"
    lint_status=1
  fi
}

run_lint() {
  lint_status=0
  mkdir -p build/logs
  if is_mac || ! is_debian; then
    note_skipped "format and clang-tidy; they are held on Debian's clang-format-14 and clang-tidy-14"
  else
    set_up build test lint
    run_check "format" check_format
  fi
  run_check "layers" tools/check-layers
  if is_debian && ! is_mac; then
    say "configuring (dev)"
    cmake --preset dev >build/logs/dev-configure.log 2>&1 || show_failure "configuring (dev)" build/logs/dev-configure.log
    run_check "clang-tidy" check_tidy
    local reason
    reason=$(why_no_apple_tests)
    if [ -n "$reason" ]; then
      note_skipped "clang-tidy over the sources of macOS, since $reason"
    else
      say "configuring (apple)"
      cmake --preset apple >build/logs/apple-configure.log 2>&1 || show_failure "configuring (apple)" build/logs/apple-configure.log
      run_check "clang-tidy over the sources of macOS" check_tidy_macos
    fi
  fi
  return "$lint_status"
}
