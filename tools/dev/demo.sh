# Makes the recordings of ./dev demo on a Mac, and prints the step that is missing there.

# The value of --locale among the arguments, or the default.
locale_of() {
  local locale=ja-JP
  while [ $# -gt 0 ]; do
    case $1 in
      --locale=*) locale=${1#*=} ;;
      --locale) locale=${2-} ;;
    esac
    shift
  done
  printf '%s\n' "$locale"
}

# Lets the system speak two recordings of 16 kHz, far side and microphone, and prints their paths.
make_demo_recordings() {  # folder, locale
  local voice far near
  case $2 in
    ja*) voice=Kyoko far="会議を始めます。今日の議題は予算です。" near="来週の金曜日までに資料を送ってください。" ;;
    en*) voice=Samantha far="Let us begin the meeting. Today we talk about the budget." near="Please send the documents by Friday of next week." ;;
    *) fail "there is no text to speak for $2; name recordings: ./dev demo FILE [FILE]" ;;
  esac
  mkdir -p "$1"
  say_to "$1/far.wav" "$voice" "$far"
  say_to "$1/near.wav" "$voice" "$near"
  printf '%s\n%s\n' "$1/far.wav" "$1/near.wav"
}

say_to() {  # file, voice, text
  command say -v "$2" -o "$1" --data-format=LEI16@16000 "$3" ||
    fail "the voice $2 is missing; download it in System Settings > Accessibility > Spoken Content"
}

# Prints the one step that is missing, if any, before the helper can transcribe.
print_missing_step() {  # helper
  local step
  step=$(python3 tools/dev/first_run.py --missing-step --helper "$1") || return 0
  [ -z "$step" ] || say "The helper cannot transcribe yet: $step"
}
