// class_callback.h: member functions as plain GLib callbacks.
#pragma once

// class_callback<Class, &Class::member>::call is a plain function with the member's result, the member's arguments and
// after them the object as `void*` user data. GLib takes it together with the object's pointer; the object must outlive
// the registration.
//
//     g_unix_signal_add(SIGTERM, class_callback<MainLoop, &MainLoop::terminate>::call, this);
template <class Class, auto Member>
struct class_callback;

template <class Class, class Result, class... Arguments, Result (Class::*Member)(Arguments...)>
struct class_callback<Class, Member> {
    static Result call(Arguments... arguments, void* object) {
        return (static_cast<Class*>(object)->*Member)(arguments...);
    }
};
