// What the gateway does for one resource, in Go: checks the Digest login, asks the device, writes
// its JSON as XML. A peer of bench/proxy_comparison.py, which checks that the XML is the gateway's.
package main

import (
	"bytes"
	"crypto/md5"
	"crypto/rand"
	"encoding/hex"
	"encoding/json"
	"encoding/xml"
	"fmt"
	"io"
	"log"
	"net/http"
	"os"
	"strconv"
	"strings"
	"sync"
)

const realm, user = "KAVRO", "admin"

var (
	ha1    = digest(user, realm, os.Getenv("BENCH_PASSWORD"))
	lock   sync.Mutex
	counts = map[string]uint64{} // the highest nonce count of each nonce
	fields = []string{"deviceName", "deviceID", "deviceDescription", "model", "serialNumber",
		"macAddress", "firmwareVersion", "firmwareReleasedDate", "bootVersion", "deviceType"}
	device = &http.Client{Transport: &http.Transport{MaxIdleConnsPerHost: 2048, DisableCompression: true}}
)

func digest(parts ...string) string {
	sum := md5.Sum([]byte(strings.Join(parts, ":")))
	return hex.EncodeToString(sum[:])
}

func challenge(w http.ResponseWriter) {
	random := make([]byte, 16)
	rand.Read(random)
	nonce := hex.EncodeToString(random)
	lock.Lock()
	counts[nonce] = 0
	lock.Unlock()
	w.Header().Set("WWW-Authenticate",
		`Digest qop="auth", realm="`+realm+`", nonce="`+nonce+`", stale="FALSE"`)
	w.WriteHeader(401)
}

func credentials(header string) map[string]string {
	given := map[string]string{}
	if !strings.HasPrefix(header, "Digest ") {
		return given
	}
	for _, each := range strings.Split(header[len("Digest "):], ",") {
		name, value, _ := strings.Cut(strings.TrimSpace(each), "=")
		given[name] = strings.Trim(value, `"`)
	}
	return given
}

func isFresh(nonce, nc string) bool {
	count, err := strconv.ParseUint(nc, 16, 32)
	lock.Lock()
	defer lock.Unlock()
	last, known := counts[nonce]
	if err != nil || !known || count <= last {
		return false
	}
	counts[nonce] = count
	return true
}

func isRight(w http.ResponseWriter, r *http.Request) bool {
	given := credentials(r.Header.Get("Authorization"))
	if given["username"] != user || given["realm"] != realm || given["uri"] != r.RequestURI {
		return false
	}
	common := []string{ha1, given["nonce"], given["nc"], given["cnonce"], "auth"}
	right := digest(append(common, digest(r.Method, r.RequestURI))...)
	if given["response"] != right || !isFresh(given["nonce"], given["nc"]) {
		return false
	}
	w.Header().Set("Authentication-Info", fmt.Sprintf(`rspauth="%s", cnonce="%s", qop=auth, nc=%s`,
		digest(append(common, digest("", r.RequestURI))...), given["cnonce"], given["nc"]))
	return true
}

func translate(body []byte) ([]byte, error) {
	var document struct{ DeviceInfo map[string]any }
	if err := json.Unmarshal(body, &document); err != nil {
		return nil, err
	}
	var out bytes.Buffer
	out.WriteString(`<?xml version="1.0" encoding="UTF-8"?><DeviceInfo>`)
	for _, name := range fields {
		if value, there := document.DeviceInfo[name]; there {
			out.WriteString("<" + name + ">")
			xml.EscapeText(&out, []byte(fmt.Sprint(value)))
			out.WriteString("</" + name + ">")
		}
	}
	out.WriteString("</DeviceInfo>")
	return out.Bytes(), nil
}

func serve(w http.ResponseWriter, r *http.Request) {
	if !isRight(w, r) {
		challenge(w)
		return
	}
	reply, err := device.Get(os.Args[2] + r.URL.Path + "?format=json&devIndex=1")
	if err != nil {
		http.Error(w, err.Error(), 502)
		return
	}
	defer reply.Body.Close()
	body, err := io.ReadAll(reply.Body)
	if err == nil {
		body, err = translate(body)
	}
	if err != nil {
		http.Error(w, err.Error(), 502)
		return
	}
	w.Header().Set("Content-Type", "application/xml")
	w.Write(body)
}

// peer PORT DEVICE-URL
func main() {
	log.Fatal(http.ListenAndServe("127.0.0.1:"+os.Args[1], http.HandlerFunc(serve)))
}
