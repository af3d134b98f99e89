-- Traffic for the live agent spec, run inside the spec's own network
-- namespaces. Every loop is bounded in count and time.
--   lua5.2 nettool.lua serve ADDRESS PORT SECONDS   accept and close connections
--   lua5.2 nettool.lua connect ADDRESS PORT MSEC     exit 0 if a connection is made in time
--   lua5.2 nettool.lua scan ADDRESS FIRST LAST       one SYN to each port (connect attempts)
local socket = require "posix.sys.socket"
local unistd = require "posix.unistd"
local fcntl = require "posix.fcntl"
local poll = require "posix.poll"
local errno = require "posix.errno"
local ptime = require "posix.time"

local function now()
  local t = ptime.clock_gettime(ptime.CLOCK_MONOTONIC)
  return t.tv_sec + t.tv_nsec / 1e9
end

local function address(host, port)
  return { family = socket.AF_INET, addr = host, port = tonumber(port) }
end

local function nonblocking_socket()
  local fd = assert(socket.socket(socket.AF_INET, socket.SOCK_STREAM, 0))
  fcntl.fcntl(fd, fcntl.F_SETFL, bit32.bor(fcntl.fcntl(fd, fcntl.F_GETFL), fcntl.O_NONBLOCK))
  return fd
end

local command, host, a, b = ...
if command == "serve" then
  local fd = assert(socket.socket(socket.AF_INET, socket.SOCK_STREAM, 0))
  socket.setsockopt(fd, socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
  assert(socket.bind(fd, address(host, a)))
  assert(socket.listen(fd, 64))
  local deadline = now() + tonumber(b)
  while now() < deadline do
    if poll.rpoll(fd, 200) == 1 then
      local client = socket.accept(fd)
      if client then unistd.close(client) end
    end
  end
  os.exit(0)
elseif command == "connect" then
  local fd = nonblocking_socket()
  local ok, _, code = socket.connect(fd, address(host, a))
  if not ok and code == errno.EINPROGRESS then
    -- Writable once the handshake is done or has failed; a second connect
    -- tells which.
    if poll.poll({ [fd] = { events = { OUT = true } } }, tonumber(b)) == 1 then
      local again, _, code2 = socket.connect(fd, address(host, a))
      ok = again or code2 == errno.EISCONN
    end
  end
  unistd.close(fd)
  os.exit(ok and 0 or 1)
elseif command == "scan" then
  local fds = {}
  for port = tonumber(a), math.min(tonumber(b), tonumber(a) + 1000) do
    local fd = nonblocking_socket()
    socket.connect(fd, address(host, port))
    fds[#fds + 1] = fd
  end
  -- Give the SYNs a moment to leave before the sockets go.
  ptime.nanosleep { tv_sec = 0, tv_nsec = 300000000 }
  for _, fd in ipairs(fds) do unistd.close(fd) end
  os.exit(0)
end
io.stderr:write("usage: nettool.lua serve|connect|scan ...\n")
os.exit(2)
