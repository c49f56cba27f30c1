# Installs missing packages of packages/*.txt. Needs no network when all are present.

# Prints the names in package lists, without comments and empty lines.
packages_in() { sed -e 's/#.*//' -e 's/[[:space:]]//g' -e '/^$/d' "$@"; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    fail "installing packages needs root, and there is no sudo: run as root: $*"
  fi
}

set_up_debian() {  # lists...
  local missing="" name list
  for list in "$@"; do
    for name in $(packages_in "packages/debian-$list.txt"); do
      if [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" != installed ]; then
        missing="$missing $name"
      fi
    done
  done
  [ -n "$missing" ] || return 0
  say "installing Debian packages as root:$missing"
  mkdir -p build/logs
  local log=build/logs/packages.log
  # shellcheck disable=SC2086 # one word per package
  {
    as_root apt-get update &&
      as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
  } 2>&1 </dev/null | tee "$log" | show_installation || {
    tail -n 20 "$log" >&2
    fail "the packages could not be installed; log: $log"
  }
}

# Shows what apt-get downloads and how far it is.
show_installation() {
  local terminal=0
  [ ! -t 1 ] || terminal=1
  awk -v terminal="$terminal" '
    /^Need to get / { sub(/^Need to get /, ""); sub(/ of archives.*/, ""); print "fetching " $0; fflush() }
    / newly installed, / { total = $3 }
    terminal && /^Get:/ && total { printf "\r\033[Kfetching %s, %d of %d", $5, ++fetched, total; fflush() }
    terminal && /^Setting up / && total { printf "\r\033[Ksetting up %s, %d of %d", $3, ++ready, total; fflush() }
    END { if (terminal && (fetched || ready)) printf "\r\033[K" }' >&2
}

set_up_mac() {
  command -v brew >/dev/null || fail "Homebrew is needed to install the packages of packages/homebrew.txt"
  local missing="" name
  for name in $(packages_in packages/homebrew.txt); do
    brew list --formula "$name" >/dev/null 2>&1 || missing="$missing $name"
  done
  [ -n "$missing" ] || return 0
  say "installing Homebrew formulae:$missing"
  # shellcheck disable=SC2086
  brew install $missing
}

set_up() {  # lists...
  if is_mac; then
    set_up_mac
  elif is_debian; then
    set_up_debian "$@"
  else
    note_skipped "set-up: this is neither Debian nor macOS; packages/debian-*.txt list what is needed"
  fi
}
