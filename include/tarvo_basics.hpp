// Errors, payloads and answers of the C++ handles; part of tarvo.hpp.
#ifndef TARVO_BASICS_HPP
#define TARVO_BASICS_HPP

#include "tarvo.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarvo {

// Most bytes that one request or response can carry. None can be empty.
inline constexpr std::size_t MAX_PAYLOAD = 4000;

// Longest name of a process or server.
inline constexpr std::size_t MAX_NAME = 100;

// What a result of tarvo.h means as an error code; no error for results from 0 up.
[[nodiscard]] inline std::error_code ToError(int result) noexcept {
    if (result >= 0) {
        return {};
    }
    return {result == -1 ? EPIPE : -result, std::generic_category()};
}

// Makes the process ignore SIGPIPE, unless it has a handler for it, so that sending to a process that has gone is an
// error and no signal, whose default ends the process without a word. Call it at the start of main.
inline void IgnoreSigpipe() noexcept {
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    if (before != SIG_DFL && before != SIG_ERR) {
        std::signal(SIGPIPE, before);
    }
}

// TarvoCfgFinishServer: ends all communication of the process, waits for the callbacks that run, for good. Must not be
// called from a callback.
inline void Finish() noexcept { TarvoCfgFinishServer(); }

// TarvoServiceIsExist: whether the library can be used.
[[nodiscard]] inline bool IsAlive() noexcept { return TarvoServiceIsExist() == 1; }

namespace detail {

// A duration as tarvo.h takes it. Below zero, as deadlines that have passed yield, is no wait and not an endless one.
constexpr int Milliseconds(std::chrono::milliseconds time, int least) noexcept {
    if (time.count() < least) {
        return least;
    }
    constexpr int most = std::numeric_limits<int>::max();
    return time.count() > most ? most : static_cast<int>(time.count());
}

// A C string would end at the zero byte, and name somebody else.
inline bool HoldsZero(const std::string &name) noexcept { return name.find('\0') != std::string::npos; }

// Texts in a row.
inline std::string Join(std::initializer_list<std::string_view> parts) {
    std::string whole;
    for (const std::string_view part : parts) {
        whole += part;
    }
    return whole;
}

// The remote of a pipe; empty when there is no such pipe.
inline std::string RemoteName(int handle) {
    char name[MAX_NAME + 1];
    return TarvoGetRemoteName(handle, name, sizeof(name)) == 0 ? name : "";
}

inline void ThrowIf(const std::error_code &error, std::initializer_list<std::string_view> what) {
    if (error) {
        throw std::system_error(error, Join(what));
    }
}

// Throws an error of a pipe's function with the name of the remote, where that can still be told.
inline void ThrowIf(const std::error_code &error, const char *what, int handle) {
    if (error) {
        const std::string remote = RemoteName(handle);
        throw std::system_error(error, remote.empty() ? what : Join({what, " to ", remote}));
    }
}

} // namespace detail

// The bytes of a request or response to be sent: a view, so what it was made from must live until the call returns.
// Made from string literals (without their NUL), strings, string views, and containers of chars, bytes or 8-bit ints.
class Payload {
public:
    Payload(const void *bytes, std::size_t size) noexcept
        : data_(static_cast<const char *>(bytes)), size_(Bounded(size)) {}
    Payload(const char *text) noexcept : Payload(std::string_view(text)) {}
    template <typename Container,
              typename = std::enable_if_t<
                  sizeof(*std::declval<const Container &>().data()) == 1 &&
                  std::is_convertible_v<decltype(std::declval<const Container &>().size()), std::size_t>>>
    Payload(const Container &container) noexcept : Payload(container.data(), container.size()) {}
    // 0 would be taken for a null pointer to text. Other numbers have no bytes that two processes must agree on.
    template <typename Number,
              std::enable_if_t<std::is_arithmetic_v<Number> || std::is_null_pointer_v<Number>, int> = 0>
    Payload(Number) = delete;

    // For the structures of tarvo.h, which sends from `data` and never writes to it.
    [[nodiscard]] char *Data() const noexcept { return const_cast<char *>(data_); }
    [[nodiscard]] uint32_t Size() const noexcept { return size_; }

private:
    // Sizes beyond 32 bits stay too long instead of becoming something short.
    static constexpr uint32_t Bounded(std::size_t size) noexcept {
        constexpr uint32_t most = std::numeric_limits<uint32_t>::max();
        return size > most ? most : static_cast<uint32_t>(size);
    }

    const char *data_;
    uint32_t size_;
};

// The answer to a call. Owns: its bytes. Threads: one at a time.
class [[nodiscard]] Response {
public:
    Response() noexcept = default;
    Response(Response &&other) noexcept : raw_(std::exchange(other.raw_, TarvoResponse{})) {}
    Response &operator=(Response &&other) noexcept {
        std::swap(raw_, other.raw_);
        return *this;
    }
    ~Response() { DestroyResponse(&raw_); }

    // The id that the library gave to the request.
    [[nodiscard]] uint32_t Id() const noexcept { return raw_.id; }
    // Valid as long as this object, so not for one that ends with the line: that has Text(). Empty when this one was
    // moved from or its call has failed, and only then.
    [[nodiscard]] std::string_view Bytes() const &noexcept {
        return raw_.data == nullptr ? "" : std::string_view(raw_.data, raw_.size);
    }
    std::string_view Bytes() const && = delete;
    // A copy of the bytes: pipe.Call("question", 1s).Text().
    [[nodiscard]] std::string Text() const { return std::string(Bytes()); }

private:
    friend class PipeView;
    TarvoResponse raw_{};
};

} // namespace tarvo

#endif // TARVO_BASICS_HPP
