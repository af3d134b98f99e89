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
    long SizeOf(const Widget& other) const { return other.m_Size; }
    bool IsNull(Widget* other) const { return other == nullptr; }
    void Fail() { throw std::runtime_error("widget failed"); }

private:
    wxString m_Name;
    long m_Size;
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
struct Gauge {
    explicit Gauge(NorvCore::CDom&) {}
};

// Both is a Left and a Right, and a Right is a Root; the bases sit at
// different offsets inside Both.
struct Root {
    int RootValue() const { return m_Root; }
    int m_Root = 10;
};
struct Left {
    virtual ~Left() = default;
    int LeftValue() const { return m_Left; }
    int m_Left = 1;
};
struct Right : Root {
    int AddRight(int delta) { return m_Right += delta; }
    int m_Right = 2;
};
struct Both : Left, Right {};

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
            .constructor<const wxString&, int>()
            .set("Name", &Widget::Name)
            .set("SetName", &Widget::SetName)
            .set("Size", &Widget::Size)
            .set("SetSize", &Widget::SetSize)
            .set("Invert", &Widget::Invert)
            .set("SizeOf", &Widget::SizeOf)
            .set("IsNull", &Widget::IsNull)
            .set("Fail", &Widget::Fail)
            .set("Limits::Max", 584);
        SLB::Class<Frame>("test::Frame", m_Manager)
            .constructor<Widget&>()
            .set("WidgetSize", &Frame::WidgetSize);
        SLB::Class<Gauge>("test::Gauge", m_Manager).constructor<NorvCore::CDom&>();
        SLB::Class<Root>("test::Root", m_Manager).set("RootValue", &Root::RootValue);
        SLB::Class<Left>("test::Left", m_Manager).set("LeftValue", &Left::LeftValue);
        SLB::Class<Right>("test::Right", m_Manager)
            .inherits<Root>()
            .set("AddRight", &Right::AddRight);
        SLB::Class<Both>("test::nested::Both", m_Manager)
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
        const bool ok = luaL_loadbuffer(L, code.data(), code.size(), "=t") == LUA_OK &&
                        lua_pcall(L, 0, 0, 0) == LUA_OK;
        const std::string message = ok ? "" : lua_tostring(L, -1);
        lua_settop(L, 0);
        return message.compare(0, 5, "t:1: ") == 0 ? message.substr(5) : message;
    }

    // The value of one Lua expression as text, or "error: " and the message.
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

TEST_F(SlbTest, ScriptCallsAnswerOrRaise) {
    ASSERT_EQ(Run("w = SLB.test.Widget('a', 9) b = SLB.test.nested.Both()"), "");
    const struct {
        const char* expression;
        const char* expected;
    } cases[] = {
        {"SLB.test.Widget.Limits.Max", "584"},
        {"b.Missing", "nil"},
        {"SLB.test.Widget('a')", "error: Error number of arguments (given 1 -> expected 2)"},
        {"SLB.test.Gauge({})", "error: Unknown class SLB::TypeID<class NorvCore::CDom>::Name"},
        {"SLB.test.Root()", "error: Class test::Root has no constructor"},
        {"SLB.test.Widget('a', -1)", "error: negative size"},
        // Methods check the count first, then the object.
        {"w.Size()", "error: Error number of arguments (given -1 -> expected 0)"},
        {"w.Size(b)", "error: Invalid object for this method"},
        {"w:Fail()", "error: widget failed"},
        // Marshalling of arguments and results.
        {"w:SetName('h\\195\\169llo') or w:Name()", "h\xc3\xa9llo"},
        {"w:SetName('a\\0b') or #w:Name()", "3"},
        {"w:SetSize(2^32 + 5) or w:Size()", "5"},
        {"w:SetSize('nope') or w:Size()", "0"},
        {"w:Invert(nil)", "true"},
        {"select('#', w:SetSize(9))", "0"},
        // A reference is never bound to nil; a pointer may be null.
        {"w:SizeOf(w)", "9"},
        {"w:SizeOf(nil)", "error: bad argument #1 to 'SizeOf' (test::Widget expected, got nil)"},
        {"w:IsNull(nil)", "true"},
        // Methods of bases see the base at its own offset.
        {"b:LeftValue()", "1"},
        {"b:RootValue()", "10"},
        {"b:AddRight(5)", "7"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Eval(c.expression), c.expected) << c.expression;
    }
    // With the class registered, the store argument is checked by type.
    SLB::Class<NorvCore::CDom>("test::Dom", m_Manager);
    EXPECT_EQ(Run("SLB.test.Gauge({})"),
              "bad argument #1 to 'Gauge' (test::Dom expected, got table)");
}

TEST_F(SlbTest, GetConvertsToBasesOnlyAndAnswersNullForOtherValues) {
    ASSERT_EQ(Run("b = SLB.test.nested.Both()"), "");
    // A Right pushed on its own is no Both.
    Right right;
    SLB::push(L, &right);
    EXPECT_EQ(SLB::get<Both*>(L, -1), nullptr);
    EXPECT_EQ(SLB::get<Root*>(L, -1), static_cast<Root*>(&right));
    lua_settop(L, 0);

    lua_pushinteger(L, 1);
    // A userdata of an instance's size, with a metatable, is still no instance.
    lua_newuserdata(L, sizeof(SLB::InstanceBox));
    lua_newtable(L);
    lua_setmetatable(L, -2);
    lua_pushlightuserdata(L, L);
    lua_getglobal(L, "b");
    for (int index = 1; index <= 4; ++index) {
        EXPECT_EQ(SLB::get<Widget*>(L, index), nullptr) << index;
        EXPECT_EQ(SLB::scriptOwnsInstance(L, index, true), index == 4) << index;
    }
    lua_settop(L, 0);
    SLB::push(L, static_cast<Widget*>(nullptr));
    EXPECT_TRUE(lua_isnil(L, -1));
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
    SLB::push(L, new (SLB::Malloc(sizeof(Widget))) Widget("given", 3));
    EXPECT_TRUE(SLB::scriptOwnsInstance(L, -1, true));
    lua_pop(L, 1);
    lua_gc(L, LUA_GCCOLLECT, 0);
    EXPECT_EQ(g_Destroyed, 2);

    // A constructor argument lives as long as the instance made with it.
    ASSERT_EQ(Run("f = SLB.test.Frame(SLB.test.Widget('inner', 7)) collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 2);
    EXPECT_EQ(Eval("f:WidgetSize()"), "7");
    ASSERT_EQ(Run("f = nil collectgarbage() collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(g_Destroyed, 3);

    // Closing the interpreter collects what is left.
    ASSERT_EQ(Run("last = SLB.test.Widget('last', 5)"), "");
    lua_close(L);
    L = nullptr;
    EXPECT_EQ(g_Destroyed, 4);
}

TEST_F(SlbTest, UsingMakesEntriesGlobalAndKeepsOldIndex) {
    EXPECT_EQ(Eval("SLB.using(SLB.test.nested) or nothing"), "nil");
    ASSERT_EQ(Run("setmetatable(_G, {__index = function(_, k) return k == 'old' and 7 or nil end}) "
                  "Widget = 'global wins' SLB.using(SLB.test) SLB.using(SLB.test.nested)"),
              "");
    EXPECT_EQ(Eval("Both == SLB.test.nested.Both"), "true");
    EXPECT_EQ(Eval("Widget"), "global wins");
    EXPECT_EQ(Eval("old"), "7");
    EXPECT_EQ(Eval("nothing"), "nil");
    EXPECT_NE(Run("SLB.using(1)").find("bad argument #1 to 'using'"), std::string::npos);
}

}  // namespace
