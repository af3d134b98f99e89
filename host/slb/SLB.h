// The Lua class binder: the one header for its users.
//
// A Manager per interpreter holds the registered classes; Class<T> registers
// one; get/push move instances across the Lua stack. See the headers below.
#pragma once

#include "host/slb/Call.h"
#include "host/slb/Class.h"
#include "host/slb/ClassInfo.h"
#include "host/slb/FuncCall.h"
#include "host/slb/Instance.h"
#include "host/slb/Manager.h"
#include "host/slb/Marshal.h"
#include "host/slb/TypeID.h"
