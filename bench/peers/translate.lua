-- What the gateway does for one resource, as a script of nginx: checks the Digest login, asks the
-- device, writes its JSON as XML. A peer of bench/proxy_comparison.py, which checks that the XML is
-- the gateway's.
local cjson = require "cjson.safe"
local fields = {"deviceName", "deviceID", "deviceDescription", "model", "serialNumber", "macAddress",
                "firmwareVersion", "firmwareReleasedDate", "bootVersion", "deviceType"}
local escapes = {["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;", ["\r"] = "&#13;"}
local realm, user = "KAVRO", "admin"
local ha1 = ngx.md5(user .. ":" .. realm .. ":" .. ngx.var.bench_password)
local counts = ngx.shared.counts  -- the highest nonce count of each nonce

local function challenge()
  local nonce = ngx.var.request_id
  counts:set(nonce, 0, 300)
  ngx.header["WWW-Authenticate"] = 'Digest qop="auth", realm="' .. realm .. '", nonce="' .. nonce ..
                                   '", stale="FALSE"'
  return ngx.exit(401)
end

local function isRight(given)
  if not given or given.username ~= user or given.realm ~= realm or given.qop ~= "auth" or
     given.uri ~= ngx.var.request_uri then
    return false
  end
  local ha2 = ngx.md5(ngx.req.get_method() .. ":" .. given.uri)
  local parts = {ha1, given.nonce, given.nc, given.cnonce, "auth", ha2}
  if ngx.md5(table.concat(parts, ":")) ~= given.response then return false end
  local last, count = counts:get(given.nonce), tonumber(given.nc, 16)
  if not last or not count or count <= last then return false end
  counts:set(given.nonce, count, 300)
  parts[6] = ngx.md5(":" .. given.uri)
  ngx.header["Authentication-Info"] = 'rspauth="' .. ngx.md5(table.concat(parts, ":")) ..
      '", cnonce="' .. given.cnonce .. '", qop=auth, nc=' .. given.nc
  return true
end

local function credentials()
  local header = ngx.var.http_authorization
  if not header or header:sub(1, 7) ~= "Digest " then return nil end
  local given = {}
  for name, quoted, plain in header:sub(8):gmatch('(%w+)="?([^",]*)"?([^,]*)') do
    given[name] = quoted ~= "" and quoted or plain
  end
  return given
end

if not isRight(credentials()) then return challenge() end
local answer = ngx.location.capture("/device" .. ngx.var.uri, {args = "format=json&devIndex=1"})
local document = answer.status == 200 and cjson.decode(answer.body)
if not document then return ngx.exit(502) end
local xml = {'<?xml version="1.0" encoding="UTF-8"?><DeviceInfo>'}
for _, name in ipairs(fields) do
  local value = document.DeviceInfo[name]
  if value ~= nil then
    xml[#xml + 1] = "<" .. name .. ">" .. tostring(value):gsub("[&<>\r]", escapes) .. "</" .. name .. ">"
  end
end
xml[#xml + 1] = "</DeviceInfo>"
local body = table.concat(xml)
ngx.header["Content-Type"] = "application/xml"
ngx.header["Content-Length"] = #body
ngx.print(body)
