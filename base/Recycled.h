// makeRecycled<T>: std::make_shared for the objects that every request makes and drops (its
// context, its Resource, the pack match and the part). Each thread keeps a few freed blocks of
// each size and hands them to its next request, instead of giving them back to the allocator and
// asking for them again. A block freed on another thread (an asynchronous completion) is kept by
// that thread. Sanitizer builds allocate every block afresh, so that a use after free is still
// caught. Any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace FerritCore {
namespace RecycledDetail {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kRecycle = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kRecycle = false;
#else
inline constexpr bool kRecycle = true;
#endif
#else
inline constexpr bool kRecycle = true;
#endif

// Blocks kept per size and thread: enough for the requests one thread has in flight at once.
inline constexpr int kKeptBlocks = 16;

// The freed blocks of one size on the calling thread; given back when the thread ends.
template <size_t Size, size_t Align>
class FreeBlocks {
  public:
    static void* take() {
        Blocks& blocks = mine();
        if (blocks.head == nullptr) return nullptr;
        Node* node = blocks.head;
        blocks.head = node->next;
        --blocks.count;
        return node;
    }
    static bool keep(void* block) {
        Blocks& blocks = mine();
        if (blocks.count >= kKeptBlocks) return false;
        Node* node = static_cast<Node*>(block);
        node->next = blocks.head;
        blocks.head = node;
        ++blocks.count;
        return true;
    }

  private:
    struct Node {
        Node* next;
    };
    struct Blocks {
        Node* head = nullptr;
        int count = 0;
        ~Blocks() {
            while (head != nullptr) {
                Node* next = head->next;
                ::operator delete(static_cast<void*>(head));
                head = next;
            }
        }
    };
    static Blocks& mine() {
        thread_local Blocks blocks;
        return blocks;
    }
};

template <typename T>
struct Allocator {
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "blocks come from operator new");
    using value_type = T;
    Allocator() = default;
    template <typename U>
    Allocator(const Allocator<U>&) {}

    T* allocate(size_t n) {
        if (kRecycle && n == 1) {
            if (void* block = FreeBlocks<sizeof(T), alignof(T)>::take())
                return static_cast<T*>(block);
        }
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    void deallocate(T* block, size_t n) {
        if (kRecycle && n == 1 && FreeBlocks<sizeof(T), alignof(T)>::keep(block)) return;
        ::operator delete(static_cast<void*>(block));
    }
    template <typename U>
    bool operator==(const Allocator<U>&) const {
        return true;
    }
};

}  // namespace RecycledDetail

template <typename T, typename... Args>
std::shared_ptr<T> makeRecycled(Args&&... args) {
    return std::allocate_shared<T>(RecycledDetail::Allocator<T>(), std::forward<Args>(args)...);
}

}  // namespace FerritCore
