-- What a run found, from the host store's agent events: the events in order,
-- and the blocks that the probe events stand for; and the summary, as one
-- JSON object or in words.
local json = require "vexil_agent.json"

local report = {}

-- Agent event numbers of the probe kinds (7000 + probe type).
local PROBE_EVENTS = { [7000] = "fingerprint probe", [7001] = "host or port scanner",
                       [7002] = "NULL probe", [7003] = "SYN-FIN probe", [7004] = "Xmas probe" }
-- The event that a refused block request leaves, just before its probe event.
local BLOCK_REFUSED = 1001

report.PROBE_EVENTS = PROBE_EVENTS

-- Whether an address is one that the system never blocks: loopback or one
-- of the host's own (platformInterfaceMap).
local function spared(address, config)
  return address:match("^127%.") ~= nil or type((config.platformInterfaceMap or {})[address]) == "table"
end

-- The blocks that the events stand for: {address, seconds, ok} in order. A
-- probe event states the seconds of its block, or 0 when none was asked for.
-- carried: whether block requests went to the driver (else they are only
-- reported, with ok false).
function report.blocks(events, config, carried)
  local blocks = json.array()
  local refused = false
  for _, event in ipairs(events) do
    if event.number == BLOCK_REFUSED and event.detail:find("BLACKLIST_ADD", 1, true) then
      refused = true
    elseif PROBE_EVENTS[event.number] then
      local address, seconds = event.detail:match("^[^|]*|([^|]*)|[^|]*|(-?%d+)")
      seconds = tonumber(seconds)
      if address and seconds and seconds > 0 and not (not carried and spared(address, config)) then
        blocks[#blocks + 1] = { address = address, seconds = seconds, ok = carried and not refused }
      end
      refused = false
    end
  end
  return blocks
end

function report.events(events)
  local list = json.array()
  for i, event in ipairs(events) do list[i] = { number = event.number, detail = event.detail } end
  return list
end

function report.json(summary)
  return json.encode(summary)
end

-- The summary in words, as lines.
function report.words(summary)
  local lines = {}
  local function add(...) lines[#lines + 1] = string.format(...) end
  add("%s: %d records, %d log lines written%s", summary.source, summary.records, summary.lines,
      summary.interrupted and " (interrupted before the end)" or "")
  if #summary.events == 0 then
    add("no agent events")
  else
    add("agent events:")
    for _, event in ipairs(summary.events) do
      add("  %d %-22s %s", event.number, PROBE_EVENTS[event.number] or "", event.detail)
    end
  end
  if #summary.blocks == 0 then
    add("no blocks")
  else
    add("blocks (%s):", summary.block_mode == "nft" and "nftables" or "reported only")
    for _, block in ipairs(summary.blocks) do
      add("  %-39s %6d s  %s", block.address, block.seconds,
          block.ok and "in force" or (summary.block_mode == "nft" and "REFUSED" or "not carried out"))
    end
  end
  if summary.syslog.destination then
    add("syslog to %s: %d sent, %d dropped, %d cut to fit", summary.syslog.destination,
        summary.syslog.sent, summary.syslog.dropped, summary.syslog.truncated)
  end
  if summary.ssl then
    add("SSL: %d requests, %d answered, %d failed%s", summary.ssl.requests, summary.ssl.answered,
        summary.ssl.failed, summary.ssl.keylog and (", key log " .. summary.ssl.keylog) or "")
  end
  add("log folder %s:", summary.logs.folder)
  for _, file in ipairs(summary.logs.files) do add("  %s (%d bytes)", file.name, file.bytes) end
  return lines
end

return report
