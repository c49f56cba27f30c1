# Completes the commands, options and files of palaver-stt in bash.

_palaver_stt() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]-} options
  COMPREPLY=()
  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W 'transcribe doctor record replay report models --version --help' -- "$word")
    return
  fi
  case $previous in
    --helper | --output | -o | --scenario | --self | --vocabulary-file)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
    --locale)
      mapfile -t COMPREPLY < <(compgen -W 'de-DE en-GB en-US es-ES fr-FR it-IT ja-JP ko-KR pt-BR zh-CN' -- "$word")
      return
      ;;
    --format)
      mapfile -t COMPREPLY < <(compgen -W 'text srt vtt json' -- "$word")
      return
      ;;
    --rate | -r | --channels | -c | --speed | --vocabulary | --helper-argument) return ;;
  esac
  case $command in
    transcribe) options='--self --rate --channels --format --output --locale --vocabulary --vocabulary-file --speed --json --helper --helper-argument --help' ;;
    doctor) options='--locale --json --helper --help' ;;
    record) options='--redact --helper --help' ;;
    replay) options='--scenario --helper --help' ;;
    report) options='--output --help' ;;
    models)
      if [ "$COMP_CWORD" -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W 'list add check remove --help' -- "$word")
        return
      fi
      options='--locale --link --help'
      ;;
    *) return ;;
  esac
  if [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  else
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -F _palaver_stt palaver-stt
