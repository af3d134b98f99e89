-- Syslog delivery: RFC 5424 messages over a Unix datagram socket, UDP, or TCP
-- with octet-counted framing (RFC 6587).
--
-- Every send is non-blocking: a receiver that is down costs a counted drop,
-- never a stall of the record path. A receiver that is only slow to empty its
-- queue gets a short, bounded wait (DATAGRAM_WAIT_MS) before a datagram is
-- dropped, and none while it stays behind. Datagram sockets are connected, so
-- that a receiver that has gone shows as an error and a new one is found
-- again. A TCP sender keeps a bounded queue of whole frames. Both reconnect
-- at most once a second. A message that does not fit the size limit is cut at
-- a UTF-8 character boundary and counted. A sender ignores SIGPIPE for the
-- whole process: a receiver that goes away must end a send, not the program.
--
-- A sender belongs to the thread that made it.
local socket = require "posix.sys.socket"
local fcntl = require "posix.fcntl"
local unistd = require "posix.unistd"
local errno = require "posix.errno"
local ptime = require "posix.time"
local poll = require "posix.poll"
local signal = require "posix.signal"

local syslog = {}

-- What one message may hold at most, header included.
local TRANSPORT_LIMIT = { udp = 65507, unix = 65536, tcp = 65536 }
-- Bytes of whole frames that a TCP sender queues while the receiver is slow
-- or away.
local TCP_QUEUE_LIMIT = 1024 * 1024
-- How long a datagram waits for room in a slow receiver's queue.
local DATAGRAM_WAIT_MS = 50

local function now()
  local t = ptime.clock_gettime(ptime.CLOCK_MONOTONIC)
  return t.tv_sec + t.tv_nsec / 1e9
end

-- text cut to at most limit bytes, never inside a UTF-8 sequence.
function syslog.cut_utf8(text, limit)
  if #text <= limit then return text end
  local keep = limit
  -- Step back over continuation bytes (10xxxxxx) to the start of the
  -- character that would be cut, and keep what is before it.
  while keep > 0 and text:byte(keep + 1) >= 0x80 and text:byte(keep + 1) < 0xC0 do
    keep = keep - 1
  end
  return text:sub(1, keep)
end

-- The RFC 5424 time stamp of a record time (seconds, microseconds), UTC.
function syslog.timestamp(seconds, microseconds)
  return os.date("!%Y-%m-%dT%H:%M:%S", seconds) .. string.format(".%06dZ", microseconds)
end

local function nonblocking(fd)
  local flags = fcntl.fcntl(fd, fcntl.F_GETFL)
  fcntl.fcntl(fd, fcntl.F_SETFL, bit32.bor(flags, fcntl.O_NONBLOCK))
  fcntl.fcntl(fd, fcntl.F_SETFD, fcntl.FD_CLOEXEC)
end

local Sender = {}
Sender.__index = Sender

-- destination: {transport, path | host, port}; settings: facility (code),
-- hostname, max (bytes, optional). Returns the sender, or nil and the reason
-- when the destination cannot be resolved.
function syslog.new(destination, settings)
  local self = setmetatable({
    transport = destination.transport, facility = settings.facility,
    hostname = settings.hostname or "-", procid = tostring(unistd.getpid()),
    limit = math.min(settings.max or math.huge, TRANSPORT_LIMIT[destination.transport]),
    sent = 0, dropped = 0, truncated = 0, queue = {}, queued = 0,
    offset = 0, next_connect = 0,
  }, Sender)
  if destination.transport == "unix" then
    self.address = { family = socket.AF_UNIX, path = destination.path }
  else
    local found, reason = socket.getaddrinfo(destination.host, tostring(destination.port), {
      socktype = destination.transport == "udp" and socket.SOCK_DGRAM or socket.SOCK_STREAM })
    if not found or not found[1] then
      return nil, "cannot resolve " .. destination.host .. ": " .. tostring(reason)
    end
    self.address = { family = found[1].family, addr = found[1].addr, port = destination.port }
  end
  signal.signal(signal.SIGPIPE, signal.SIG_IGN)
  return self
end

-- The whole message: header and text, the text cut so that it fits.
function Sender:format(text, severity, seconds, microseconds, msgid)
  local header = string.format("<%d>1 %s %s vexil %s %s - ", self.facility * 8 + severity,
                               syslog.timestamp(seconds, microseconds), self.hostname,
                               self.procid, msgid or "-")
  local room = self.limit - #header
  if self.transport == "tcp" then
    room = room - #tostring(self.limit) - 1  -- the frame's length and blank
  end
  local body = syslog.cut_utf8(text, room)
  if #body < #text then self.truncated = self.truncated + 1 end
  return header .. body
end

-- Sends one record's text; severity is the RFC 5424 number, the time the
-- record's own. Returns whether it went out (or, for TCP, was queued).
function Sender:send(text, severity, seconds, microseconds, msgid)
  local message = self:format(text, severity, seconds, microseconds, msgid)
  if self.transport == "tcp" then return self:queue_frame(#message .. " " .. message) end
  if self:send_datagram(message) then
    self.sent = self.sent + 1
    return true
  end
  self.dropped = self.dropped + 1
  return false
end

function Sender:send_datagram(message)
  if not self.fd and not self:connect() then return false end
  local sent, _, code = socket.send(self.fd, message)
  if not sent and (code == errno.EAGAIN or code == errno.EWOULDBLOCK) and not self.behind then
    -- The receiver's queue is full: wait a little for room, once.
    if poll.poll({ [self.fd] = { events = { OUT = true } } }, DATAGRAM_WAIT_MS) == 1 then
      sent, _, code = socket.send(self.fd, message)
    end
  end
  if sent == #message then
    self.behind = false
    return true
  end
  if code == errno.EAGAIN or code == errno.EWOULDBLOCK or code == errno.ENOBUFS then
    self.behind = true
  elseif code ~= errno.EMSGSIZE then
    self:disconnect()  -- the receiver has gone (or is not there yet)
  end
  return false
end

function Sender:connect()
  local t = now()
  if t < self.next_connect then return false end
  self.next_connect = t + 1
  local kind = self.transport == "tcp" and socket.SOCK_STREAM or socket.SOCK_DGRAM
  local fd = socket.socket(self.address.family, kind, 0)
  if not fd then return false end
  nonblocking(fd)
  local ok, _, code = socket.connect(fd, self.address)
  if ok or (kind == socket.SOCK_STREAM and code == errno.EINPROGRESS) then
    self.fd, self.connecting, self.behind = fd, not ok, false
    return true
  end
  unistd.close(fd)
  return false
end

function Sender:disconnect()
  if self.fd then unistd.close(self.fd) end
  self.fd, self.connecting = nil, false
  -- A frame cut off in the middle is lost; the receiver sees it never began
  -- on the next connection, which starts with a whole frame.
  if self.transport == "tcp" and self.offset > 0 then
    local frame = table.remove(self.queue, 1)
    self.queued = self.queued - #frame
    self.offset = 0
    self.dropped = self.dropped + 1
  end
end

-- Whether the receiver has closed the connection: it never sends anything,
-- so a readable socket means the end (or an error) has come.
function Sender:peer_closed()
  local ready = poll.rpoll(self.fd, 0)
  if ready ~= 1 then return false end
  local data = socket.recv(self.fd, 1)
  return data == nil or data == ""
end

-- Writes what the socket takes of the queue, frame by frame.
function Sender:flush()
  if self.fd and not self.connecting and self:peer_closed() then self:disconnect() end
  if not self.fd and not self:connect() then return end
  if self.connecting then
    -- A second connect tells how the first one went.
    local ok, _, code = socket.connect(self.fd, self.address)
    if ok or code == errno.EISCONN then
      self.connecting = false
    elseif code == errno.EALREADY or code == errno.EINPROGRESS then
      return
    else
      self:disconnect()
      return
    end
  end
  while self.queue[1] do
    local frame = self.queue[1]
    local sent, _, code = socket.send(self.fd, frame:sub(self.offset + 1))
    if not sent then
      if code ~= errno.EAGAIN and code ~= errno.EWOULDBLOCK and code ~= errno.EINTR then
        self:disconnect()
      end
      return
    end
    self.offset = self.offset + sent
    if self.offset < #frame then return end
    table.remove(self.queue, 1)
    self.queued = self.queued - #frame
    self.offset = 0
    self.sent = self.sent + 1
  end
end

function Sender:queue_frame(frame)
  if self.queued + #frame > TCP_QUEUE_LIMIT then
    self:flush()
    if self.queued + #frame > TCP_QUEUE_LIMIT then
      self.dropped = self.dropped + 1
      return false
    end
  end
  self.queue[#self.queue + 1] = frame
  self.queued = self.queued + #frame
  self:flush()
  return true
end

-- At the end: gives a TCP receiver up to wait seconds to take the queue;
-- what is left then counts as dropped. Closes the socket.
function Sender:close(wait)
  if self.transport == "tcp" then
    local deadline = now() + (wait or 0)
    self:flush()
    while self.queue[1] and now() < deadline do
      ptime.nanosleep { tv_sec = 0, tv_nsec = 20000000 }
      self.next_connect = math.min(self.next_connect, now() + 0.2)
      self:flush()
    end
    self.dropped = self.dropped + #self.queue
    self.queue, self.queued, self.offset = {}, 0, 0
  end
  if self.fd then unistd.close(self.fd) end
  self.fd = nil
end

-- Runs a pending TCP queue on; called from the agent's loop now and then.
function Sender:poll()
  if self.transport == "tcp" and self.queue[1] then self:flush() end
end

return syslog
