// A client of the KAVRO gateway with nothing but Node (18 or later).
// KAVRO_URL=http://HOST:8080 KAVRO_USER=admin KAVRO_PASSWORD=... node kavro.mjs ORDER
// ORDER: info | rename CHANNEL NAME | search TRACK FROM TO | alerts [COUNT]
import { createHash, randomBytes } from "node:crypto";
import { setTimeout as sleep } from "node:timers/promises";

const { KAVRO_URL: URL, KAVRO_USER: USER, KAVRO_PASSWORD: PASSWORD } = process.env;
const ANSWER_TIME = 75_000; // the gateway itself gives a device up after 70 s
const SILENCE = 20_000; // without a byte of a stream, which has a heartbeat every 5 s
let [challenge, count] = [undefined, 0]; // one login for all requests

const fields = (header) =>
  Object.fromEntries([...(header ?? "").matchAll(/(\w+)="?([^",]+)/g)].map(([, ...field]) => field));
const md5 = (...parts) => createHash("md5").update(parts.join(":")).digest("hex");
const unescape = (text) => text.replaceAll("&lt;", "<").replaceAll("&gt;", ">").replaceAll("&amp;", "&");
const escape = (text) => text.replaceAll("&", "&amp;").replaceAll("<", "&lt;");
const element = (xml, name) => unescape(xml.match(new RegExp(`<${name}>([^<]*)<`))?.[1] ?? "");

function authorization(method, path) {
  const { realm, nonce } = challenge;
  const nc = (++count).toString(16).padStart(8, "0"); // a count is used once; a used one is refused
  const own = randomBytes(8).toString("hex");
  const response = md5(md5(USER, realm, PASSWORD), nonce, nc, own, "auth", md5(method, path));
  return `Digest username="${USER}", realm="${realm}", nonce="${nonce}", uri="${path}", ` +
    `qop=auth, nc=${nc}, cnonce="${own}", algorithm=MD5, response="${response}"`;
}

// What the gateway itself could not do is told in JSON.
function refusal(status, text) {
  const reason = text.startsWith("{") ? JSON.parse(text).subStatusCode : element(text, "subStatusCode");
  const lasting = status < 500 && reason !== "tooManyAlertStreams";
  return Object.assign(new Error(`${status} ${reason}`), { lasting });
}

// The response, unread; after a challenge the request is sent once more.
async function ask(method, path, body, signal = AbortSignal.timeout(ANSWER_TIME)) {
  for (let attempt = 0; ; ++attempt) {
    const headers = challenge ? { Authorization: authorization(method, path) } : {};
    const response = await fetch(URL + path, { method, headers, body, signal });
    const { nextnonce } = fields(response.headers.get("Authentication-Info"));
    if (nextnonce) [challenge.nonce, count] = [nextnonce, 0];
    if (response.ok) return response;
    const offered = fields(response.headers.get("WWW-Authenticate"));
    if (response.status !== 401 || attempt || (challenge && !/true/i.test(offered.stale))) {
      throw refusal(response.status, await response.text());
    }
    await response.arrayBuffer(); // read, so that the connection serves the next request
    [challenge, count] = [offered, 0];
  }
}
const document = async (...request) => (await ask(...request)).text();

// Head and text of each part of the alert stream, until it ends.
async function* parts() {
  const silent = new AbortController();
  const timer = setTimeout(() => silent.abort(), SILENCE);
  const stream = await ask("GET", "/KAVRO/Event/notification/alertStream", undefined, silent.signal);
  let bytes = Buffer.alloc(0);
  for await (const more of stream.body) {
    timer.refresh();
    bytes = Buffer.concat([bytes, more]);
    for (let start; (start = bytes.indexOf("\r\n\r\n") + 4) > 3;) {
      const head = bytes.toString("latin1", 0, start);
      const end = start + Number(head.match(/Content-Length: (\d+)/)[1]);
      if (bytes.length < end) break;
      yield [head, bytes.toString("utf8", start, end)];
      bytes = bytes.subarray(end);
    }
  }
}

// Alarms for ever; a broken stream is opened again, a second later at first, then less often.
async function* alerts() {
  for (let delay = 1; ; delay = Math.min(2 * delay, 30)) {
    try {
      for await (const [head, text] of parts()) {
        delay = 1;
        const json = head.includes("json") && JSON.parse(text);
        if (!text.includes("Heart Beat")) yield (name) => (json ? json[name] : element(text, name));
      }
    } catch (fault) {
      if (fault.lasting) throw fault;
    }
    await sleep(delay * 1000);
  }
}

const orders = {
  async info() {
    const info = await document("GET", "/KAVRO/System/deviceInfo");
    console.log(...["deviceName", "model", "serialNumber"].map((name) => element(info, name)));
  },
  async rename(channel, name) {
    const path = `/KAVRO/Streaming/channels/${channel}`;
    const text = await document("GET", path); // edited and put back whole, elements in their order
    const named = text.replace(/(<channelName>)[^<]*/, (_, tag) => tag + escape(name));
    console.log(element(await document("PUT", path, named), "statusString"));
  },
  async search(track, begin, end, position = 0) {
    const result = await document("POST", "/KAVRO/ContentMgmt/search", `<CMSearchDescription>
      <trackIDList><trackID>${track}</trackID></trackIDList><timeSpanList><timeSpan>
      <startTime>${begin}</startTime><endTime>${end}</endTime></timeSpan></timeSpanList>
      <maxResults>20</maxResults><searchResultPostion>${position}</searchResultPostion>
      </CMSearchDescription>`);
    const matches = result.split("<searchMatchItem>").slice(1);
    for (const match of matches) console.log(element(match, "startTime"), element(match, "playbackURI"));
    const more = matches.length && element(result, "responseStatusStrg").toLowerCase() === "more";
    if (more) await this.search(track, begin, end, position + matches.length);
  },
  async alerts(most = Infinity) {
    for await (const value of alerts()) {
      console.log(value("eventType"), value("eventState"), value("channelName"));
      if (--most === 0) return;
    }
  },
};

const [order, ...words] = process.argv.slice(2);
await orders[order](...words).catch((fault) => console.error(`refused: ${fault.message}`) ?? process.exit(1));
process.exit();
