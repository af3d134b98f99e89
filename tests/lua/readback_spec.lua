-- log:GetLogData: the lines of one role within a time span, read back from
-- the family of log files, with the read positions kept as host values.
local support = require "support"
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"

local T0 = 1700000000
local MARGIN = 1800 -- one cache life time by default, in seconds

-- A log line as the store writes it, without its line end; tag goes into
-- the rule id column so that lines can be told apart.
local function line(kind, t, tag, firstUsec)
  firstUsec = firstUsec or string.format("%d", t * 1000000 + 250000)
  return string.format("%s, %s, 0, 1, , IP, , , TCP, SYN , 192.0.2.7, 40123, 198.51.100.2, " ..
                       "23, 60, 1, %d, %d, -1, , 0, 0, 0, 0, , , , 1, %s, %s",
                       os.date("!%Y/%m/%d, %H:%M:%S", t), kind, kind == "f" and 0 or -500,
                       tag, firstUsec, firstUsec)
end

-- What read-back delivers of lines: all but the date and time columns.
local function delivered(...)
  local parts = {}
  for _, text in ipairs { ... } do parts[#parts + 1] = text:sub(23) .. "\n" end
  return table.concat(parts)
end

describe("log:GetLogData", function()
  local folder, dom, log

  local function family(files)
    for name, lines in pairs(files) do
      support.put(folder .. "/" .. name, table.concat(lines, "\r\n") .. "\r\n")
    end
  end

  -- What a fresh process with the host store at store reads back from start
  -- on, in brackets, then the agent events it raised.
  local function fresh(store, start)
    return support.run([[
      require "norv"; require "vexil"
      local dom = SLB.norv.Dom("%s")
      local log = SLB.vexil.LogData(dom)
      log:SetLogFilePath("%s")
      io.write("[" .. log:GetLogData(%d, 0, 0, 100) .. "]")
      for _, event in ipairs(dom:AgentEvents()) do io.write(event.number, " ", event.detail) end
    ]], store, folder, start)
  end

  before_each(function()
    folder, dom, log = support.log_object()
    log:SetLogFilePath(folder)
  end)
  after_each(function()
    log = nil
    support.drop_log(folder)
  end)

  it("reads every line of the role across the copies, oldest first", function()
    local a, b = line("f", T0, 1), line("d", T0 + 1, 2)
    local c, d = line("f", T0 + 2, 3), line("f", T0 + 3, 4)
    local e, f = line("d", T0 + 4, 5), line("f", T0 + 5, 6)
    local oldest = line("f", T0 - 9, 7)
    family { ["norv_mpnp.2"] = { a, b }, ["norv_mpnp.1"] = { c }, ["norv_mpnp"] = { d, e, f },
             ["norv_mpnp.10"] = { oldest } }
    assert.are.equal(delivered(oldest, a, c, d, f), log:GetLogData(0, 0, 0, 100))
    assert.are.equal(delivered(b, e), log:GetLogData(0, 0, 1, 100))
    -- A cap of 1 changes nothing; other role numbers are the packet role.
    assert.are.equal(delivered(b, e), log:GetLogData(0, -5, 2, 1))
    assert.are.equal(delivered(oldest, a, c, d, f), log:GetLogData(0, 0, 7, -1))
    assert.are.equal(delivered(oldest, a, c, d, f), log:GetLogData(0, 0, -1, 0))
    -- Nothing that matches is an empty string.
    assert.are.equal("", log:GetLogData(T0 + 5000, 0, 1, 100))
  end)

  it("takes the span with a margin of one cache life time", function()
    local early, first, last = line("f", T0 - 1, 1), line("f", T0, 2), line("f", T0 + 100, 3)
    local over, farOver = line("f", T0 + 101, 4), line("f", T0 + 100 + MARGIN + 1, 5)
    family { ["norv_mpnp.1"] = { early, first, over, last, farOver, line("f", T0 + 50, 6) } }
    -- Just before the start is left out in an old copy; past the end but
    -- within the margin is left out and the scan goes on; past the margin
    -- the rest of the file is left.
    assert.are.equal(delivered(first, last), log:GetLogData(T0, T0 + 100, 0, 100))
  end)

  it("leaves a file whose first line is newer than the span", function()
    local inLive, inCopy = line("f", T0, 3), line("f", T0 + 5, 2)
    family { ["norv_mpnp.1"] = { line("f", T0 + 10 + MARGIN + 1, 1), inCopy },
             norv_mpnp = { inLive } }
    assert.are.equal(delivered(inLive), log:GetLogData(T0, T0 + 10, 0, 100))
    -- A first line of the other role is passed over before its time is
    -- read, and the line after it is no first line.
    family { ["norv_mpnp.1"] = { line("d", T0 + 10 + MARGIN + 1, 4), inCopy } }
    assert.are.equal(delivered(inCopy, inLive), log:GetLogData(T0, T0 + 10, 0, 100))
  end)

  it("passes over files older than the span by their modification time", function()
    local old, new = line("f", T0 + 5, 1), line("f", T0 + 6, 2)
    family { ["norv_mpnp.1"] = { old }, norv_mpnp = { new } }
    os.execute(string.format("touch -d @%d '%s/norv_mpnp.1'", T0 + 3, folder))
    assert.are.equal(delivered(new), log:GetLogData(T0 + 4, 0, 0, 100))
    assert.are.equal(delivered(old, new), log:GetLogData(T0 + 3, 0, 0, 100))
    -- Without a start time the modification time is not looked at.
    assert.are.equal(delivered(old, new), log:GetLogData(0, 0, 0, 100))
  end)

  it("delivers a late line of the live file once, by role", function()
    local inSpan, late, packet = line("d", T0, 1), line("d", T0 - 60, 2), line("f", T0 - 30, 5)
    family { ["norv_mpnp.1"] = { line("d", T0 - 60, 4) },
             norv_mpnp = { inSpan, packet, late, line("d", T0 - MARGIN - 1, 3) } }
    assert.are.equal(delivered(inSpan, late), log:GetLogData(T0, 0, 1, 100))
    assert.are.equal("2", dom:GetSetting("norvp.vexil.lastline.payload"))
    -- Lines at or below the position are not late lines any more.
    assert.are.equal(delivered(inSpan), log:GetLogData(T0, 0, 1, 100))
    -- The capture role has a position of its own; the packet role too.
    assert.are.equal(delivered(inSpan, late), log:GetLogData(T0, 0, 2, 100))
    assert.are.equal("2", dom:GetSetting("norvp.vexil.lastline.pcap"))
    assert.are.equal(delivered(packet), log:GetLogData(T0, 0, 0, 100))
    assert.are.equal("1", dom:GetSetting("norvp.vexil.lastline.packet"))
    -- A line written later is late again, past the position.
    local newer = line("d", T0 - 10, 6)
    family { norv_mpnp = { inSpan, packet, late, line("d", T0 - MARGIN - 1, 3), newer } }
    assert.are.equal(delivered(inSpan, newer), log:GetLogData(T0, 0, 1, 100))
    assert.are.equal("4", dom:GetSetting("norvp.vexil.lastline.payload"))
  end)

  it("keeps the read positions in the host store across processes", function()
    local store = folder .. "/host.db"
    local late = line("f", T0 - 5, 1)
    family { norv_mpnp = { line("f", T0, 2), late } }
    local first = SLB.norv.Dom(store)
    local reader = SLB.vexil.LogData(first)
    reader:SetLogFilePath(folder)
    assert.are.equal(delivered(line("f", T0, 2), late), reader:GetLogData(T0, 0, 0, 100))
    assert.are.equal("[" .. delivered(line("f", T0, 2)) .. "]", fresh(store, T0))
    -- A fresh store knows no position.
    assert.are.equal("[" .. delivered(line("f", T0, 2), late) .. "]",
                     fresh(folder .. "/other.db", T0))
  end)

  it("counts every line and every piece of a long line", function()
    local late = line("f", T0 - 5, 1)
    family { norv_mpnp = { string.rep("x", 20000), "", line("d", T0 - 5, 2), late } }
    -- Pieces of at most 9343 bytes: three for the long line (the last with
    -- its line end), then the empty line and the payload line: the late
    -- line is number 5.
    assert.are.equal(delivered(late), log:GetLogData(T0, 0, 0, 100))
    assert.are.equal("5", dom:GetSetting("norvp.vexil.lastline.packet"))
  end)

  it("reads on after a first line longer than a read piece in a file above the read buffer",
     function()
    local late, inSpan = line("f", T0 - 5, 1), line("f", T0, 2)
    family { norv_mpnp = { string.rep("x", 300 * 1024), late, inSpan } }
    assert.are.equal(delivered(late, inSpan), log:GetLogData(T0, 0, 0, 100))
  end)

  it("delivers a late line exactly one margin before the start", function()
    local edge = line("f", T0 - MARGIN, 1)
    family { norv_mpnp = { line("f", T0, 2), edge } }
    assert.are.equal(delivered(line("f", T0, 2), edge), log:GetLogData(T0, 0, 0, 100))
  end)

  it("leaves out lines without a first time", function()
    family { norv_mpnp = { line("f", T0, 1, "0"), line("f", T0, 2, "x"),
                           line("f", T0, 3, "-1500000"), "2023/11/14, 22:13:20, f, 0",
                           line("f", T0, 4) } }
    assert.are.equal(delivered(line("f", T0, 4)), log:GetLogData(0, 0, 0, 100))
  end)

  it("drops lines with binary data, warning once per file in a row", function()
    local good = line("f", T0, 1)
    local bad = line("f", T0, 2):gsub("TCP", "T\1P")
    family { ["norv_mpnp.1"] = { bad, good, bad }, norv_mpnp = { good } }
    assert.are.equal(delivered(good, good), log:GetLogData(0, 0, 0, 100))
    assert.are.same({ "Warning: !6001!Non-printable data encountered in log file '" .. folder ..
                      "/norv_mpnp.1'. The file may be corrupt, and if so, it should be deleted." },
                    norv.OperatorLog())
    -- The same file again: no new warning. Two bad files in turn: each.
    log:GetLogData(0, 0, 0, 100)
    assert.are.same({}, norv.OperatorLog())
    family { norv_mpnp = { bad } }
    log:GetLogData(0, 0, 0, 100)
    log:GetLogData(0, 0, 0, 100)
    assert.are.equal(3, #norv.OperatorLog())
  end)

  it("examines a final line without a line end, binary or no UTF-8, and reads on", function()
    local final = line("f", T0, 1) .. "\1x"
    support.put(folder .. "/norv_mpnp.2", line("f", T0, 2) .. "\r\n" .. final)
    local noUtf8 = line("f", T0 + 1, 2) .. "\255x"
    support.put(folder .. "/norv_mpnp.1", noUtf8)
    family { norv_mpnp = { line("f", T0 + 2, 3) } }
    -- The stray byte comes back as the character of the same number.
    assert.are.equal(delivered(line("f", T0, 2), final, noUtf8:gsub("\255", "\195\191"),
                               line("f", T0 + 2, 3)),
                     log:GetLogData(0, 0, 0, 100))
    assert.are.equal(2, #norv.OperatorLog()) -- one warning for each file
  end)

  it("reports a family that cannot be listed, or a file that cannot be read", function()
    log:SetLogFilePath(folder .. "/missing")
    assert.are.equal("", log:GetLogData(0, 0, 0, 100))
    assert.are.same({ 6005, 3300 }, support.event_numbers(dom))
    dom:ClearAgentEvents()
    log:SetLogFilePath(folder)
    family { norv_mpnp = { line("f", T0, 1) } }
    os.execute("ln -s '" .. folder .. "/nowhere' '" .. folder .. "/norv_mpnp.1'")
    assert.are.equal(delivered(line("f", T0, 1)), log:GetLogData(0, 0, 0, 100))
    local events = dom:AgentEvents()
    assert.are.equal(1, #events)
    assert.are.equal(3001, events[1].number)
    assert.matches("|No such file or directory", events[1].detail, 1, true)
    -- A FIFO in the family is reported and passed, not waited on.
    os.remove(folder .. "/norv_mpnp.1")
    os.execute("mkfifo '" .. folder .. "/norv_mpnp.1'")
    assert.are.equal("[" .. delivered(line("f", T0, 1)) .. "]3001 " .. folder ..
                     "/norv_mpnp.1|Invalid argument", fresh(":memory:", 0))
  end)

  it("returns exactly what grep finds in a family of megabytes", function()
    local config = { packetFilterLog = { size = 512, keep = 12, cacheSize = 0 },
                     trafficAnalysisConfiguration = {}, probeConfigurationMap = {} }
    local bytes = string.rep("\222\173\190\239", 80)
    for i = 0, 5999 do
      log:WriteLogData(norvi.EncodeRecord {
        time_sec = T0 + i, time_usec = i, end_time_sec = T0 + i, count = 1,
        flags = 0x50, iph_proto = 17, iph_src = "192.0.2.7", iph_dest = "198.51.100.2",
        packet_len = 400 + i % 7, th_sport = 1024 + i % 50, th_dport = 53,
        reason = (i % 3 == 0) and -500 or 0, id = i, packet_data_len = 320,
      }, "", config, bytes)
    end
    assert.is_not_nil(support.read(folder .. "/norv_mpnp.5"))
    local function grep(role, pattern)
      local pipe = io.popen(string.format(
        "cd '%s' && for f in $(ls norv_mpnp* | sort -t. -k2,2nr); do " ..
        "grep -a -E '^.{22}%s, .*, %s\r$' \"$f\"; done | cut -c23- | tr -d '\\r'",
        folder, role, pattern))
      local text = pipe:read("*a")
      pipe:close()
      return text
    end
    local all = grep("f", "[0-9]+")
    assert.is_true(#all > 2 * 1024 * 1024)
    assert.are.equal(all, log:GetLogData(0, 0, 0, 100))
    -- Seconds 1700001000 to 1700001999 of the payload role, with no margin
    -- since the cache is off.
    local span = grep("d", "1700001[0-9]{9}")
    assert.are.equal(333, select(2, span:gsub("\n", "")))
    assert.are.equal(span, log:GetLogData(T0 + 1000, T0 + 1999, 1, 100))
  end)
end)
