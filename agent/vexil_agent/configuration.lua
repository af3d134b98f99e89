-- The agent configuration table that every record call takes: the bundled
-- default, or a user's file that returns one, checked for the shape that the
-- log pipeline and the analysis read.
local configuration = {}

-- All five probe kinds and the scanner scoring on; stealth probes blocked for
-- 10 minutes, scanners for an hour; the log with its coalescing cache.
function configuration.default()
  local stealth = { blockAttackerSeconds = 600, notifyImmediately = true }
  local function copy(t)
    local c = {}
    for k, v in pairs(t) do c[k] = v end
    return c
  end
  return {
    packetFilterLog = { size = 1024, keep = 8, cacheSize = 128, cacheLifetime = 1800000,
                        cacheStaletime = 900000 },
    trafficAnalysisConfiguration = {},
    probeConfigurationMap = {
      [0] = copy(stealth),                                           -- FingerprintScan
      [1] = { blockAttackerSeconds = 3600, notifyImmediately = true }, -- HostOrPortScan
      [2] = copy(stealth),                                           -- NullScan
      [3] = copy(stealth),                                           -- SynFinScan
      [4] = copy(stealth),                                           -- XmasScan
    },
    platformInterfaceMap = {},
    agentConfiguration = { hostID = 0 },
  }
end

-- Where a field has the wrong type: the path of the first one, or nil.
local SHAPE = {
  packetFilterLog = { "table", { size = "number", keep = "number", cacheSize = "number",
                                 cacheLifetime = "number", cacheStaletime = "number",
                                 ignoreIpList = "table" } },
  trafficAnalysisConfiguration = { "table", { destIpList = "table", whitelistIpList = "table" } },
  probeConfigurationMap = { "table" },
  platformInterfaceMap = { "table" },
  agentConfiguration = { "table", { hostID = "number", hostname = "string" } },
  packetFilterMap = { "table" },
  payloadFilterMap = { "table" },
  interfaceMap = { "table" },
  driverInterfaceMap = { "table" },
}

function configuration.check(config)
  if type(config) ~= "table" then return nil, "it does not return a table" end
  for name, shape in pairs(SHAPE) do
    local value = config[name]
    if value ~= nil then
      if type(value) ~= shape[1] then return nil, name .. " must be a " .. shape[1] end
      for field, kind in pairs(shape[2] or {}) do
        if value[field] ~= nil and type(value[field]) ~= kind then
          return nil, name .. "." .. field .. " must be a " .. kind
        end
      end
    end
  end
  for _, name in ipairs { "packetFilterLog", "trafficAnalysisConfiguration",
                          "probeConfigurationMap" } do
    if config[name] == nil then return nil, name .. " is missing" end
  end
  for key, entry in pairs(config.probeConfigurationMap) do
    if type(key) ~= "number" or key < 0 or key > 4 or key % 1 ~= 0 then
      return nil, "probeConfigurationMap keys must be the probe types 0 to 4"
    end
    if type(entry) ~= "table" then return nil, "probeConfigurationMap[" .. key .. "] must be a table" end
    local seconds = entry.blockAttackerSeconds
    if seconds ~= nil and (type(seconds) ~= "number" or seconds % 1 ~= 0 or seconds > 2147483) then
      return nil, "probeConfigurationMap[" .. key .. "].blockAttackerSeconds must be an integer of seconds"
    end
  end
  return config
end

-- The table that the Lua file at path returns; nil and the reason when it
-- does not load, fails, or has the wrong shape. The file runs with the
-- standard functions but no access to the agent's own state.
function configuration.load(path)
  local environment = setmetatable({}, { __index = _G })
  local chunk, reason = loadfile(path, "t", environment)
  if not chunk then return nil, reason end
  local ok, result = pcall(chunk)
  if not ok then return nil, tostring(result) end
  local config, problem = configuration.check(result)
  if not config then return nil, path .. ": " .. problem end
  return config
end

return configuration
