// The counted string: text that travels in records shared with the host.
// Its memory layout is a contract between the two modules:
//
//   block (capacity N, N + 21 bytes, one allocation of the string's manager)
//     +0       guard 0xABCD                          (4 bytes)
//     +4       descriptor pointer, unaligned         (8 bytes)
//     +12      guard 0xABCD                          (4 bytes)
//     +16      text and terminator                   (N + 1 bytes)
//     +17 + N  guard 0xABCD                          (4 bytes)
//
// The string itself is one pointer, to the text at +16, or null for no
// storage. A descriptor pointer of null also means no storage.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/mem_mgr.h"

namespace qm
{
// Not thread-safe: a string belongs to one thread at a time. Strings this
// module creates use defaultStringMemMgr; a string made elsewhere keeps the
// manager its descriptor names, and all growing and freeing goes through it.
class CountedString
{
public:
    // The length argument of Assign that stands for "up to the terminator".
    static constexpr std::size_t kWholeText = ~std::size_t{0};

    CountedString() = default;
    // Frees the storage through the string's manager and leaves the pointer
    // null, so that running it again on the same object frees nothing.
    ~CountedString();

    CountedString(const CountedString&) = delete;
    CountedString& operator=(const CountedString&) = delete;
    CountedString(CountedString&& other) noexcept;
    CountedString& operator=(CountedString&& other) noexcept;

    // Sets the capacity to exactly capacity characters, keeping the text up
    // to it. False when memory runs out; the string is then unchanged.
    bool Reserve(std::size_t capacity);
    // Replaces the text with length characters of text (kWholeText: up to
    // its terminator; a null text is empty). Grows by doubling below 1024
    // characters and by at least 1024 above. False when memory runs out;
    // the string is then unchanged.
    bool Assign(const char* text, std::size_t length = kWholeText);
    // Replaces the text with a terminated text, or empties it for null.
    // Throws std::bad_alloc when memory runs out, the string unchanged;
    // fails fast when a guard is broken.
    void Set(const char* text);
    // The terminated text; a shared empty text while there is no storage.
    const char* Text() const;

private:
    CountedStringDescriptor* _Descriptor() const;
    void _CheckGuards() const;
    void _Destroy();

    char* text = nullptr;
};

static_assert(sizeof(CountedString) == sizeof(void*), "a counted string is one pointer");
} // namespace qm
