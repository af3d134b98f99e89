-- A real rsyslog for the specs: started in the foreground on a Unix socket,
-- a UDP and a TCP port of loopback in a temporary folder, writing every
-- message it receives to a file, one line each, with the message kept whole;
-- stopped by its pid. UDP has no flow control, so the receiver gets a socket
-- buffer that takes a replay's burst whole.
local socket = require "posix.sys.socket"
local unistd = require "posix.unistd"
local signal = require "posix.signal"
local wait = require "posix.sys.wait"
local support = require "support"

local rsyslog = {}

-- Whether a TCP connection to the loopback port is taken.
local function accepts(port)
  local fd = socket.socket(socket.AF_INET, socket.SOCK_STREAM, 0)
  local ok = socket.connect(fd, { family = socket.AF_INET, addr = "127.0.0.1", port = port })
  unistd.close(fd)
  return ok ~= nil
end

-- A loopback port that is free right now. (getsockname of lua-posix now and
-- then answers without a port; it is asked again.)
local function free_port(kind)
  for _ = 1, 10 do
    local fd = socket.socket(socket.AF_INET, kind, 0)
    socket.bind(fd, { family = socket.AF_INET, addr = "127.0.0.1", port = 0 })
    local address = socket.getsockname(fd)
    unistd.close(fd)
    if address and address.port then return address.port end
  end
  error("no free loopback port found")
end

function rsyslog.available()
  return os.execute("command -v rsyslogd >/dev/null 2>&1") == true
end

-- Starts the receiver; the returned object has socket, udp, tcp (ports),
-- records() (the received messages as {input, hostname, app, msgid, time,
-- pri, msg}) and stop(). A receiver started again after one that stopped
-- (previous) listens where that one did.
function rsyslog.start(folder, previous)
  local self = { folder = folder, socket = folder .. "/log.sock", output = folder .. "/out.log",
                 udp = previous and previous.udp or free_port(socket.SOCK_DGRAM),
                 tcp = previous and previous.tcp or free_port(socket.SOCK_STREAM) }
  local conf = folder .. "/rsyslog.conf"
  support.put(conf, string.format([[
global(workDirectory="%s" maxMessageSize="128k")
module(load="imuxsock" SysSock.Use="off")
module(load="imudp")
module(load="imtcp")
input(type="imuxsock" Socket="%s" UseSpecialParser="off" IgnoreTimestamp="off")
input(type="imudp" address="127.0.0.1" port="%d" rcvbufSize="16m")
input(type="imtcp" address="127.0.0.1" port="%d")
template(name="keep" type="string"
         string="%%inputname%%\t%%hostname%%\t%%app-name%%\t%%msgid%%\t%%timereported:::date-rfc3339%%\t%%pri%%\t%%msg%%\n")
*.* action(type="omfile" file="%s" template="keep")
]], folder, self.socket, self.udp, self.tcp, self.output))
  local pid = unistd.fork()
  if pid == 0 then
    unistd.exec("/usr/sbin/rsyslogd", { "-n", "-f", conf, "-i", folder .. "/rsyslog.pid" })
    unistd._exit(127)
  end
  self.pid = pid
  -- Ready once the socket is there and the TCP port takes connections.
  for _ = 1, 100 do
    if unistd.access(self.socket) == 0 and accepts(self.tcp) then
      break
    end
    os.execute("sleep 0.05")
  end

  function self:records()
    local found = {}
    for line in (support.read(self.output) or ""):gmatch("([^\n]*)\n") do
      local input, hostname, app, msgid, time, pri, msg =
        line:match("^([^\t]*)\t([^\t]*)\t([^\t]*)\t([^\t]*)\t([^\t]*)\t([^\t]*)\t(.*)$")
      found[#found + 1] = { input = input, hostname = hostname, app = app, msgid = msgid,
                            time = time, pri = tonumber(pri), msg = msg }
    end
    return found
  end

  -- Waits until count messages have arrived (or a few seconds have passed).
  function self:wait_for(count)
    for _ = 1, 100 do
      if #self:records() >= count then break end
      os.execute("sleep 0.05")
    end
    return self:records()
  end

  function self:stop()
    if self.pid then
      signal.kill(self.pid, signal.SIGTERM)
      wait.wait(self.pid)
      self.pid = nil
    end
  end

  return self
end

return rsyslog
