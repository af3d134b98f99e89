// The script face of the SSL key service: the classes vexil::SSLCertThread
// and vexil::RSAKey, registered by luaopen_vexil after vexil::LogData.
#pragma once

#include "host/slb/SLB.h"

// Registers vexil::SSLCertThread (constructor with a norv::Dom, bases
// norv::Runnable and norv::Thread, OnSecurityConfigurationChanged) and
// vexil::RSAKey (Create and the FailureReason constants), in that order.
void sslLua_Init(SLB::Manager* manager);
