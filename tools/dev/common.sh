# Prints messages and identifies the machine, for ./dev.

say() { printf '%s\n' "$*" >&2; }
note_skipped() { say "skipped: $*"; }
fail() { printf 'error: %s\n' "$*" >&2; exit 1; }
fail_usage() { printf 'error: %s\n' "$*" >&2; exit 2; }

is_mac() { [ "$(uname -s)" = Darwin ]; }
is_debian() { command -v apt-get >/dev/null && command -v dpkg-query >/dev/null; }

processors() { getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2; }

# Runs a command without address randomization for the presets of the thread sanitizer. GCC 12 and clang 14 need their shadow
# memory free of mappings, which kernels with much randomization do not grant.
with_fixed_addresses() {  # preset, command...
  local preset=$1
  shift
  case $preset in
    thread | apple-thread)
      if command -v setarch >/dev/null && setarch "$(uname -m)" -R true 2>/dev/null; then
        set -- setarch "$(uname -m)" -R "$@"
      fi
      ;;
  esac
  "$@"
}
