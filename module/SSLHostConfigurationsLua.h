// The script class vexil::SSLHostConfigurations: the SSL host configurations
// of the host store's security configuration, for agents that tell their
// driver which servers to inspect.
#pragma once

#include "host/slb/SLB.h"

// Registers vexil::SSLHostConfigurations: no constructor, the raw function Read.
void sslHostConfigurationsLua_Init(SLB::Manager* manager);
