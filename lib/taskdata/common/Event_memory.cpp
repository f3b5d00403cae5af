#include "Event_memory.h"

#include <atomic>
#include <new>

namespace TC {
namespace Task_data {
namespace Event_memory {

namespace {

constexpr std::size_t step = 16;
constexpr std::size_t sizes = max_pooled_size / step;
static_assert(step >= alignof(std::max_align_t), "a block of one step holds any fundamental type");

std::size_t size_class(std::size_t size) { return size == 0 ? 0 : (size - 1) / step; }

#if defined(__SANITIZE_ADDRESS__)
constexpr bool pooled = false;
#else
constexpr bool pooled = true;
#endif

struct Node
{
    Node* next;
};

struct Shared_stack
{
    // Pushed one at a time by the threads that give; emptied all at once by a thread that takes
    // (an exchange, so no pop can see a node that went away and came back).
    std::atomic<Node*> top{nullptr};
    // Blocks of this size that exist, in use or kept.
    std::atomic<int> blocks{0};

    void push(Node* first, Node* last)
    {
        Node* t = top.load(std::memory_order_relaxed);
        do
            last->next = t;
        while (!top.compare_exchange_weak(t, first, std::memory_order_release, std::memory_order_relaxed));
    }
};

Shared_stack g_stacks[sizes];

// This thread's free blocks. Plain pointers, so reaching them costs no initialisation check.
thread_local Node* t_free[sizes];

// Hands what the thread still holds back to the shared stacks when the thread ends. Made on the
// slow path only (the first time the thread runs dry), which is also the only way into t_free.
struct Thread_exit
{
    ~Thread_exit()
    {
        for (std::size_t c = 0; c < sizes; ++c) {
            Node* first = t_free[c];
            if (!first)
                continue;
            Node* last = first;
            while (last->next)
                last = last->next;
            g_stacks[c].push(first, last);
            t_free[c] = nullptr;
        }
    }
};
thread_local Thread_exit t_exit;

} // namespace

void* take(std::size_t size)
{
    const std::size_t c = size_class(size);
    if (!pooled || c >= sizes)
        return ::operator new(size);
    Node*& mine = t_free[c];
    if (Node* n = mine) {
        mine = n->next;
        return n;
    }
    (void)&t_exit; // makes sure this thread's leftovers go back when it ends
    if (Node* n = g_stacks[c].top.exchange(nullptr, std::memory_order_acquire)) {
        mine = n->next;
        return n;
    }
    g_stacks[c].blocks.fetch_add(1, std::memory_order_relaxed);
    return ::operator new((c + 1) * step);
}

void give(void* block, std::size_t size) noexcept
{
    if (!block)
        return;
    const std::size_t c = size_class(size);
    if (!pooled || c >= sizes) {
        ::operator delete(block);
        return;
    }
    Shared_stack& s = g_stacks[c];
    if (std::size_t(s.blocks.load(std::memory_order_relaxed)) * ((c + 1) * step) > kept_bytes_per_size) {
        // After a burst: what exceeds the kept number goes back to the allocator.
        s.blocks.fetch_sub(1, std::memory_order_relaxed);
        ::operator delete(block);
        return;
    }
    Node* n = static_cast<Node*>(block);
    s.push(n, n);
}

bool pooling() { return pooled; }

int blocks(std::size_t size)
{
    const std::size_t c = size_class(size);
    return c < sizes ? g_stacks[c].blocks.load(std::memory_order_relaxed) : 0;
}

} // namespace Event_memory
} // namespace Task_data
} // namespace TC
