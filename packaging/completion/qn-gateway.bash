# bash completion of qn-gateway; its keys, commands and their options come from the program itself.
_qn_gateway() {
  local current=$2 previous=$3 typed=" ${COMP_WORDS[*]:0:COMP_CWORD} " noun verb options words=
  while read -r noun verb options; do
    [[ $verb = --* ]] && options="$verb $options" verb=
    if [[ $typed = *" $noun $verb "* || ( -z $verb && $typed = *" $noun "* ) ]]; then
      words+=" $options"
    elif [[ $typed = *" $noun "* ]]; then
      words+=" $verb"
    else
      words+=" $noun"
    fi
  done < <("$1" --print-commands 2>/dev/null)
  case $previous in
    --config | --module | --password-file | --ca-file)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    --explain | --print)
      mapfile -t COMPREPLY < <(compgen -W "$("$1" --print-words 2>/dev/null)" -- "$current")
      ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W "--help --version --config --module --check-config
        --print --explain --print-defaults --print-manual $words" -- "$current")
      ;;
  esac
}
complete -o filenames -F _qn_gateway qn-gateway
