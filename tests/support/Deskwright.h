// The real deskwright.dll, loaded as a Java VM loads it, with its natives
// called by the names a VM looks up: "_Java_..._Name@N" in a 32-bit process
// (N the bytes of the stdcall arguments), "Java_..._Name" in a 64-bit one.
#pragma once

#include <jni.h>
#include <windows.h>

#include <stdexcept>
#include <string>

namespace dwtest {

template <class T>
constexpr int stackBytes() {
    return static_cast<int>((sizeof(T) + 3) / 4 * 4);
}

class Deskwright {
public:
    Deskwright();
    ~Deskwright();
    Deskwright(const Deskwright&) = delete;
    Deskwright& operator=(const Deskwright&) = delete;

    HMODULE module() const { return module_; }

    // The address of an export by its exact name; throws if it is missing.
    FARPROC exportNamed(const std::string& name) const;
    template <class Fn>
    Fn exportAs(const std::string& name) const {
        return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(exportNamed(name)));
    }

    // The name a VM looks up for a native with these parameter types.
    template <class... A>
    static std::string nativeName(const std::string& method) {
        const std::string plain = "Java_net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright_" + method;
        if (sizeof(void*) == 8) return plain;
        const int bytes = stackBytes<JNIEnv*>() + stackBytes<jobject>() + (0 + ... + stackBytes<A>());
        return "_" + plain + "@" + std::to_string(bytes);
    }

    template <class R, class... A>
    R call(const std::string& method, JNIEnv* env, jobject self, A... args) const {
        using Fn = R(JNICALL*)(JNIEnv*, jobject, A...);
        auto fn = exportAs<Fn>(nativeName<A...>(method));
        return fn(env, self, args...);
    }

    jint onLoad(JavaVM* vm) const;

private:
    HMODULE module_;
};

}  // namespace dwtest
