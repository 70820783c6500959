# bash completion of qn-subdevice.
_qn_subdevice() {
  local current=$2 previous=$3 words
  case $previous in
    --type) words="IPCamera NVR DVR DVS HybirdNVR" ;;
    alarm) words="motion fieldDetection audioException AccessControllerEvent lineDetection videoLoss
      IO batteryStatus devStatusChanged FaceTemperatureMeasurementEvent LocalUserChange
      IDCardInfoEvent QRCodeEvent devXmlEvent" ;;
    fault) words="none refuse hang cut garbage empty reply large" ;;
    power) words="off on" ;;
    --day | --replay | --to)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --port | --devices | --channels | --username | --password | --alarm-interval | --day-speed | \
      --record | --device | --count | --per-second) return ;;
    *) words="--help --port --devices --type --channels --username --password --alarm-interval --day
      --day-speed --replay --record --to --device --count --per-second alarm fault reboot link power
      stream info expire-nonces unlock clear-log state" ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _qn_subdevice qn-subdevice
