# Makes the packages for Linux, installs each in a clean place and transcribes with it, and makes them twice.

# Prints the time of all files in packages, in s since the Unix epoch: that of the last commit, or of the newest file.
package_time() {
  if [ -n "${SOURCE_DATE_EPOCH-}" ]; then
    echo "$SOURCE_DATE_EPOCH"
  elif [ -e .git ]; then
    git log -1 --format=%ct
  else
    find . -path ./build -prune -o -type f -printf '%T@\n' | sort -n | tail -n 1 | cut -d . -f 1
  fi
}

# Makes all packages in build/packages. The log is build/logs/package.log.
make_packages() {
  local folder=build/packages work=build/packages/work log=build/logs/package.log
  rm -rf "$folder"
  mkdir -p "$work" build/logs
  build package
  {
    (cd build/package && cpack -B "$root/$work/cpack") &&
      mv "$work"/cpack/palaver-stt* "$folder/" &&
      cmake --install build/package --strip --prefix "$root/$work/programs" &&
      python3 tools/package/make.py source "$folder" &&
      python3 tools/package/make.py npm "$folder" "$work/programs" &&
      python3 tools/package/make.py wheel "$folder" "$work/programs" &&
      python3 tools/package/make.py formula "$folder" "${PALAVER_SOURCE_URL:-$(source_url)}"
  } >>"$log" 2>&1 </dev/null || show_failure "packaging" "$log"
  rm -rf "$work"
}

# A name that never resolves: the formula needs the place where the sources are published.
source_url() { echo "https://palaver-stt.invalid/$(cd build/packages && echo palaver-stt-*-source.tar.gz)"; }

# Runs the tests of the packages, and prints one line for each.
test_packages() {
  local started=$SECONDS log=build/logs/package-tests.log status=0 total skipped failed
  say "testing the packages"
  python3 tests/packages/packages_test.py build/packages >"$log" 2>&1 </dev/null || status=$?
  sed -n 's/^\(test_[a-z_]*\) .*\.\.\. \(.*\)$/  \1: \2/p' "$log" | sed -e 's/test_//' -e 's/_/ /g'
  total=$(sed -n 's/^Ran \([0-9]*\) tests\{0,1\} in .*/\1/p' "$log")
  skipped=$(grep -c '\.\.\. skipped' "$log" || true)
  failed=$(grep -c '\.\.\. \(FAIL\|ERROR\)' "$log" || true)
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$log" >&2
    [ "$failed" -gt 0 ] || failed=1
  fi
  note_part packages $((${total:-0} - failed - skipped)) "$failed" "$skipped" $((SECONDS - started))
}

# Unpacks the source archive elsewhere, makes the packages from it without any cache, and compares the bytes.
compare_packages() {  # options...
  local started=$SECONDS again=build/packages-again
  rm -rf "$again"
  mkdir -p "$again"
  tar -xzf build/packages/palaver-stt-*-source.tar.gz -C "$again"
  local tree
  tree=$(echo "$again"/palaver-stt-*-source)
  mkdir -p "$tree/build"
  [ ! -d build/speech ] || ln -s "$root/build/speech" "$tree/build/speech"
  say "making the packages a second time, from their source archive"
  CCACHE_DISABLE=1 "$tree/dev" package --only-make "$@" </dev/null
  (cd build/packages && sha256sum -- *) >"$again/first"
  (cd "$tree/build/packages" && sha256sum -- *) >"$again/second"
  if diff "$again/first" "$again/second" >&2; then
    say "  two builds: the same bytes"
    note_part reproducible 1 0 0 $((SECONDS - started))
    rm -rf "$tree"
  else
    say "  two builds: other bytes; compare build/packages with $tree/build/packages"
    note_part reproducible 0 1 0 $((SECONDS - started))
  fi
}

run_packages() {  # [--with-sherpa] [--once | --only-make]
  local twice=1 tests=1 options=() option
  [ "$(uname -s)" = Linux ] || fail "packages are made on Linux; on a Mac the application holds the helper (docs/shipping.md)"
  for option in "$@"; do
    case $option in
      --with-sherpa) options=(--with-sherpa) ;;
      --once) twice=0 ;;
      --only-make) twice=0 tests=0 ;;
      *) fail_usage "package takes --with-sherpa, --once and --only-make, not '$option'" ;;
    esac
  done
  SOURCE_DATE_EPOCH=$(package_time)
  export SOURCE_DATE_EPOCH
  umask 022
  set_up build test package
  set_up_speech
  mkdir -p build/logs
  cmake --preset package "-DPALAVER_PACKAGE_SHERPA=$([ ${#options[@]} -eq 0 ] && echo OFF || echo ON)" >build/logs/package.log 2>&1 ||
    show_failure "configuring (package)" build/logs/package.log
  make_packages
  [ "$tests" = 0 ] || test_packages
  [ "$twice" = 0 ] || compare_packages ${options[@]+"${options[@]}"}
  (cd build/packages && sha256sum -- * && du -k -- * | awk '{ printf "%6d kB  %s\n", $1, $2 }')
  report_tests
}
