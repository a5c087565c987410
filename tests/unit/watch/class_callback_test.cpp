// class_callback_test.cpp: member functions as plain functions, by hand and as GLib's own sources and signals.

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "watch/class_callback.h"

namespace {

struct Base {
    virtual ~Base() = default;
    virtual int kind() { return 1; }
};

struct Object : Base {
    int kind() override { return 2; }

    gboolean count() {
        calls++;
        return calls < 3;
    }
    void nothing() { calls++; }
    int mix(int a, const char* b, double c) {
        calls++;
        text = std::to_string(a) + b + std::to_string(static_cast<int>(c));
        return 42;
    }
    int& self() { return calls; }
    void increase(int& number) { number++; }
    template <int input>
    void changed(GObject* sender, GParamSpec*) {
        last = input;
        origin = sender;
    }

    int calls = 0;
    int last = -1;
    GObject* origin = nullptr;
    std::string text;
};

// The results are plain functions with the object after the member's arguments.
static_assert(std::is_same_v<decltype(&class_callback<Object, &Object::count>::call), gboolean (*)(void*)>);
static_assert(std::is_same_v<decltype(&class_callback<Object, &Object::nothing>::call), void (*)(void*)>);
static_assert(
    std::is_same_v<decltype(&class_callback<Object, &Object::mix>::call), int (*)(int, const char*, double, void*)>);

TEST(ClassCallback, ForwardsArgumentsAndResult) {
    Object object;
    EXPECT_EQ((class_callback<Object, &Object::mix>::call(7, "seven", 8.0, &object)), 42);
    EXPECT_EQ(object.text, "7seven8");
    EXPECT_EQ(object.calls, 1);
}

TEST(ClassCallback, CallsTheObjectItIsGiven) {
    Object first;
    Object second;
    class_callback<Object, &Object::nothing>::call(&second);
    EXPECT_EQ(first.calls, 0);
    EXPECT_EQ(second.calls, 1);
}

TEST(ClassCallback, HandsReferencesThrough) {
    Object object;
    int number = 5;
    class_callback<Object, &Object::increase>::call(number, &object);
    EXPECT_EQ(number, 6);
    EXPECT_EQ((&class_callback<Object, &Object::self>::call(&object)), &object.calls);
}

TEST(ClassCallback, VirtualMembersAreDispatched) {
    Object object;
    EXPECT_EQ((class_callback<Base, &Base::kind>::call(static_cast<Base*>(&object))), 2);
}

TEST(ClassCallback, IsASourceOfGLib) {
    Object object;
    GMainContext* context = g_main_context_new();
    GSource* source = g_idle_source_new();
    g_source_set_callback(source, class_callback<Object, &Object::count>::call, &object, nullptr);
    g_source_attach(source, context);
    while (g_main_context_iteration(context, FALSE)) {
    }
    EXPECT_EQ(object.calls, 3) << "the false result of the third call removes the source";
    EXPECT_TRUE(g_source_is_destroyed(source));
    g_source_unref(source);
    g_main_context_unref(context);
}

TEST(ClassCallback, IsAHandlerOfAGObjectSignalWithANumberBoundIn) {
    Object object;
    GSimpleAction* sender = g_simple_action_new("action", nullptr);
    constexpr auto callback = &class_callback<Object, &Object::changed<1>>::call;
    g_signal_connect_data(sender, "notify::enabled", G_CALLBACK(callback), &object, nullptr, G_CONNECT_DEFAULT);
    g_simple_action_set_enabled(sender, FALSE);
    EXPECT_EQ(object.last, 1);
    EXPECT_EQ(object.origin, G_OBJECT(sender));
    g_object_unref(sender);
}

}  // namespace
