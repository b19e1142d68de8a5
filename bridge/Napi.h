// NAPI: the small helpers through which the bridge talks to the script engine. Every function
// that takes a napi_env runs on that environment's script thread only; JavaScript values never
// leave it. The exceptions are Bridge::postJSTask and JSFunction::call, which any thread may use.
//
// Readers answer "not there" (an empty optional, null) instead of raising: a value of the wrong
// type is not an error. Only a failing conversion towards the script (making a string, an object)
// raises the engine's error, through throwLastError.
#pragma once

#include <node_api.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/Mutex.h"

namespace FerritCore::NAPI {

// The call's arguments, at most `max` of them (fewer when the caller passed fewer).
std::vector<napi_value> getArgs(napi_env env, napi_callback_info info, size_t max);
// The first argument of a call, or undefined when there is none.
napi_value firstArg(napi_env env, napi_callback_info info);
// A plain method property: what a module's exports table is made of.
constexpr napi_property_descriptor method(const char* name, napi_callback callback) {
    return {name, nullptr, callback, nullptr, nullptr, nullptr, napi_default_method, nullptr};
}

// The string, or empty when the value is not a string.
std::optional<std::string> toString(napi_env env, napi_value value);
// A script string, or null with the engine's error raised.
napi_value toString(napi_env env, std::string_view text);
// The number cut to 32 bits (NaN and infinities read 0), or empty when it is not a number.
std::optional<int32_t> toInt32(napi_env env, napi_value value);
std::optional<double> toDouble(napi_env env, napi_value value);
napi_value toInt32(napi_env env, int32_t number);
napi_value toBool(napi_env env, bool value);
// A script number, or null with the engine's error raised.
napi_value toNumber(napi_env env, double number);
// The boolean, or empty when the value is not a boolean.
std::optional<bool> readBool(napi_env env, napi_value value);
// The bytes of a string (UTF-8), a Buffer, a typed array, a DataView or an ArrayBuffer; empty
// for anything else.
std::optional<std::string> toData(napi_env env, napi_value value);
// The named property, or null when `object` is not an object, the property is undefined, or
// reading it failed (an exception thrown by a getter is caught and dropped: the property is
// taken as absent).
napi_value getProperty(napi_env env, napi_value object, const char* key);
// The same with the name as a script value.
napi_value getProperty(napi_env env, napi_value object, napi_value key);
bool isObject(napi_env env, napi_value value);
bool isFunction(napi_env env, napi_value value);
napi_value undefined(napi_env env);
// Raises the environment's last error as a script exception, unless one is pending already.
void throwLastError(napi_env env);
// Drops a pending script exception, if any.
void clearException(napi_env env);
// Takes the pending script exception and gives its text: the "message" of an error object (with
// its "name" before it, as "TypeError: ..."), or the value made a string; empty when none is
// pending. The exception is cleared in any case.
std::string takeExceptionText(napi_env env);

// The module's script helpers: small functions that do in one call what would otherwise take the
// bridge many calls into the engine.
enum class Script : size_t { ResponseObject, ResponseObjectPairs, RequestFields, Count };
// The function compiled from `source` (a parenthesised function expression), once per environment,
// and kept for the environment's life under `script`. Null with the engine's error raised when it
// cannot be made. These helpers own the environment's instance data; nothing else may set it.
napi_value scriptFunction(napi_env env, Script script, const char* source);

// Runs `work` on the engine's work pool and then, when given, `done` on the script thread.
// False (and nothing runs) when the work could not be queued.
bool postAsyncTask(napi_env env, std::function<void()> work,
                   std::function<void(napi_env)> done = {});

// A thread-safe function that any thread may call or release at any time, also once its
// environment is gone. The environment frees the engine's object when it is torn down, while the
// library's worker may still be running; from then on calls fail and releases do nothing.
class SafeThreadsafeFunction {
  public:
    // Script thread. False when the engine refuses.
    bool create(napi_env env, napi_value function, const char* name,
                napi_threadsafe_function_call_js callJs);
    // Any thread. False when the function is closing or gone; `data` is then not taken.
    bool call(void* data);
    // Script thread: the function no longer keeps the environment's loop alive.
    void unref(napi_env env);
    // Any thread: gives this holder's share back. Later calls fail.
    void release();

  private:
    struct Gate {
        Mutex mutex;
        // Null once released or finalised by the environment.
        napi_threadsafe_function tsfn GUARDED_BY(mutex) = nullptr;
    };
    static void finalize(napi_env env, void* data, void* hint);
    // Shared with the environment's finaliser, which may run after this holder is gone.
    std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

// Builds the arguments of a call on the script thread.
using ArgumentBuilder = std::function<std::vector<napi_value>(napi_env env)>;

// A script function that may be called from any thread; each call is carried out on the script
// thread, where `builder` makes its arguments. Made with toFunction; the function is kept alive
// until the last reference to this object goes.
class JSFunction {
  public:
    ~JSFunction();
    JSFunction(const JSFunction&) = delete;
    JSFunction& operator=(const JSFunction&) = delete;
    // False when the environment is going away; the builder then never runs.
    bool call(ArgumentBuilder builder);

  private:
    friend std::shared_ptr<JSFunction> toFunction(napi_env env, napi_value function);
    JSFunction() = default;

    SafeThreadsafeFunction function_;
};

// Null when `function` is not a function or the engine refuses.
std::shared_ptr<JSFunction> toFunction(napi_env env, napi_value function);

// The host's bridge object, kept by reference for the life of the process.
class Bridge {
  public:
    // Null when `object` is not an object or the engine refuses.
    static std::shared_ptr<Bridge> create(napi_env env, napi_value object);
    ~Bridge();
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    napi_env env() const { return env_; }
    // Script thread: whether the object has a method `name` now (the host may add or remove its
    // optional methods at any time).
    bool hasMethod(const char* name);
    // Script thread: calls the object's method `name`. Null when there is no such method or the
    // call threw (the exception is dropped: the host's failure is not the caller's); `failure`,
    // when given, then says which, in words, with the host's own message of what it threw.
    napi_value invoke(const char* name, const std::vector<napi_value>& arguments,
                      std::string* failure = nullptr);
    // Any thread: runs `task` on the script thread, later. False when the environment is going
    // away; `task` then never runs.
    bool postJSTask(std::function<void(napi_env)> task);

  private:
    Bridge() = default;

    napi_env env_ = nullptr;
    napi_ref object_ = nullptr;
    SafeThreadsafeFunction tasks_;
};

}  // namespace FerritCore::NAPI
