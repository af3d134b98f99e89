-- Makes the seed corpora of the harnesses from real records, real log lines,
-- real configuration and keys made with the openssl command line. Run from
-- the source folder against a normal build:
--   LUA_CPATH="build/?.so;;" lua5.2 fuzz/seeds.lua
-- Seeds that replay fixed findings are written by hand and kept apart
-- (named finding-*); this script leaves them alone.
-- The driver interface's harnesses (fuzz_nflog, fuzz_capture_*, fuzz_ssl_frames)
-- get their seeds from fuzz/driver_seeds.py instead.
local norv = require "norv"
local norvi = require "norvi"
assert(require "vexil")

local corpus = "fuzz/corpus/"
local scratch = io.popen("mktemp -d /tmp/vexil-seeds-XXXXXX"):read("*l")

local function sh(command)
  assert(os.execute("cd '" .. scratch .. "' && (" .. command .. ") >/dev/null 2>&1"), command)
end

local function read(path)
  local file = assert(io.open(path, "rb"))
  local bytes = file:read("*a")
  file:close()
  return bytes
end

local function put(harness, name, bytes)
  local file = assert(io.open(corpus .. harness .. "/seed-" .. name, "wb"))
  file:write(bytes)
  file:close()
end

local function u16(n) return string.char(n % 256, math.floor(n / 256) % 256) end
local function u32(n) return u16(n % 65536) .. u16(math.floor(n / 65536)) end
local function u64(n) return u32(n % 4294967296) .. u32(math.floor(n / 4294967296)) end

local function merged(...)
  local record = {}
  for _, fields in ipairs { ... } do
    for k, v in pairs(fields) do record[k] = v ~= false and v or nil end
  end
  return record
end

-- Records: a denied TCP SYN, a payload detection, IPv6, ICMP, an Ethernet
-- frame, a fragment, and one with a note, trailing data and packet bytes.
local PACKET = {
  time_sec = 1700000000, time_usec = 250, end_time_sec = 1700000002, end_time_usec = 750,
  count = 1, flags = 0x10 + 0x40, iph_proto = 6, iph_src = "192.0.2.7",
  iph_dest = "198.51.100.2", iph_total_len = 60, iph_frag_off = 0x4000, packet_len = 60,
  th_sport = 40123, th_dport = 23, tcph_flags = 0x02, action = 1, id = 1042,
  interface_index = 5,
}
local records = {
  packet = { PACKET },
  payload = { merged(PACKET, { reason = -1, id = 4711, action = 0x82, flags = 0x10 + 0x40 + 0x02,
                               packet_len = 400, th_dport = 80, tcph_flags = 0x18,
                               iph_frag_off = 0, note = "abc", log_flags = 0x08,
                               packet_pos = 120, stream_pos = 4096 }) },
  ipv6 = { merged(PACKET, { flags = 0x20 + 0x40, th_sport = 443, th_dport = 51000,
                            tcph_flags = 0x12, iph_src = false, iph_dest = false,
                            iph_proto = false, iph_frag_off = false, iph_total_len = false }) },
  icmp = { merged(PACKET, { iph_proto = 1, icmph_type = 8, icmph_code = 0, th_sport = false,
                            th_dport = false, tcph_flags = false }) },
  ethernet = { merged(PACKET, { flags = 0x08 + 0x10 + 0x40, eth_dest = "\0\1\2\3\4\5",
                                eth_type = 0x0800, eth_src = "\10\11\12\13\14\15",
                                interface_mac = "\0\17\34\51\68\85\0\0" }) },
  fragment = { merged(PACKET, { iph_frag_off = 0x2010, tcph_flags = 0x29 }) },
  data = { merged(PACKET, { note = "\1\2binary", log_flags = 0x02, data_len = 8,
                            packet_data_len = 6 }), "trailing", "packet" },
  probe = { merged(PACKET, { tcph_flags = 0x00, iph_frag_off = 0x4000, reason = 3 }) },
}

for name, r in pairs(records) do
  local record = norvi.EncodeRecord(r[1])
  local data, packet = r[2] or "", r[3] or ""
  local entry = record .. u16(#data) .. data .. u16(#packet) .. packet
  -- Twice over, so that the cache merges the two.
  put("fuzz_log_record", name .. "-0", "\0" .. entry)
  put("fuzz_log_record", name .. "-1", "\1" .. entry .. entry)
  for mode = 0, 5 do
    if mode % 2 == 1 or name == "payload" or name == "packet" then
      put("fuzz_syslog", name .. "-" .. mode, string.char(mode) .. record .. data)
    end
  end
end

-- Address lists and flag texts.
local lists = {
  "10.1.*.*, 192.168.0.0/24, 1.2.3.4-1.2.3.9",
  "172.16.0.0/255.240.0.0,,  8.8.8.8",
  "10.0.0.1-10.0.0.0 1.2/33 -5 *.*.*.*",
  "192.0.2.* 0.0.0.0/1 255.255.255.255",
}
for i, text in ipairs(lists) do put("fuzz_ip_list", "list-" .. i, "\0" .. text) end
local flags = { "0x10, 0;3", "18 022 0x12", "256, -1; 99999999999999999999\t0x02" }
for i, text in ipairs(flags) do put("fuzz_ip_list", "flags-" .. i, "\1" .. text) end

-- Real log lines: the records above written by a log object, then read back.
do
  local dom = SLB.norv.Dom(":memory:")
  local log = SLB.vexil.LogData(dom)
  log:SetLogFilePath(scratch)
  log:SetLogFileName("lines")
  local config = {
    packetFilterLog = { cacheSize = 0 }, payloadFilterLog = { cacheSize = 0 },
    trafficAnalysisConfiguration = {}, probeConfigurationMap = {},
    packetFilterMap = { [1042] = { name = "Block telnet", filterAction = 0 } },
    payloadFilterMap = { [4711] = { name = "Web Attack", severity = 2, identifier = "4711",
                                    incoming = true } },
  }
  for _, r in pairs(records) do
    log:WriteLogData(norvi.EncodeRecord(r[1]), r[2] or "", config, r[3])
  end
  log:FlushBufferedData(true)
  log = nil
  collectgarbage()
  local lines = read(scratch .. "/lines")
  local function head(mode, startTime, endTime)
    return string.char(mode) .. u64(startTime) .. u64(endTime) .. u16(100)
  end
  put("fuzz_read_back", "open", head(0, 0, 0) .. lines)
  put("fuzz_read_back", "payload", head(1, 0, 0) .. lines)
  put("fuzz_read_back", "span", head(0, 1699999990, 1700000010) .. lines)
  put("fuzz_read_back", "nosink", head(4, 0, 0) .. lines)
  put("fuzz_read_back", "copies",
      head(16, 0, 0) .. u16(#lines) .. lines .. u16(#lines) .. lines .. lines)
  put("fuzz_read_back", "damaged", head(0, 0, 0) .. lines:sub(1, 90) .. "\0\1\2" .. lines:sub(91))
end

-- Keys, made by the openssl command line.
sh("openssl genrsa -out rsa.pem 1024")
sh("openssl rsa -in rsa.pem -traditional -out traditional.pem")
sh("openssl pkcs8 -topk8 -in rsa.pem -passout pass:pw -out encrypted.pem")
sh("openssl req -x509 -new -key rsa.pem -subj /CN=seed -days 2 -out cert.pem")
sh("openssl pkcs12 -export -in cert.pem -inkey rsa.pem -passout pass:pw -out key.p12")
sh("openssl base64 -A -in key.p12 -out key.p12.b64")
local function key(mode, passphrase, material)
  return string.char(mode, #passphrase) .. passphrase .. material
end
put("fuzz_rsa_key", "pem", key(0, "", read(scratch .. "/rsa.pem")))
put("fuzz_rsa_key", "traditional", key(0, "", read(scratch .. "/traditional.pem")))
put("fuzz_rsa_key", "encrypted", key(0, "pw", read(scratch .. "/encrypted.pem")))
put("fuzz_rsa_key", "encrypted-wrong", key(0, "px", read(scratch .. "/encrypted.pem")))
put("fuzz_rsa_key", "cert-only", key(0, "", read(scratch .. "/cert.pem")))
put("fuzz_rsa_key", "p12", key(1, "pw", read(scratch .. "/key.p12")))
put("fuzz_rsa_key", "p12-text", key(3, "pw", read(scratch .. "/key.p12.b64")))
put("fuzz_rsa_key", "pem-file", key(4, "", read(scratch .. "/rsa.pem")))
put("fuzz_rsa_key", "p12-file", key(5, "pw", read(scratch .. "/key.p12")))

-- Configuration documents.
local credential = '<SSLCredential id="%d" name="%s" credentialType="%s" identifier="%s" ' ..
                   'passphrase="%s" details="" credential="%s"/>'
local host = '<SSLHostConfiguration id="%d" name="%s" allInterfaces="%s" sslCredentialId="%d" ' ..
             'specificIP="%s"><AddressInfo/></SSLHostConfiguration>'
local function document(credentials, hosts)
  return "<SecurityConfiguration><SSLCredentials>" .. credentials ..
         "</SSLCredentials><SSLHostConfigurations>" .. hosts ..
         "</SSLHostConfigurations></SecurityConfiguration>"
end
put("fuzz_ssl_config", "two",
    document(credential:format(1, "web &amp; mail", "PEM", "/k/a.pem", "a&quot;b", "") ..
             credential:format(2, "store", "CAPI", "MY;00", "", ""),
             host:format(1, "intranet", "true", 1, "") ..
             host:format(2, "dmz", "false", 2, "192.0.2.4")))
put("fuzz_ssl_config", "blob",
    document(credential:format(3, "p12", "P12", "", "pw", read(scratch .. "/key.p12.b64")), ""))
put("fuzz_ssl_config", "empty", document("<SSLCredential/>", "<SSLHostConfiguration/>"))

-- SSL requests for the request harness's key (fuzz/keys/service.pem).
sh("printf 'premaster-secret-of-48-bytes-0123456789abcdefghi' > secret.bin")
sh("openssl rsa -in '" .. os.getenv("PWD") .. "/fuzz/keys/service.pem' -pubout -out service.pub")
sh("openssl pkeyutl -encrypt -pubin -inkey service.pub -in secret.bin -out secret.ct")
local cipher = read(scratch .. "/secret.ct")
local function request(length, id, method, major, minor, data)
  return u32(length) .. u32(id) .. string.rep("c", 56) .. u32(method) ..
         string.char(major, minor) .. string.rep("\0", 10) .. data
end
put("fuzz_ssl_request", "ssl3", request(#cipher, 1, 1, 3, 0, cipher))
put("fuzz_ssl_request", "tls", request(#cipher + 2, 1, 1, 3, 3, u16(#cipher) .. cipher))
put("fuzz_ssl_request", "no-credential", request(#cipher, 2, 1, 3, 0, cipher))
put("fuzz_ssl_request", "unknown-id", request(#cipher, 7, 1, 3, 0, cipher))
put("fuzz_ssl_request", "bad-method", request(#cipher, 1, 2, 3, 0, cipher))
put("fuzz_ssl_request", "too-long", request(#cipher + 1, 1, 1, 3, 0, cipher))
put("fuzz_ssl_request", "short-tls", request(1, 1, 1, 3, 1, "x"))

os.execute("rm -rf '" .. scratch .. "'")
