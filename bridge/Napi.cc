#include "bridge/Napi.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace FerritCore::NAPI {
namespace {

napi_valuetype typeOf(napi_env env, napi_value value) {
    napi_valuetype type = napi_undefined;
    if (value == nullptr || napi_typeof(env, value, &type) != napi_ok) return napi_undefined;
    return type;
}

// What a thread-safe function carries to the script thread.
struct Task {
    std::function<void(napi_env)> run;
};

// Runs a posted task on the script thread; during teardown `env` is null and the task is only
// dropped.
void runTask(napi_env env, napi_value, void*, void* data) {
    std::unique_ptr<Task> task(static_cast<Task*>(data));
    if (env == nullptr || !task->run) return;
    task->run(env);
    clearException(env);  // nothing a task raises may reach the engine's loop
}

// The arguments of one JSFunction call, built on the script thread.
void callFunction(napi_env env, napi_value function, void*, void* data) {
    std::unique_ptr<ArgumentBuilder> builder(static_cast<ArgumentBuilder*>(data));
    if (env == nullptr || function == nullptr) return;
    std::vector<napi_value> arguments;
    if (*builder) arguments = (*builder)(env);
    clearException(env);
    napi_value result = nullptr;
    if (napi_call_function(env, undefined(env), function, arguments.size(), arguments.data(),
                           &result) != napi_ok) {
        clearException(env);
    }
}

struct AsyncTask {
    std::function<void()> work;
    std::function<void(napi_env)> done;
    napi_async_work handle = nullptr;
};

// The compiled helpers of one environment, freed with it.
struct Scripts {
    napi_ref functions[static_cast<size_t>(Script::Count)] = {};
};

void freeScripts(napi_env env, void* data, void*) {
    std::unique_ptr<Scripts> scripts(static_cast<Scripts*>(data));
    for (napi_ref function : scripts->functions) {
        if (function != nullptr) napi_delete_reference(env, function);
    }
}

}  // namespace

std::vector<napi_value> getArgs(napi_env env, napi_callback_info info, size_t max) {
    std::vector<napi_value> args(max, nullptr);
    size_t count = max;
    if (napi_get_cb_info(env, info, &count, args.data(), nullptr, nullptr) != napi_ok) return {};
    args.resize(count < max ? count : max);
    return args;
}

napi_value firstArg(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = getArgs(env, info, 1);
    return args.empty() ? undefined(env) : args[0];
}

std::optional<std::string> toString(napi_env env, napi_value value) {
    if (typeOf(env, value) != napi_string) return std::nullopt;
    // Most texts (URLs, header values) fit here and are read in one pass. A character is at most
    // four bytes, so a text that left that much room was not cut short.
    char shortText[256];
    constexpr size_t kRoomForOneCharacter = 4;
    size_t copied = 0;
    if (napi_get_value_string_utf8(env, value, shortText, sizeof(shortText), &copied) != napi_ok)
        return std::nullopt;
    if (copied + kRoomForOneCharacter < sizeof(shortText)) return std::string(shortText, copied);
    size_t length = 0;
    if (napi_get_value_string_utf8(env, value, nullptr, 0, &length) != napi_ok) return std::nullopt;
    std::string text(length, '\0');
    size_t written = 0;
    // The engine writes a terminator, so it is given one byte more than the text.
    if (napi_get_value_string_utf8(env, value, text.data(), length + 1, &written) != napi_ok)
        return std::nullopt;
    text.resize(written);
    return text;
}

napi_value toString(napi_env env, std::string_view text) {
    napi_value result = nullptr;
    if (napi_create_string_utf8(env, text.data() != nullptr ? text.data() : "", text.size(),
                                &result) != napi_ok) {
        throwLastError(env);
        return nullptr;
    }
    return result;
}

std::optional<int32_t> toInt32(napi_env env, napi_value value) {
    if (typeOf(env, value) != napi_number) return std::nullopt;
    int32_t number = 0;
    if (napi_get_value_int32(env, value, &number) != napi_ok) return std::nullopt;
    return number;
}

std::optional<double> toDouble(napi_env env, napi_value value) {
    if (typeOf(env, value) != napi_number) return std::nullopt;
    double number = 0;
    if (napi_get_value_double(env, value, &number) != napi_ok) return std::nullopt;
    return number;
}

napi_value toInt32(napi_env env, int32_t number) {
    napi_value result = nullptr;
    if (napi_create_int32(env, number, &result) != napi_ok) throwLastError(env);
    return result;
}

napi_value toBool(napi_env env, bool value) {
    napi_value result = nullptr;
    if (napi_get_boolean(env, value, &result) != napi_ok) throwLastError(env);
    return result;
}

napi_value toNumber(napi_env env, double number) {
    napi_value result = nullptr;
    if (napi_create_double(env, number, &result) != napi_ok) throwLastError(env);
    return result;
}

std::optional<bool> readBool(napi_env env, napi_value value) {
    if (typeOf(env, value) != napi_boolean) return std::nullopt;
    bool result = false;
    if (napi_get_value_bool(env, value, &result) != napi_ok) return std::nullopt;
    return result;
}

std::optional<std::string> toData(napi_env env, napi_value value) {
    const napi_valuetype type = typeOf(env, value);
    if (type == napi_string) return toString(env, value);
    if (type != napi_object) return std::nullopt;
    void* data = nullptr;
    size_t length = 0;
    bool is = false;
    if (napi_is_buffer(env, value, &is) == napi_ok && is) {
        if (napi_get_buffer_info(env, value, &data, &length) != napi_ok) return std::nullopt;
    } else if (napi_is_typedarray(env, value, &is) == napi_ok && is) {
        napi_typedarray_type elementType;
        size_t elements = 0;
        napi_value buffer = nullptr;
        size_t offset = 0;
        if (napi_get_typedarray_info(env, value, &elementType, &elements, &data, &buffer,
                                     &offset) != napi_ok)
            return std::nullopt;
        napi_value lengthValue = getProperty(env, value, "byteLength");
        const std::optional<double> bytes = toDouble(env, lengthValue);
        length = bytes ? static_cast<size_t>(*bytes) : 0;
    } else if (napi_is_dataview(env, value, &is) == napi_ok && is) {
        napi_value buffer = nullptr;
        size_t offset = 0;
        if (napi_get_dataview_info(env, value, &length, &data, &buffer, &offset) != napi_ok)
            return std::nullopt;
    } else if (napi_is_arraybuffer(env, value, &is) == napi_ok && is) {
        if (napi_get_arraybuffer_info(env, value, &data, &length) != napi_ok) return std::nullopt;
    } else {
        return std::nullopt;
    }
    if (data == nullptr || length == 0) return std::string();
    return std::string(static_cast<const char*>(data), length);
}

napi_value getProperty(napi_env env, napi_value object, const char* name) {
    if (!isObject(env, object) && !isFunction(env, object)) return nullptr;
    napi_value value = nullptr;
    if (napi_get_named_property(env, object, name, &value) != napi_ok) {
        clearException(env);
        return nullptr;
    }
    if (typeOf(env, value) == napi_undefined) return nullptr;
    return value;
}

napi_value getProperty(napi_env env, napi_value object, napi_value name) {
    if (name == nullptr || (!isObject(env, object) && !isFunction(env, object))) return nullptr;
    napi_value value = nullptr;
    if (napi_get_property(env, object, name, &value) != napi_ok) {
        clearException(env);
        return nullptr;
    }
    if (typeOf(env, value) == napi_undefined) return nullptr;
    return value;
}

bool isObject(napi_env env, napi_value value) {
    return typeOf(env, value) == napi_object;
}

bool isFunction(napi_env env, napi_value value) {
    return typeOf(env, value) == napi_function;
}

napi_value undefined(napi_env env) {
    napi_value result = nullptr;
    napi_get_undefined(env, &result);
    return result;
}

void throwLastError(napi_env env) {
    bool pending = false;
    if (napi_is_exception_pending(env, &pending) == napi_ok && pending) return;
    const napi_extended_error_info* info = nullptr;
    const char* message = "NAPI failed";
    if (napi_get_last_error_info(env, &info) == napi_ok && info != nullptr &&
        info->error_message != nullptr) {
        message = info->error_message;
    }
    napi_throw_error(env, nullptr, message);
}

void clearException(napi_env env) {
    bool pending = false;
    if (napi_is_exception_pending(env, &pending) != napi_ok || !pending) return;
    napi_value ignored = nullptr;
    napi_get_and_clear_last_exception(env, &ignored);
}

std::string takeExceptionText(napi_env env) {
    bool pending = false;
    napi_value exception = nullptr;
    if (napi_is_exception_pending(env, &pending) != napi_ok || !pending ||
        napi_get_and_clear_last_exception(env, &exception) != napi_ok || exception == nullptr)
        return {};
    std::string text;
    if (isObject(env, exception) || isFunction(env, exception)) {
        if (std::optional<std::string> message =
                toString(env, getProperty(env, exception, "message"))) {
            const std::optional<std::string> name =
                toString(env, getProperty(env, exception, "name"));
            text = name && !name->empty() ? *name + ": " + *message : *message;
        }
    }
    if (text.empty()) {
        napi_value coerced = nullptr;
        if (napi_coerce_to_string(env, exception, &coerced) == napi_ok) {
            text = toString(env, coerced).value_or(std::string());
        }
        clearException(env);  // a toString that threw in turn
    }
    // A value with no text at all (an empty message, a symbol) is still a throw the host made.
    if (text.empty()) text = "a value without a message";
    return text;
}

napi_value scriptFunction(napi_env env, Script script, const char* source) {
    void* data = nullptr;
    if (napi_get_instance_data(env, &data) != napi_ok) data = nullptr;
    auto* scripts = static_cast<Scripts*>(data);
    if (scripts == nullptr) {
        scripts = new Scripts();
        if (napi_set_instance_data(env, scripts, freeScripts, nullptr) != napi_ok) {
            delete scripts;
            throwLastError(env);
            return nullptr;
        }
    }
    napi_ref& slot = scripts->functions[static_cast<size_t>(script)];
    napi_value function = nullptr;
    if (slot != nullptr && napi_get_reference_value(env, slot, &function) == napi_ok &&
        function != nullptr)
        return function;
    napi_value text = toString(env, source);
    if (text == nullptr) return nullptr;
    if (napi_run_script(env, text, &function) != napi_ok || !isFunction(env, function) ||
        napi_create_reference(env, function, 1, &slot) != napi_ok) {
        slot = nullptr;
        throwLastError(env);
        return nullptr;
    }
    return function;
}

bool postAsyncTask(napi_env env, std::function<void()> work, std::function<void(napi_env)> done) {
    auto* task = new AsyncTask{std::move(work), std::move(done), nullptr};
    napi_value name = nullptr;
    if (napi_create_string_utf8(env, "ferritcore", NAPI_AUTO_LENGTH, &name) != napi_ok) {
        delete task;
        return false;
    }
    const napi_status status = napi_create_async_work(
        env, nullptr, name,
        [](napi_env, void* data) {
            auto* t = static_cast<AsyncTask*>(data);
            if (t->work) t->work();
        },
        [](napi_env env, napi_status, void* data) {
            std::unique_ptr<AsyncTask> t(static_cast<AsyncTask*>(data));
            napi_delete_async_work(env, t->handle);
            if (t->done) {
                t->done(env);
                clearException(env);
            }
        },
        task, &task->handle);
    if (status != napi_ok) {
        delete task;
        return false;
    }
    if (napi_queue_async_work(env, task->handle) != napi_ok) {
        napi_delete_async_work(env, task->handle);
        delete task;
        return false;
    }
    return true;
}

bool SafeThreadsafeFunction::create(napi_env env, napi_value function, const char* name,
                                    napi_threadsafe_function_call_js callJs) {
    napi_value text = nullptr;
    if (napi_create_string_utf8(env, name, NAPI_AUTO_LENGTH, &text) != napi_ok) return false;
    // The finaliser's own reference keeps the gate alive however long the engine takes to run it.
    auto* held = new std::shared_ptr<Gate>(gate_);
    napi_threadsafe_function tsfn = nullptr;
    if (napi_create_threadsafe_function(env, function, nullptr, text, 0, 1, held, finalize, nullptr,
                                        callJs, &tsfn) != napi_ok) {
        delete held;
        clearException(env);
        return false;
    }
    MutexLock lock(gate_->mutex);
    gate_->tsfn = tsfn;
    return true;
}

void SafeThreadsafeFunction::finalize(napi_env, void* data, void*) {
    std::unique_ptr<std::shared_ptr<Gate>> held(static_cast<std::shared_ptr<Gate>*>(data));
    // Waits for a call in progress on another thread: the engine frees the function next.
    MutexLock lock((*held)->mutex);
    (*held)->tsfn = nullptr;
}

bool SafeThreadsafeFunction::call(void* data) {
    MutexLock lock(gate_->mutex);
    return gate_->tsfn != nullptr &&
           napi_call_threadsafe_function(gate_->tsfn, data, napi_tsfn_nonblocking) == napi_ok;
}

void SafeThreadsafeFunction::unref(napi_env env) {
    MutexLock lock(gate_->mutex);
    if (gate_->tsfn != nullptr) napi_unref_threadsafe_function(env, gate_->tsfn);
}

void SafeThreadsafeFunction::release() {
    MutexLock lock(gate_->mutex);
    if (gate_->tsfn != nullptr) napi_release_threadsafe_function(gate_->tsfn, napi_tsfn_release);
    gate_->tsfn = nullptr;
}

JSFunction::~JSFunction() {
    function_.release();
}

bool JSFunction::call(ArgumentBuilder builder) {
    auto* data = new ArgumentBuilder(std::move(builder));
    if (!function_.call(data)) {
        delete data;
        return false;
    }
    return true;
}

std::shared_ptr<JSFunction> toFunction(napi_env env, napi_value function) {
    if (!isFunction(env, function)) return nullptr;
    std::shared_ptr<JSFunction> made(new JSFunction());
    // The pending call keeps the loop alive until it has run, so a script awaiting it sees it.
    if (!made->function_.create(env, function, "ferritcore.callback", callFunction)) return nullptr;
    return made;
}

std::shared_ptr<Bridge> Bridge::create(napi_env env, napi_value object) {
    if (!isObject(env, object) && !isFunction(env, object)) return nullptr;
    std::shared_ptr<Bridge> bridge(new Bridge());
    bridge->env_ = env;
    if (napi_create_reference(env, object, 1, &bridge->object_) != napi_ok) return nullptr;
    if (!bridge->tasks_.create(env, nullptr, "ferritcore.bridge", runTask)) return nullptr;
    // The bridge lives as long as the process; it must not keep the host's loop alive by itself.
    bridge->tasks_.unref(env);
    return bridge;
}

Bridge::~Bridge() {
    // Objects of the bridge live until the process ends; a bridge that failed half-way is the only
    // one ever destroyed, on the script thread that made it.
    tasks_.release();
    if (object_ != nullptr) napi_delete_reference(env_, object_);
}

bool Bridge::hasMethod(const char* name) {
    napi_value object = nullptr;
    if (napi_get_reference_value(env_, object_, &object) != napi_ok || object == nullptr)
        return false;
    return isFunction(env_, getProperty(env_, object, name));
}

napi_value Bridge::invoke(const char* name, const std::vector<napi_value>& arguments,
                          std::string* failure) {
    napi_value object = nullptr;
    if (napi_get_reference_value(env_, object_, &object) != napi_ok || object == nullptr) {
        if (failure != nullptr) *failure = "the host object is gone";
        return nullptr;
    }
    napi_value method = getProperty(env_, object, name);
    if (!isFunction(env_, method)) {
        if (failure != nullptr) *failure = std::string("the host object has no method ") + name;
        return nullptr;
    }
    napi_value result = nullptr;
    if (napi_call_function(env_, object, method, arguments.size(), arguments.data(), &result) !=
        napi_ok) {
        std::string thrown = takeExceptionText(env_);
        if (failure != nullptr)
            *failure = std::string(name) + " threw " + (thrown.empty() ? "nothing" : thrown);
        return nullptr;
    }
    return result;
}

bool Bridge::postJSTask(std::function<void(napi_env)> task) {
    auto* data = new Task{std::move(task)};
    if (!tasks_.call(data)) {
        delete data;
        return false;
    }
    return true;
}

}  // namespace FerritCore::NAPI
