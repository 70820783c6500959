// A client of the KAVRO gateway with nothing but Go's standard library; its login is in login.go.
//
// KAVRO_URL=http://HOST:8080 KAVRO_USER=admin KAVRO_PASSWORD=... kavro ORDER
// ORDER: info | rename CHANNEL NAME | search TRACK FROM TO | alerts [COUNT]
//
// go build -o kavro kavro.go login.go
package main

import (
	"bufio"
	"fmt"
	"html"
	"io"
	"log"
	"net/http"
	"os"
	"regexp"
	"strings"
	"time"
)

const alerts = "/KAVRO/Event/notification/alertStream"
const answerTime = 75 * time.Second // the gateway itself gives a device up after 70 s
const silence = 20 * time.Second    // without a line of a stream, which has a heartbeat every 5 s
const search = `<CMSearchDescription><trackIDList><trackID>%s</trackID></trackIDList><timeSpanList>
<timeSpan><startTime>%s</startTime><endTime>%s</endTime></timeSpan></timeSpanList>
<maxResults>20</maxResults><searchResultPostion>%d</searchResultPostion></CMSearchDescription>`

func find(text, pattern string) string { // the first text that the pattern's group stands for
	return append(regexp.MustCompile(pattern).FindStringSubmatch(text), "", "")[1]
}

func value(text, name string) string { // an element's, or a JSON member's: some alarms and faults
	return html.UnescapeString(find(text, "<"+name+">([^<]*)<")) + find(text, `"`+name+`"\s*:\s*"([^"]*)"`)
}

func document(method, path, body string) string {
	answer, err := ask(http.Client{Timeout: answerTime}, method, path, body)
	if err != nil {
		log.Fatalln("refused:", err)
	}
	text, _ := io.ReadAll(answer)
	return string(text)
}

// Shows the alarms of one stream until it ends, and of all no more than `most`.
func alarms(stream io.ReadCloser, most *int) {
	timer, reader, length := time.AfterFunc(silence, func() { stream.Close() }), bufio.NewReader(stream), 0
	for line, err := reader.ReadString('\n'); err == nil; line, err = reader.ReadString('\n') {
		fmt.Sscanf(line, "Content-Length: %d", &length)
		if line == "\r\n" && length > 0 { // the end of a part's head
			timer.Reset(silence)
			part := make([]byte, length)
			io.ReadFull(reader, part)
			show(string(part), most)
			length = 0
		}
	}
}

func show(text string, most *int) {
	if strings.Contains(text, "Heart Beat") {
		return
	}
	fmt.Println(value(text, "eventType"), value(text, "eventState"), value(text, "channelName"))
	if *most--; *most == 0 {
		os.Exit(0)
	}
}

func main() {
	log.SetFlags(0)
	switch words := append(os.Args[1:], "0"); words[0] {
	case "info":
		info := document("GET", "/KAVRO/System/deviceInfo", "")
		fmt.Println(value(info, "deviceName"), value(info, "model"), value(info, "serialNumber"))
	case "rename": // edited and put back whole, elements in their order
		path := "/KAVRO/Streaming/channels/" + words[1]
		parts := regexp.MustCompile("<channelName>[^<]*").Split(document("GET", path, ""), 2)
		text := strings.Join(parts, "<channelName>"+html.EscapeString(words[2]))
		fmt.Println(value(document("PUT", path, text), "statusString"))
	case "search":
		for position, more := 0, "more"; strings.EqualFold(more, "more"); {
			body := fmt.Sprintf(search, words[1], words[2], words[3], position)
			result := document("POST", "/KAVRO/ContentMgmt/search", body)
			for _, match := range strings.Split(result, "<searchMatchItem>")[1:] {
				fmt.Println(value(match, "startTime"), value(match, "playbackURI"))
				position++
			}
			more = value(result, "responseStatusStrg")
		}
	case "alerts": // a broken stream is opened again, a second later at first, then less often
		most, delay := 0, time.Second
		for fmt.Sscan(words[1], &most); ; time.Sleep(delay) {
			delay = delay * 2 % (31 * time.Second)
			if stream, err := ask(http.Client{}, "GET", alerts, ""); err == nil {
				delay = time.Second
				alarms(stream, &most)
			}
		}
	}
}
