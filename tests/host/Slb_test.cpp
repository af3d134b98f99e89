// The class binder: registration, the errors scripts meet, marshalling,
// base classes and ownership, each in a fresh interpreter.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include <lua.hpp>

#include "host/Dom.h"
#include "host/slb/SLB.h"

namespace slbtest {

int g_Destroyed = 0;

class Widget {
public:
    Widget(const wxString& name, int size) : m_Name(name), m_Size(size) {
        if (size < 0) {
            throw std::invalid_argument("negative size");
        }
    }
    ~Widget() { ++g_Destroyed; }

    wxString& Name() { return m_Name; }
    void SetName(wxString name) { m_Name = name; }
    long Size() const { return m_Size; }
    void SetSize(long size) { m_Size = size; }
    bool Invert(bool value) const noexcept { return !value; }
    unsigned Mask(unsigned value) const { return value; }
    int Measure(const wchar_t* text) const { return text ? static_cast<int>(wcslen(text)) : -1; }
    void Fail() { throw std::runtime_error("widget failed"); }

private:
    wxString m_Name;
    long m_Size;
};

class Holder {
public:
    long SizeOf(const Widget& widget) { return widget.Size(); }
    bool IsNull(Widget* widget) { return widget == nullptr; }
};

// Made with a reference to a Widget that it keeps using.
class Frame {
public:
    explicit Frame(Widget& widget) : m_Widget(&widget) {}
    long WidgetSize() { return m_Widget->Size(); }

private:
    Widget* m_Widget;
};

// Constructed from the host store; used where no store class is registered.
class Gauge {
public:
    explicit Gauge(NorvCore::CDom&) {}
};

// A diamond-free multiple inheritance: Both is a Left and a Right, and a
// Right is a Root. The bases sit at different offsets inside Both.
class Root {
public:
    int RootValue() const { return m_Root; }
    int m_Root = 10;
};

class Left {
public:
    virtual ~Left() = default;
    int LeftValue() const { return m_Left; }
    int m_Left = 1;
};

class Right : public Root {
public:
    int RightValue() const { return m_Right; }
    int AddRight(int delta) { return m_Right += delta; }
    int m_Right = 2;
};

class Both : public Left, public Right {
public:
    int m_Both = 3;
};

}  // namespace slbtest

namespace {

using namespace slbtest;

class SlbTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_Destroyed = 0;
        L = luaL_newstate();
        luaL_openlibs(L);
        m_Manager = SLB::Manager::createInstance(L);
        SLB::Class<Widget, SLB::Instance::NoCopy>("test::Widget", m_Manager)
            .setInfo("slbtest::Widget: a named thing with a size")
            .constructor<const wxString&, int>()
            .set("Name", &Widget::Name)
            .set("SetName", &Widget::SetName)
            .set("Size", &Widget::Size)
            .set("SetSize", &Widget::SetSize)
            .set("Invert", &Widget::Invert)
            .set("Mask", &Widget::Mask)
            .set("Measure", &Widget::Measure)
            .set("Fail", &Widget::Fail)
            .set("Limits::Max", 584)
            .set("Limits::Min", -3);
        SLB::Class<Holder>("test::nested::Holder", m_Manager)
            .constructor<>()
            .set("SizeOf", &Holder::SizeOf)
            .set("IsNull", &Holder::IsNull);
        SLB::Class<Frame>("test::Frame", m_Manager)
            .constructor<Widget&>()
            .set("WidgetSize", &Frame::WidgetSize);
        SLB::Class<Gauge>("test::Gauge", m_Manager).constructor<NorvCore::CDom&>();
        SLB::Class<Root>("test::Root", m_Manager).set("RootValue", &Root::RootValue);
        SLB::Class<Left>("test::Left", m_Manager).set("LeftValue", &Left::LeftValue);
        SLB::Class<Right>("test::Right", m_Manager)
            .inherits<Root>()
            .set("RightValue", &Right::RightValue)
            .set("AddRight", &Right::AddRight);
        SLB::Class<Both>("test::Both", m_Manager)
            .constructor<>()
            .inherits<Left>()
            .inherits<Right>();
    }

    void TearDown() override {
        if (L) {
            lua_close(L);
        }
    }

    // Runs code; "" on success, else the error message without the position
    // of the failing call that Lua puts before it.
    std::string Run(const std::string& code) {
        if (luaL_dostring(L, code.c_str()) == LUA_OK) {
            lua_settop(L, 0);
            return "";
        }
        std::string message = lua_tostring(L, -1);
        lua_settop(L, 0);
        const size_t chunkEnd = message.rfind("\"]:");
        const size_t lineEnd = message.find(": ", chunkEnd);
        if (message.compare(0, 9, "[string \"") == 0 && chunkEnd != std::string::npos &&
            lineEnd != std::string::npos) {
            message.erase(0, lineEnd + 2);
        }
        return message;
    }

    // The value of one Lua expression, as text.
    std::string Eval(const std::string& expression) {
        const std::string failure = Run("result = tostring(" + expression + ")");
        if (!failure.empty()) {
            return "error: " + failure;
        }
        lua_getglobal(L, "result");
        std::string value = lua_tostring(L, -1);
        lua_pop(L, 1);
        return value;
    }

    lua_State* L = nullptr;
    SLB::Manager* m_Manager = nullptr;
};

TEST(SlbManagerTest, OneManagerPerInterpreterSetUpOnDemand) {
    lua_State* L = luaL_newstate();
    EXPECT_EQ(SLB::Manager::getInstance(L), nullptr);
    SLB::Manager* manager = SLB::Manager::createInstance(L);
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(SLB::Manager::createInstance(L), manager);
    EXPECT_EQ(SLB::Manager::getInstance(L), manager);
    lua_getglobal(L, "SLB");
    EXPECT_TRUE(lua_istable(L, -1));
    const void* root = lua_topointer(L, -1);
    lua_pop(L, 1);

    // Setting up again brings back a global that a script dropped.
    lua_pushnil(L);
    lua_setglobal(L, "SLB");
    EXPECT_EQ(SLB::Manager::createInstance(L), manager);
    lua_getglobal(L, "SLB");
    EXPECT_EQ(lua_topointer(L, -1), root);
    lua_pop(L, 1);

    lua_State* other = luaL_newstate();
    EXPECT_EQ(SLB::Manager::getInstance(other), nullptr);
    lua_close(other);
    lua_close(L);
}

TEST(SlbTypeIdTest, KeysNameTheDemangledType) {
    EXPECT_EQ(SLB::TypeID<NorvCore::CDom>::Name(), "SLB::TypeID<class NorvCore::CDom>::Name");
    EXPECT_EQ(SLB::TypeID<slbtest::Both>::Name(), "SLB::TypeID<class slbtest::Both>::Name");
    EXPECT_EQ(SLB::TypeID<int>::Name(), "SLB::TypeID<int>::Name");
}

TEST_F(SlbTest, NamesBecomeNestedTablesWithConstants) {
    EXPECT_EQ(Eval("type(SLB.test.nested.Holder)"), "table");
    EXPECT_EQ(Eval("SLB.test.Widget.Limits.Max"), "584");
    EXPECT_EQ(Eval("SLB.test.Widget.Limits.Min"), "-3");
    EXPECT_EQ(Eval("SLB.test.Widget"),
              "class test::Widget: slbtest::Widget: a named thing with a size");
    EXPECT_EQ(m_Manager->getClass(SLB::TypeID<Widget>::Key())->name(), "test::Widget");
    EXPECT_EQ(m_Manager->getClass(SLB::TypeID<Both>::Key())->typeKey(),
              "SLB::TypeID<class slbtest::Both>::Name");
}

TEST_F(SlbTest, ConstructorChecksCountClassAndArguments) {
    EXPECT_EQ(Run("SLB.test.Widget('a')"), "Error number of arguments (given 1 -> expected 2)");
    EXPECT_EQ(Run("SLB.test.nested.Holder(1)"),
              "Error number of arguments (given 1 -> expected 0)");
    EXPECT_EQ(Run("SLB.test.Gauge({})"), "Unknown class SLB::TypeID<class NorvCore::CDom>::Name");
    SLB::Class<NorvCore::CDom>("test::Dom", m_Manager);
    EXPECT_EQ(Run("SLB.test.Gauge({})"),
              "bad argument #1 to 'Gauge' (test::Dom expected, got table)");
    EXPECT_EQ(Run("SLB.test.Root()"), "Class test::Root has no constructor");
    EXPECT_EQ(Run("w = SLB.test.Widget('a', -1)"), "negative size");
    EXPECT_EQ(Eval("SLB.test.Widget('gear', 7):Size()"), "7");

    ASSERT_EQ(Run("WidgetClass = SLB.test.Widget"), "");
    EXPECT_TRUE(m_Manager->removeClass(SLB::TypeID<Widget>::Key()));
    EXPECT_FALSE(m_Manager->removeClass(SLB::TypeID<Widget>::Key()));
    EXPECT_EQ(Run("WidgetClass('a', 1)"),
              "Class SLB::TypeID<class slbtest::Widget>::Name is not avaliable! ");
}

TEST_F(SlbTest, RemovedClassLeavesInstancesCollectable) {
    ASSERT_EQ(Run("w = SLB.test.Widget('a', 1)"), "");
    m_Manager->removeClass(SLB::TypeID<Widget>::Key());
    EXPECT_EQ(Run("w:Size()"), "Unknown class SLB::TypeID<class slbtest::Widget>::Name");
    ASSERT_EQ(Run("w = nil collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 1);
}

TEST_F(SlbTest, MethodsCheckCountThenObject) {
    ASSERT_EQ(Run("w = SLB.test.Widget('a', 1) h = SLB.test.nested.Holder()"), "");
    EXPECT_EQ(Run("w:SetName()"), "Error number of arguments (given 0 -> expected 1)");
    EXPECT_EQ(Run("w:Size(1)"), "Error number of arguments (given 1 -> expected 0)");
    EXPECT_EQ(Run("w.Size()"), "Error number of arguments (given -1 -> expected 0)");
    EXPECT_EQ(Run("w.Size({})"), "Invalid object for this method");
    EXPECT_EQ(Run("w.Size(h)"), "Invalid object for this method");
    EXPECT_EQ(Run("SLB.test.Widget.SetName(5, 'x')"), "Invalid object for this method");
    EXPECT_EQ(Run("w:Fail()"), "widget failed");
    EXPECT_EQ(Eval("w:Size()"), "1");
}

TEST_F(SlbTest, MarshalsTextNumbersAndFlags) {
    ASSERT_EQ(Run("w = SLB.test.Widget('a', 1)"), "");
    EXPECT_EQ(Eval("w:SetName('h\\195\\169llo') or w:Name()"), "h\xc3\xa9llo");
    EXPECT_EQ(Eval("w:SetName('a\\0b') or #w:Name()"), "3");
    EXPECT_EQ(Eval("w:SetName(12) or w:Name()"), "12");
    EXPECT_EQ(Eval("w:SetName({}) or #w:Name()"), "0");
    EXPECT_EQ(Eval("w:SetSize(2^32 + 5) or w:Size()"), "5");
    EXPECT_EQ(Eval("w:SetSize(-1) or w:Size()"), "-1");
    EXPECT_EQ(Eval("w:SetSize('nope') or w:Size()"), "0");
    EXPECT_EQ(Eval("w:Mask(-1)"), "4294967295");
    EXPECT_EQ(Eval("w:Invert(nil)"), "true");
    EXPECT_EQ(Eval("w:Invert(0)"), "false");
    EXPECT_EQ(Eval("w:Measure(nil)"), "-1");
    EXPECT_EQ(Eval("w:Measure('h\\195\\169llo')"), "5");
    EXPECT_EQ(Eval("select('#', w:SetSize(3))"), "0");
}

TEST_F(SlbTest, ClassArgumentsNeverBindNullReferences) {
    ASSERT_EQ(Run("w = SLB.test.Widget('a', 9) h = SLB.test.nested.Holder()"), "");
    EXPECT_EQ(Eval("h:SizeOf(w)"), "9");
    EXPECT_EQ(Run("h:SizeOf(nil)"), "bad argument #1 to 'SizeOf' (test::Widget expected, got nil)");
    EXPECT_EQ(Run("h:SizeOf(h)"),
              "bad argument #1 to 'SizeOf' (test::Widget expected, got userdata)");
    EXPECT_EQ(Eval("h:IsNull(nil)"), "true");
    EXPECT_EQ(Eval("h:IsNull(w)"), "false");
}

TEST_F(SlbTest, BaseMethodsSeeAdjustedPointers) {
    ASSERT_EQ(Run("b = SLB.test.Both()"), "");
    EXPECT_EQ(Eval("b:LeftValue()"), "1");
    EXPECT_EQ(Eval("b:RightValue()"), "2");
    EXPECT_EQ(Eval("b:AddRight(5)"), "7");
    EXPECT_EQ(Eval("b:RootValue()"), "10");
    EXPECT_EQ(Eval("SLB.test.Both.RightValue == SLB.test.Right.RightValue"), "true");
    EXPECT_EQ(Eval("b.Missing"), "nil");

    lua_getglobal(L, "b");
    Both* both = SLB::get<Both*>(L, -1);
    ASSERT_NE(both, nullptr);
    EXPECT_EQ(both->m_Right, 7);
    EXPECT_EQ(SLB::get<Right*>(L, -1), static_cast<Right*>(both));
    EXPECT_EQ(SLB::get<Root*>(L, -1), static_cast<Root*>(both));
    EXPECT_EQ(SLB::get<Left*>(L, -1), static_cast<Left*>(both));
    EXPECT_NE(static_cast<void*>(static_cast<Right*>(both)), static_cast<void*>(both));
    EXPECT_EQ(SLB::get<Widget*>(L, -1), nullptr);
    lua_pop(L, 1);

    // A Right pushed on its own is no Both.
    Right right;
    SLB::push(L, &right);
    EXPECT_EQ(SLB::get<Both*>(L, -1), nullptr);
    EXPECT_EQ(SLB::get<Root*>(L, -1), static_cast<Root*>(&right));
    lua_pop(L, 1);
}

TEST_F(SlbTest, GetAnswersNullForOtherValues) {
    lua_pushinteger(L, 1);
    lua_newtable(L);
    // A plain userdata of an instance's size is still no instance.
    lua_newuserdata(L, sizeof(SLB::InstanceBox));
    lua_pushlightuserdata(L, L);
    for (int index = 1; index <= 4; ++index) {
        EXPECT_EQ(SLB::get<Widget*>(L, index), nullptr) << index;
        EXPECT_FALSE(SLB::scriptOwnsInstance(L, index, true)) << index;
    }
    lua_settop(L, 0);
    SLB::push(L, static_cast<Widget*>(nullptr));
    EXPECT_TRUE(lua_isnil(L, -1));
    lua_settop(L, 0);
}

int FetchUnregistered(lua_State* L) {
    lua_pushboolean(L, SLB::get<std::string*>(L, 1) != nullptr);
    return 1;
}

TEST_F(SlbTest, GetRaisesForUnregisteredClass) {
    lua_pushcfunction(L, FetchUnregistered);
    lua_pushinteger(L, 1);
    ASSERT_NE(lua_pcall(L, 1, 1, 0), LUA_OK);
    EXPECT_STREQ(lua_tostring(L, -1),
                 ("Unknown class " + SLB::TypeID<std::string>::Name()).c_str());
    lua_settop(L, 0);
}

TEST_F(SlbTest, OwnedInstancesDieOnceAtCollection) {
    ASSERT_EQ(Run("local w = SLB.test.Widget('a', 1)"), "");
    ASSERT_EQ(Run("collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 1);

    // Pushed by pointer: the script does not own it.
    Widget kept("kept", 2);
    SLB::push(L, &kept);
    lua_setglobal(L, "k");
    EXPECT_EQ(Eval("k:Size()"), "2");
    ASSERT_EQ(Run("k = nil collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 1);

    // Handed to the script: collection destroys and frees it.
    void* memory = SLB::Malloc(sizeof(Widget));
    SLB::push(L, new (memory) Widget("given", 3));
    EXPECT_TRUE(SLB::scriptOwnsInstance(L, -1, true));
    lua_pop(L, 1);
    lua_gc(L, LUA_GCCOLLECT, 0);
    EXPECT_EQ(g_Destroyed, 2);

    // Taken back from the script: collection leaves it alive.
    ASSERT_EQ(Run("taken = SLB.test.Widget('taken', 4)"), "");
    lua_getglobal(L, "taken");
    Widget* taken = SLB::get<Widget*>(L, -1);
    EXPECT_TRUE(SLB::scriptOwnsInstance(L, -1, false));
    lua_pop(L, 1);
    ASSERT_EQ(Run("taken = nil collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 2);
    taken->~Widget();
    SLB::Free(taken);
    EXPECT_EQ(g_Destroyed, 3);

    // Closing the interpreter collects what is left.
    ASSERT_EQ(Run("last = SLB.test.Widget('last', 5)"), "");
    lua_close(L);
    L = nullptr;
    EXPECT_EQ(g_Destroyed, 4);
}

TEST_F(SlbTest, ConstructorArgumentsLiveAsLongAsTheInstance) {
    // The script keeps no reference of its own to the widget.
    ASSERT_EQ(Run("f = SLB.test.Frame(SLB.test.Widget('inner', 7)) "
                  "collectgarbage() collectgarbage()"),
              "");
    EXPECT_EQ(g_Destroyed, 0);
    EXPECT_EQ(Eval("f:WidgetSize()"), "7");
    ASSERT_EQ(Run("f = nil collectgarbage() collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 1);
}

TEST_F(SlbTest, InstancesPrintTheirClass) {
    ASSERT_EQ(Run("w = SLB.test.Widget('a', 1)"), "");
    EXPECT_EQ(Eval("tostring(w):match('^test::Widget: ') ~= nil"), "true");
    EXPECT_EQ(Eval("getmetatable(w)"), "false");
}

TEST_F(SlbTest, UsingMakesEntriesGlobalAndKeepsOldIndex) {
    ASSERT_EQ(
        Run("setmetatable(_G, {__index = function(_, k) return k == 'old' and 'kept' or nil end})"),
        "");
    ASSERT_EQ(Run("Holder = 'global wins' SLB.using(SLB.test) SLB.using(SLB.test.nested)"), "");
    EXPECT_EQ(Eval("Widget == SLB.test.Widget"), "true");
    EXPECT_EQ(Eval("Holder"), "global wins");
    EXPECT_EQ(Eval("old"), "kept");
    EXPECT_EQ(Eval("nothing"), "nil");
    ASSERT_EQ(Run("SLB.using(SLB.test) Holder = nil"), "");
    EXPECT_EQ(Eval("Holder == SLB.test.nested.Holder"), "true");
    EXPECT_EQ(Eval("Widget('x', 3):Size()"), "3");
    EXPECT_NE(Run("SLB.using(1)").find("bad argument #1 to 'using'"), std::string::npos);
}

}  // namespace
