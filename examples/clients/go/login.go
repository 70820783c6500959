// The login of the client in kavro.go, and its requests.
package main

import (
	"crypto/md5"
	"fmt"
	"io"
	"log"
	"net/http"
	"os"
	"strings"
	"time"
)

var challenge, count = "", 0 // one login for all requests

func md5Of(text string) string { return fmt.Sprintf("%x", md5.Sum([]byte(text))) }

func authorization(method, path string) string {
	count++ // a count is used once; a used one is refused
	user, realm, nonce := os.Getenv("KAVRO_USER"), find(challenge, `realm="(.*?)"`), find(challenge, `nonce="(.*?)"`)
	use := fmt.Sprintf("%08x:%x", count, time.Now().UnixNano())
	key := md5Of(user + ":" + realm + ":" + os.Getenv("KAVRO_PASSWORD"))
	response := md5Of(key + ":" + nonce + ":" + use + ":auth:" + md5Of(method+":"+path))
	return fmt.Sprintf(`Digest username="%s", realm="%s", nonce="%s", uri="%s", qop=auth, nc=%s, cnonce="%s", `+
		`algorithm=MD5, response="%s"`, user, realm, nonce, path, use[:8], use[9:], response)
}

// The answer's body; after a challenge the request is sent once more. Ends for a fault that stays.
func ask(client http.Client, method, path, body string) (io.ReadCloser, error) {
	request, _ := http.NewRequest(method, os.Getenv("KAVRO_URL")+path, strings.NewReader(body))
	known := challenge != ""
	if known {
		request.Header.Set("Authorization", authorization(method, path))
	}
	response, err := client.Do(request)
	if err != nil {
		return io.NopCloser(strings.NewReader("")), err
	} else if response.StatusCode == 200 {
		return response.Body, nil
	}
	text, _ := io.ReadAll(response.Body)
	offered, reason := response.Header.Get("WWW-Authenticate"), value(string(text), "subStatusCode")
	if response.StatusCode == 401 && (!known || strings.Contains(offered, `stale="TRUE"`)) {
		challenge, count = offered, 0
		return ask(client, method, path, body)
	} else if response.StatusCode < 500 && reason != "tooManyAlertStreams" {
		log.Fatalln("refused:", response.StatusCode, reason)
	}
	return response.Body, fmt.Errorf("%d %s", response.StatusCode, reason)
}
