-- The default configuration table that an agent hands to vexil's entries
-- until the management side sends its own: log files of 1 MiB with 8 old
-- copies, a cache of 128 records, traffic analysis with its built-in tuning,
-- and no filters, probes, interfaces or host identity configured.
return {
  packetFilterLog = { size = 1024, keep = 8, cacheSize = 128,
                      cacheLifetime = 1800000, cacheStaletime = 900000 },
  trafficAnalysisConfiguration = {},
  probeConfigurationMap = {},
  packetFilterMap = {},
  payloadFilterMap = {},
  agentConfiguration = {},
  interfaceMap = {},
  driverInterfaceMap = {},
}
