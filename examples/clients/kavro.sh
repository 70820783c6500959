#!/usr/bin/env bash
# A client of the KAVRO gateway with bash, curl and sed.
#
# KAVRO_URL=http://HOST:8080 KAVRO_USER=admin KAVRO_PASSWORD=... kavro.sh ORDER
# ORDER: info | rename CHANNEL NAME | search TRACK FROM TO | alerts [COUNT]
set -euo pipefail
export LC_ALL=C  # lengths are in bytes

answer_time=75  # seconds; the gateway itself gives a device up after 70
silence=20      # seconds without a byte of a stream, which has a heartbeat every 5

# curl with the login, which it reads from a pipe so that no list of processes shows it. It answers
# the challenge by itself; each call begins with one.
ask() {  # path, further options of curl
  local path=$1
  shift
  curl --silent --show-error --digest --config <(quoted user "$KAVRO_USER:$KAVRO_PASSWORD") "$@" \
    "${KAVRO_URL%/}$path"
}
quoted() {
  local text=${2//\\/\\\\}
  printf '%s = "%s"\n' "$1" "${text//\"/\\\"}"
}

# The document of a good answer. A fault may come as XML or, from the gateway itself, as JSON.
document() {  # path, further options of curl
  local answer status
  answer=$(ask "$@" --max-time $answer_time --write-out '\n%{http_code}')
  status=${answer##*$'\n'}
  answer=${answer%$'\n'*}
  [ "$status" = 200 ] || { echo "refused: $status $(reason "$answer")" >&2; return 1; }
  printf '%s' "$answer"
}
reason() {
  sed -nE 's|.*<subStatusCode>([^<]*)<.*|\1|p; s|.*"subStatusCode" *: *"([^"]*)".*|\1|p' <<<"$1"
}

# The text of the first such element of a document.
text() {  # name, document
  local rest=${2#*"<$1>"}
  [ "$rest" != "$2" ] || return 0
  sed 's/&lt;/</g; s/&gt;/>/g; s/&quot;/"/g; s/&amp;/\&/g' <<<"${rest%%"</$1>"*}"
}
# The text of a JSON object's member; enough for alarms, which are told in JSON for some types.
member() { sed -nE 's|.*"'"$1"'" *: *"([^"]*)".*|\1|p' <<<"$2"; }
escaped() { sed 's/&/\&amp;/g; s/</\&lt;/g; s/>/\&gt;/g' <<<"$1"; }

rename() {  # channel, name
  local path=/KAVRO/Streaming/channels/$1 channel answer
  channel=$(document "$path")
  # Edited and put back whole, elements in their order.
  channel="${channel%%<channelName>*}<channelName>$(escaped "$2")</channelName>${channel#*</channelName>}"
  answer=$(document "$path" -X PUT --data-binary @- <<<"$channel")
  text statusString "$answer"
}

search() {  # track, from, to
  local position=0 result match matches more=more
  while [ "${more,,}" = more ]; do
    result=$(document /KAVRO/ContentMgmt/search --data-binary "<CMSearchDescription>
      <searchID>example</searchID><trackIDList><trackID>$1</trackID></trackIDList>
      <timeSpanList><timeSpan><startTime>$2</startTime><endTime>$3</endTime></timeSpan></timeSpanList>
      <maxResults>20</maxResults><searchResultPostion>$position</searchResultPostion>
      </CMSearchDescription>")
    mapfile -t matches < <(sed 's|<searchMatchItem>|\n&|g' <<<"$result" | grep '^<searchMatchItem>')
    for match in "${matches[@]}"; do
      echo "$(text startTime "$match") $(text playbackURI "$match")"
    done
    position=$((position + ${#matches[@]}))
    more=$(text responseStatusStrg "$result")
    [ ${#matches[@]} -gt 0 ] || return 0
  done
}

# Prints the alarms of the stream that it reads, `most` in all; ends with the stream.
alarms() {
  local line length="" body get fault
  while IFS= read -r line || [ -n "$line" ]; do
    case ${line%$'\r'} in
      Content-Type:*json*) get=member ;;
      Content-Type:*) get=text ;;
      Content-Length:*) length=${line//[!0-9]/} ;;
      "") # the end of a part's head, or a line break before a boundary
        [ -n "$length" ] || continue
        IFS= read -r -N "$length" body
        length=
        body=${body//$'\n'/ }
        [[ $body != *"Heart Beat"* ]] || continue
        echo "$($get eventType "$body") $($get eventState "$body") $($get channelName "$body")"
        [ $((most -= 1)) -ne 0 ] || exit 0 ;;
      "<"* | "{"*) fault=$(reason "$line") ;;
      4??) # the answer's status, at its end; no fault that passes
        [ "$fault" = tooManyAlertStreams ] || { echo "refused: $line $fault" >&2; exit 1; } ;;
    esac
  done
}

# Alarms for ever; a broken stream is opened again, a second later at first, then less often.
alerts() {
  local delay=1 began
  while true; do
    began=$SECONDS
    alarms < <(ask /KAVRO/Event/notification/alertStream --no-buffer --write-out '\n%{http_code}' \
      --speed-limit 1 --speed-time $silence 2>/dev/null)
    [ $((SECONDS - began)) -lt 30 ] || delay=1
    sleep $delay
    delay=$((delay < 16 ? delay * 2 : 30))
  done
}

case ${1:-} in
  info) info=$(document /KAVRO/System/deviceInfo)
    echo "$(text deviceName "$info") $(text model "$info") $(text serialNumber "$info")" ;;
  rename | search) "$@" ;;
  alerts) most=${2:-0} && alerts ;;
  *) sed -n '2,5s/^# \?//p' "$0" >&2; exit 2 ;;
esac
