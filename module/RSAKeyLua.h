// The script class vexil::RSAKey: a private key made from a credential.
#pragma once

#include "host/slb/SLB.h"

// Registers vexil::RSAKey: no constructor, the raw function Create and the
// FailureReason constants.
void rsaKeyLua_Init(SLB::Manager* manager);
