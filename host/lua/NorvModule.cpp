// The Lua module "norv": the host's face to scripts.
//
// require "norv" initialises the toolkit, sets up the binder in the
// interpreter when the host has not done it, registers the host store as the
// class norv::Dom and the thread classes norv::Thread and norv::Runnable, and
// returns the table of host functions (trace, operator
// log, ticks). Loading traces one line under the category "norv". Everything here runs on the Lua
// thread that called it; the host services it calls are thread-safe themselves.
#include <cmath>
#include <string>
#include <vector>

#include <lua.hpp>

#include "host/Dom.h"
#include "host/Runnable.h"
#include "host/Ticks.h"
#include "host/Toolkit.h"
#include "host/Trace.h"
#include "host/slb/SLB.h"

namespace {

using NorvCore::CDom;

// The Dom at position 1; an argument error when it is something else.
CDom* CheckDom(lua_State* L) {
    CDom* dom = SLB::get<CDom*>(L, 1);
    if (!dom) {
        luaL_argerror(L, 1, "norv::Dom expected");
    }
    return dom;
}

void PushStrings(lua_State* L, const std::vector<std::string>& lines) {
    lua_createtable(L, static_cast<int>(lines.size()), 0);
    for (size_t i = 0; i < lines.size(); ++i) {
        lua_pushlstring(L, lines[i].data(), lines[i].size());
        lua_rawseti(L, -2, static_cast<int>(i + 1));
    }
}

// dom:SetSetting(key, value): value is a string, an integer or a boolean.
int SetSettingLua(lua_State* L) {
    CDom* dom = CheckDom(L);
    size_t keyLength = 0;
    const char* key = luaL_checklstring(L, 2, &keyLength);
    const int type = lua_type(L, 3);
    if (type == LUA_TNUMBER) {
        const lua_Number number = lua_tonumber(L, 3);
        if (number != std::floor(number) || std::fabs(number) >= 9.2e18) {
            return luaL_argerror(L, 3, "integer expected");
        }
    } else if (type != LUA_TSTRING && type != LUA_TBOOLEAN) {
        return luaL_argerror(L, 3, "string, integer or boolean expected");
    }
    return SLB::detail::Protect(L, [&] {
        const std::string name(key, keyLength);
        bool stored = false;
        if (type == LUA_TNUMBER) {
            stored = dom->Set(name, static_cast<i64>(lua_tonumber(L, 3)));
        } else if (type == LUA_TBOOLEAN) {
            stored = dom->Set(name, lua_toboolean(L, 3) != 0);
        } else {
            size_t length = 0;
            const char* text = lua_tolstring(L, 3, &length);
            stored = dom->Set(name, std::string(text, length));
        }
        lua_pushboolean(L, stored);
        return 1;
    });
}

// dom:GetSetting(key): the text, or nil when absent.
int GetSettingLua(lua_State* L) {
    CDom* dom = CheckDom(L);
    size_t keyLength = 0;
    const char* key = luaL_checklstring(L, 2, &keyLength);
    return SLB::detail::Protect(L, [&] {
        const std::string value = dom->Get(std::string(key, keyLength));
        if (value.empty()) {
            lua_pushnil(L);
        } else {
            lua_pushlstring(L, value.data(), value.size());
        }
        return 1;
    });
}

// dom:ConditionCount(name): how often the condition was raised.
int ConditionCountLua(lua_State* L) {
    CDom* dom = CheckDom(L);
    size_t nameLength = 0;
    const char* name = luaL_checklstring(L, 2, &nameLength);
    return SLB::detail::Protect(L, [&] {
        u64 count = 0;
        dom->ConditionQuery(std::string(name, nameLength), count, nullptr, nullptr);
        lua_pushnumber(L, static_cast<lua_Number>(count));
        return 1;
    });
}

// dom:AgentEvents(): {number = n, detail = "..."} per event, oldest first.
int AgentEventsLua(lua_State* L) {
    CDom* dom = CheckDom(L);
    return SLB::detail::Protect(L, [&] {
        const std::vector<NorvCore::AgentEvent> events = dom->AgentEvents();
        lua_createtable(L, static_cast<int>(events.size()), 0);
        for (size_t i = 0; i < events.size(); ++i) {
            lua_createtable(L, 0, 2);
            lua_pushinteger(L, events[i].number);
            lua_setfield(L, -2, "number");
            SLB::detail::PushWxString(L, events[i].detail);
            lua_setfield(L, -2, "detail");
            lua_rawseti(L, -2, static_cast<int>(i + 1));
        }
        return 1;
    });
}

// dom:SetConfigXml(text): the configuration document, UTF-8.
int SetConfigXmlLua(lua_State* L) {
    CDom* dom = CheckDom(L);
    size_t length = 0;
    const char* text = luaL_checklstring(L, 2, &length);
    return SLB::detail::Protect(L, [&] {
        lua_pushboolean(L, dom->SetConfigXml(wxString::FromUTF8(text, length)));
        return 1;
    });
}

// norv.SetTrace(categories): "" switches tracing off, "*" all on.
int SetTraceLua(lua_State* L) {
    size_t length = 0;
    const char* categories = luaL_checklstring(L, 1, &length);
    return SLB::detail::Protect(L, [&] {
        NorvCore::SetTraceCategories(std::string(categories, length));
        return 0;
    });
}

int TraceLinesLua(lua_State* L) {
    return SLB::detail::Protect(L, [&] {
        PushStrings(L, NorvCore::TakeTraceLines());
        return 1;
    });
}

int OperatorLogLua(lua_State* L) {
    return SLB::detail::Protect(L, [&] {
        PushStrings(L, NorvCore::TakeOperatorLogLines());
        return 1;
    });
}

int TicksLua(lua_State* L) {
    lua_pushinteger(L, NorvCore::SystemTickCount());
    return 1;
}

// norv.SetTicks(n): the manual clock, standing at n (taken modulo 2^32).
int SetTicksLua(lua_State* L) {
    NorvCore::SetManualTicks(static_cast<u32>(luaL_checkinteger(L, 1)));
    return 0;
}

int AdvanceTicksLua(lua_State* L) {
    NorvCore::AdvanceManualTicks(static_cast<u32>(luaL_checkinteger(L, 1)));
    return 0;
}

int RealTicksLua(lua_State*) {
    NorvCore::UseRealTicks();
    return 0;
}

const luaL_Reg kFunctions[] = {
    {"AdvanceTicks", AdvanceTicksLua}, {"OperatorLog", OperatorLogLua},
    {"RealTicks", RealTicksLua},       {"SetTicks", SetTicksLua},
    {"SetTrace", SetTraceLua},         {"Ticks", TicksLua},
    {"TraceLines", TraceLinesLua},     {nullptr, nullptr},
};

// The thread classes, as norv::Thread and norv::Runnable: scripts start and
// stop the system's threads (objects of classes derived from these) through
// them. Neither has a constructor of its own.
void RegisterThreads(SLB::Manager* manager) {
    SLB::Class<wxThread, SLB::Instance::NoCopy>("norv::Thread", manager)
        .setInfo("wxThread: a toolkit thread")
        .set("IsAlive", &wxThread::IsAlive);
    SLB::Class<NorvCore::CRunnable, SLB::Instance::NoCopy>("norv::Runnable", manager)
        .setInfo("NorvCore::CRunnable: a thread of the system")
        .inherits<wxThread>()
        .set("start", &NorvCore::CRunnable::start)
        .set("isRunning", &NorvCore::CRunnable::isRunning)
        .set("StopThread", &NorvCore::CRunnable::StopThread);
}

void RegisterDom(SLB::Manager* manager) {
    SLB::Class<CDom, SLB::Instance::NoCopy>("norv::Dom", manager)
        .setInfo("NorvCore::CDom: the host's settings, conditions and agent events")
        .constructor<const std::string&>()
        .set("AgentEvents", SLB::FuncCall::create(AgentEventsLua))
        .set("ClearAgentEvents", &CDom::ClearAgentEvents)
        .set("ConditionCount", SLB::FuncCall::create(ConditionCountLua))
        .set("ConditionRaise", &CDom::ConditionRaise)
        .set("GetSetting", SLB::FuncCall::create(GetSettingLua))
        .set("RequestExit", &CDom::RequestExit)
        .set("SetConfigXml", SLB::FuncCall::create(SetConfigXmlLua))
        .set("SetSetting", SLB::FuncCall::create(SetSettingLua));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_norv(lua_State* L) {
    return SLB::detail::Protect(L, [&] {
        NorvCore::InitializeToolkit();
        NORV_TRACE(L"norv", "luaopen_norv");
        SLB::Manager* manager = SLB::Manager::createInstance(L);
        RegisterDom(manager);
        RegisterThreads(manager);
        luaL_newlib(L, kFunctions);
        return 1;
    });
}
