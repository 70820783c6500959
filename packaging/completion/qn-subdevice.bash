# bash completion of qn-subdevice.
_qn_subdevice() {
  local current=$2 previous=$3 words
  case $previous in
    --type) words="IPCamera NVR DVR DVS HybirdNVR" ;;
    --port | --devices | --channels | --username | --password | --alarm-interval) return ;;
    *) words="--help --port --devices --type --channels --username --password --alarm-interval" ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _qn_subdevice qn-subdevice
