// FunctionRef: a non-owning reference to something callable, for a callback that runs only while
// the call that takes it lasts. Unlike std::function it never allocates, whatever the lambda
// captures, which is what a read on the request path wants. The callable must outlive the call.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace FerritCore {

template <typename Signature>
class FunctionRef;

template <typename Result, typename... Args>
class FunctionRef<Result(Args...)> {
  public:
    template <typename Callable,
              typename = std::enable_if_t<!std::is_same_v<std::decay_t<Callable>, FunctionRef> &&
                                          std::is_invocable_r_v<Result, Callable&, Args...>>>
    FunctionRef(Callable&& callable)  // NOLINT(google-explicit-constructor): passed as a lambda
        : object_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
          call_([](void* object, Args... args) -> Result {
              return (*static_cast<std::remove_reference_t<Callable>*>(object))(
                  std::forward<Args>(args)...);
          }) {}

    Result operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

  private:
    void* object_;
    Result (*call_)(void*, Args...);
};

}  // namespace FerritCore
