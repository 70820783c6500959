# bash completion of qn-gateway; the words of --explain and --print come from the program itself.
_qn_gateway() {
  local current=$2 previous=$3
  case $previous in
    --config | --module)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    --explain | --print)
      mapfile -t COMPREPLY < <(compgen -W "$("$1" --print-words 2>/dev/null)" -- "$current")
      ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W "--help --version --config --module --check-config
        --print --explain --print-defaults --print-manual" -- "$current")
      ;;
  esac
}
complete -o filenames -F _qn_gateway qn-gateway
