// Owning wrappers for Win32 handles, heap blocks and locks, so that no path leaks one.
#pragma once

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace qv {

// Owns one resource described by Traits: Traits::type, Traits::invalid(), Traits::close(type).
template <typename Traits>
class UniqueResource {
public:
    using type = typename Traits::type;

    UniqueResource() noexcept : value_(Traits::invalid()) {}
    explicit UniqueResource(type value) noexcept : value_(value) {}
    ~UniqueResource() { reset(); }

    UniqueResource(UniqueResource&& other) noexcept : value_(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;

    type get() const noexcept { return value_; }
    bool valid() const noexcept { return value_ != Traits::invalid(); }
    explicit operator bool() const noexcept { return valid(); }

    type release() noexcept { return std::exchange(value_, Traits::invalid()); }
    void reset(type value = Traits::invalid()) noexcept
    {
        type old = std::exchange(value_, value);
        if (old != Traits::invalid())
            Traits::close(old);
    }
    // For out-parameters of creating calls: releases what is held and exposes the slot.
    type* put() noexcept
    {
        reset();
        return &value_;
    }

private:
    type value_;
};

struct HandleTraits {
    using type = HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::CloseHandle(h); }
};

struct FileHandleTraits {
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::CloseHandle(h); }
};

struct FindHandleTraits {
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::FindClose(h); }
};

struct RegKeyTraits {
    using type = HKEY;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::RegCloseKey(h); }
};

struct ModuleTraits {
    using type = HMODULE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::FreeLibrary(h); }
};

struct LocalMemTraits {
    using type = HLOCAL;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::LocalFree(h); }
};

using UniqueHandle = UniqueResource<HandleTraits>;         // threads, events, mutexes, processes
using UniqueFile = UniqueResource<FileHandleTraits>;       // CreateFile results
using UniqueFind = UniqueResource<FindHandleTraits>;       // FindFirstFile results
using UniqueRegKey = UniqueResource<RegKeyTraits>;
using UniqueModule = UniqueResource<ModuleTraits>;
using UniqueLocal = UniqueResource<LocalMemTraits>;        // LocalAlloc / FormatMessage buffers

// A block from the C runtime's allocator (malloc/calloc), released with free().
template <typename T>
struct CrtFree {
    void operator()(T* p) const noexcept { std::free(p); }
};

// A C runtime stream, closed with fclose().
struct CrtFileClose {
    void operator()(FILE* f) const noexcept { std::fclose(f); }
};
using UniqueCrtFile = std::unique_ptr<FILE, CrtFileClose>;

// A block from the process heap.
class HeapBlock {
public:
    HeapBlock() noexcept = default;
    explicit HeapBlock(size_t bytes) noexcept : data_(::HeapAlloc(::GetProcessHeap(), 0, bytes)) {}
    ~HeapBlock() { reset(); }
    HeapBlock(HeapBlock&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}
    HeapBlock& operator=(HeapBlock&& other) noexcept
    {
        if (this != &other) {
            reset();
            data_ = std::exchange(other.data_, nullptr);
        }
        return *this;
    }
    HeapBlock(const HeapBlock&) = delete;
    HeapBlock& operator=(const HeapBlock&) = delete;

    void* get() const noexcept { return data_; }
    template <typename T>
    T* as() const noexcept { return static_cast<T*>(data_); }
    explicit operator bool() const noexcept { return data_ != nullptr; }
    void reset() noexcept
    {
        if (data_)
            ::HeapFree(::GetProcessHeap(), 0, std::exchange(data_, nullptr));
    }

private:
    void* data_ = nullptr;
};

// A re-entrant critical section with its whole life in one object.
class CriticalSection {
public:
    CriticalSection() noexcept { ::InitializeCriticalSection(&cs_); }
    ~CriticalSection() { ::DeleteCriticalSection(&cs_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void lock() noexcept { ::EnterCriticalSection(&cs_); }
    void unlock() noexcept { ::LeaveCriticalSection(&cs_); }

private:
    CRITICAL_SECTION cs_;
};

// Holds a critical section for the lifetime of a scope.
class CsLock {
public:
    explicit CsLock(CriticalSection& cs) noexcept : cs_(cs) { cs_.lock(); }
    ~CsLock() { cs_.unlock(); }
    CsLock(const CsLock&) = delete;
    CsLock& operator=(const CsLock&) = delete;

private:
    CriticalSection& cs_;
};

} // namespace qv
