-- Syslog delivery of the agent to a real rsyslog: every message intact over
-- a Unix datagram socket, UDP and TCP; long messages cut on a character
-- boundary; a receiver that is away costs counted drops, never a stall, and
-- a TCP receiver that comes back gets the messages again.
package.path = os.getenv("VEXIL_SOURCE_DIR") .. "/agent/?.lua;" .. package.path
local syslog = require "vexil_agent.syslog"
local options = require "vexil_agent.options"
local rsyslog = require "rsyslog"
local support = require "support"

local FACILITY_LOCAL3 = 19

local function sender(receiver, transport, max)
  local destination = transport == "unix" and ("unix:" .. receiver.socket)
                      or string.format("%s:127.0.0.1:%d", transport, receiver[transport])
  return assert(syslog.new(assert(options.parse_destination(destination)),
                           { facility = FACILITY_LOCAL3, hostname = "spec-host", max = max }))
end

describe("cut_utf8", function()
  it("never ends inside a character", function()
    for _, case in ipairs {
      { "abc", 5, "abc" }, { "abcdef", 3, "abc" }, { "aé", 2, "a" }, { "aé", 3, "aé" },
      { "a€b", 3, "a" }, { "a€b", 4, "a€" }, { "𝄞x", 3, "" }, { "𝄞x", 4, "𝄞" },
    } do
      assert.are.equal(case[3], syslog.cut_utf8(case[1], case[2]))
    end
  end)
end)

describe("syslog delivery", function()
  if not rsyslog.available() then
    pending("rsyslogd is not installed (Debian package rsyslog)")
    return
  end
  local folder, receiver

  before_each(function()
    folder = support.tempdir()
    receiver = rsyslog.start(folder)
  end)

  after_each(function()
    receiver:stop()
    support.remove(folder)
  end)

  it("delivers every message intact over each transport, one cut on a character boundary", function()
    local texts = { "REASON=PKT:1042 HOSTID=7 act=Deny SRC=192.0.2.7 DST=198.51.100.2 CNT=1",
                    "NOTE=grüße ☃ tab\tend", string.rep("ä", 400) }
    -- Each message as rsyslog writes it: host, app, msgid, pri, time, text.
    local function line(pri, time, text) return table.concat({ "spec-host vexil packet", pri, time, text }, " ") end
    local want, got = {}, {}
    for _, transport in ipairs { "unix", "udp", "tcp" } do
      local s = sender(receiver, transport, 600)
      for i, text in ipairs(texts) do
        assert.is_true(s:send(transport .. " " .. text, 5, 1700000000 + i, 250000, "packet"))
        want[#want + 1] = line(FACILITY_LOCAL3 * 8 + 5, string.format("2023-11-14T22:13:%02d.250000", 20 + i),
                               transport .. " " .. text:gsub("\t", "#011"))
      end
      s:close(2)
      assert.are.same({ 3, 0, 1 }, { s.sent, s.dropped, s.truncated })
    end
    for _, record in ipairs(receiver:wait_for(9)) do
      local transport, text = record.msg:match("^(%a+) (.*)$")
      -- The long one: whole characters only, and as many as fit.
      if text == string.rep("ä", math.floor(#text / 2)) and #text > 400 and #text < 600 then
        text = string.rep("ä", 400)
      end
      got[#got + 1] = line(record.pri, record.time:sub(1, 26), transport .. " " .. text)
    end
    table.sort(want)
    table.sort(got)
    assert.are.same(want, got)
  end)

  it("counts drops while the receiver is away and reconnects over TCP when it is back", function()
    local tcp, unix = sender(receiver, "tcp"), sender(receiver, "unix")
    receiver:stop()
    os.remove(receiver.socket)
    local started = os.clock()
    for i = 1, 50 do unix:send("lost " .. i, 5, 1700000000, 0) end
    assert.are.same({ 0, 50 }, { unix.sent, unix.dropped })
    tcp:send("queued while away", 5, 1700000000, 0)
    assert.is_truthy(os.clock() - started < 1, "sending must not wait for the receiver")
    receiver = rsyslog.start(folder, receiver)
    tcp:send("after the return", 5, 1700000001, 0)
    tcp:close(3)
    os.execute("sleep 1")  -- a sender tries the receiver again at most once a second
    unix:send("socket back", 5, 1700000002, 0)
    unix:close()
    local msgs = {}
    for _, record in ipairs(receiver:wait_for(3)) do msgs[#msgs + 1] = record.msg end
    table.sort(msgs)
    assert.are.same({ "after the return", "queued while away", "socket back" }, msgs)
    assert.are.same({ 2, 0 }, { tcp.sent, tcp.dropped })
  end)
end)
