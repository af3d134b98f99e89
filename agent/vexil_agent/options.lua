-- The command line of vexil-agent: parsing and the checks that can be made
-- before any work starts. Every mistake is an error value (nil, message), so
-- that the caller prints one line and exits without touching anything.
local socket = require "posix.sys.socket"

local options = {}

options.VERSION = "0.1.0"

options.USAGE = [[
Usage: vexil-agent (--pcap FILE | --nflog GROUP) [options]

Runs the vexil log pipeline, traffic analysis and SSL key service on a
capture (replay) or on live traffic (NFLOG), and prints a summary.

Input:
  --pcap FILE              replay a capture (pcap or pcapng)
  --host ADDR[,ADDR...]    the host's own addresses (replay; live: read from
                           the system when not given)
  --services LIST          allowed inbound services, e.g. tcp:22,tcp:80,udp:53
                           (live: required; '' lets in none)
  --nflog GROUP            live: install the ruleset (table inet vexil), read
                           NFLOG GROUP
  --duration SECONDS       live: stop after this long (SIGINT/SIGTERM also stop)

Configuration and output:
  --config FILE            the agent configuration table (a Lua file returning
                           it); a bundled default otherwise
  --base DIR               the base folder (default /var/lib/norv)
  --logs DIR               the log folder (default <base>/Logfiles/norv_agent)
  --setting KEY=VALUE      a host setting, such as
                           norvp.vexil.analysis.ScanTimeBinMillisec=10000
                           (may be given more than once)
  --block nft|none         carry block requests out in nftables (default live)
                           or only report them (default replay)
  --json                   print the summary as one JSON object on stdout

TLS:
  --keys FILE              the security configuration XML (SSL credentials and
                           host configurations)
  --ssl-keylog FILE        write one key log line per decrypted TLS handshake
  --ssl-socket PATH        live: where other processes submit SSL requests

Syslog:
  --syslog DEST            unix:PATH, udp:HOST:PORT or tcp:HOST:PORT
  --facility NAME          syslog facility: a name of syslog.h (daemon, auth,
                           local0...) or a number (default local0)
  --syslog-max BYTES       largest message sent (default: what the transport
                           carries: 65507 for UDP, 65536 otherwise)
  --cef                    send Common Event Format instead of the native form

  --help                   this text
  --version                the version
]]

-- Name -> kind: "flag" takes no value, anything else one value.
local KINDS = {
  pcap = "value", host = "value", services = "value", nflog = "value",
  duration = "value", config = "value", base = "value", logs = "value",
  block = "value", keys = "value", ["ssl-keylog"] = "value",
  ["ssl-socket"] = "value", syslog = "value", facility = "value",
  ["syslog-max"] = "value", setting = "list", cef = "flag", json = "flag",
  help = "flag", version = "flag",
}

-- The facility names of syslog.h; any other facility by its number, 0 to 23.
local FACILITIES = {
  kern = 0, user = 1, mail = 2, daemon = 3, auth = 4, syslog = 5, lpr = 6,
  news = 7, uucp = 8, cron = 9, authpriv = 10, ftp = 11, local0 = 16,
  local1 = 17, local2 = 18, local3 = 19, local4 = 20, local5 = 21,
  local6 = 22, local7 = 23,
}

local function readable(path)
  local file, reason = io.open(path, "rb")
  if not file then return nil, reason end
  -- A folder opens but cannot be read.
  local ok, readReason = file:read(0)
  file:close()
  if ok == nil and readReason then return nil, path .. ": " .. readReason end
  return true
end

-- An integer in [low, high] from text, or nil.
local function integer(text, low, high)
  if not text:match("^%d+$") then return nil end
  local value = tonumber(text)
  if value < low or value > high then return nil end
  return value
end

local function numeric_address(text)
  local found = socket.getaddrinfo(text, nil, { flags = socket.AI_NUMERICHOST })
  return found ~= nil and found[1] ~= nil
end

-- unix:PATH, udp:HOST:PORT or tcp:HOST:PORT (an IPv6 host in brackets) as a
-- table {transport, path} or {transport, host, port}.
function options.parse_destination(text)
  local transport, rest = text:match("^(%a+):(.+)$")
  if transport == "unix" then
    if #rest > 107 then return nil, "socket path longer than 107 bytes" end
    return { transport = "unix", path = rest }
  elseif transport == "udp" or transport == "tcp" then
    local host, port = rest:match("^%[([^%]]+)%]:(%d+)$")
    if not host then host, port = rest:match("^([^:]+):(%d+)$") end
    port = port and integer(port, 1, 65535)
    if not host or not port then
      return nil, "expected " .. transport .. ":HOST:PORT with a port of 1 to 65535"
    end
    return { transport = transport, host = host, port = port }
  end
  return nil, "expected unix:PATH, udp:HOST:PORT or tcp:HOST:PORT"
end

-- The option table from the argument list, or nil and the message.
function options.parse(arguments)
  local given = {}
  local index = 1
  while index <= #arguments do
    local argument = arguments[index]
    local name, inline = argument:match("^%-%-([%w-]+)=(.*)$")
    if not name then name = argument:match("^%-%-([%w-]+)$") end
    if not name then
      if argument == "-h" then name = "help" else
        return nil, "unexpected argument '" .. argument .. "' (see --help)"
      end
    end
    local kind = KINDS[name]
    if not kind then return nil, "unknown option --" .. name .. " (see --help)" end
    if given[name] ~= nil and kind ~= "list" then return nil, "--" .. name .. " given twice" end
    if kind == "flag" then
      if inline then return nil, "--" .. name .. " takes no value" end
      given[name] = true
    else
      local value = inline
      if value == nil then
        -- An option right behind is a forgotten value (--name=--x still works).
        index = index + 1
        value = arguments[index]
        if value == nil or value:match("^%-%-") then
          return nil, "--" .. name .. " needs a value"
        end
      end
      if kind == "list" then
        given[name] = given[name] or {}
        table.insert(given[name], value)
      else
        given[name] = value
      end
    end
    index = index + 1
  end
  return options.check(given)
end

-- Checks the options against each other and the file system; fills in the
-- derived fields (mode, addresses, numbers).
function options.check(given)
  if given.help or given.version then return given end
  local o = given
  if (o.pcap ~= nil) == (o.nflog ~= nil) then
    return nil, "give exactly one of --pcap FILE and --nflog GROUP"
  end
  o.mode = o.pcap and "replay" or "live"
  if o.pcap then
    local ok, reason = readable(o.pcap)
    if not ok then return nil, "cannot read the capture: " .. reason end
    for _, name in ipairs { "nflog", "duration", "ssl-socket" } do
      if o[name] then return nil, "--" .. name .. " is for live mode (--nflog)" end
    end
  else
    o.nflog_group = integer(o.nflog, 0, 65535)
    if not o.nflog_group then return nil, "--nflog: a group number of 0 to 65535 expected" end
  end
  -- Live, the ruleset lets in only these services: an agent started without
  -- them must not cut the host off by surprise.
  if o.mode == "live" and not o.services then
    return nil, "--nflog needs --services (the inbound services to let in; --services '' for none)"
  end
  o.addresses = {}
  if o.host then
    for address in (o.host .. ","):gmatch("([^,]*),") do
      if not numeric_address(address) then
        return nil, "--host: '" .. address .. "' is not an IPv4 or IPv6 address"
      end
      o.addresses[#o.addresses + 1] = address
    end
  end
  if o.duration then
    o.duration_seconds = tonumber(o.duration)
    if not o.duration_seconds or o.duration_seconds <= 0 or o.duration_seconds ~= o.duration_seconds then
      return nil, "--duration: a positive number of seconds expected"
    end
  end
  o.settings = {}
  for _, text in ipairs(o.setting or {}) do
    local key, value = text:match("^([%w_.]+)=(.*)$")
    if not key then return nil, "--setting: KEY=VALUE expected, not '" .. text .. "'" end
    o.settings[#o.settings + 1] = { key = key, value = value }
  end
  o.block = o.block or (o.mode == "live" and "nft" or "none")
  if o.block ~= "nft" and o.block ~= "none" then
    return nil, "--block: nft or none expected"
  end
  if o.config then
    local ok, reason = readable(o.config)
    if not ok then return nil, "cannot read the configuration: " .. reason end
  end
  if o.keys then
    local ok, reason = readable(o.keys)
    if not ok then return nil, "cannot read the security configuration: " .. reason end
  end
  if o["ssl-keylog"] and not o.keys then
    return nil, "--ssl-keylog needs --keys (the server keys that decrypt the handshakes)"
  end
  if o.syslog then
    local destination, reason = options.parse_destination(o.syslog)
    if not destination then return nil, "--syslog: " .. reason end
    o.destination = destination
  end
  local facility = o.facility or "local0"
  o.facility_code = FACILITIES[facility] or integer(facility, 0, 23)
  if not o.facility_code then return nil, "--facility: unknown facility '" .. facility .. "'" end
  if o["syslog-max"] then
    o.syslog_max = integer(o["syslog-max"], 480, 1048576)
    if not o.syslog_max then return nil, "--syslog-max: 480 to 1048576 bytes expected" end
  end
  for _, name in ipairs { "cef", "facility", "syslog-max" } do
    if o[name] and not o.syslog then return nil, "--" .. name .. " needs --syslog" end
  end
  return o
end

return options
