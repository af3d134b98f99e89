// The script class vexil::SSLCertThread: the SSL key service.
#pragma once

#include "host/slb/SLB.h"

// Registers vexil::SSLCertThread: constructor with a norv::Dom, bases
// norv::Runnable and norv::Thread, and OnSecurityConfigurationChanged.
void sslCertThreadLua_Init(SLB::Manager* manager);
